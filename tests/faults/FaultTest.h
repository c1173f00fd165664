#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/faults/CallGate.h"

namespace velum::test {

enum class Outcome : std::uint8_t { succeeded, failed, killed };

/// An operation that is done again and again, each time with another of its system calls failing
/// or with its process killed there. Every time runs in a process and a folder of its own.
struct FaultyOperation {
  /// Takes the folder into use, in every process that deals with it: environment, objects.
  std::function<void(const std::string& folder)> enter;
  /// Makes the state before the operation.
  std::function<void()> prepare = [] {};
  /// The operation; whether it reports success.
  std::function<bool()> run;
  /// Whether what it set going behind itself rests; waited for before its files are looked at.
  std::function<bool()> isSettled = {};
  /// Expects that the old or the new state stands, as the outcome allows.
  std::function<void(Outcome)> verify;
  /// The later try, which must succeed; empty: `run` again.
  std::function<bool()> again = {};
  /// The calls whose failure a success may hide, as is documented for the operation.
  CallPredicate mayHide = [](const GatedCall&) { return false; };
  /// The calls that may give up when interrupted; others have to try again.
  CallPredicate mayGiveUp = [](const GatedCall&) { return false; };
  /// The calls that remove what is temporary, beside unlink(2): when they fail, it remains, and
  /// nobody need hear of it.
  CallPredicate isTidying = [](const GatedCall&) { return false; };
  /// The files that a killed process may leave for good.
  std::function<bool(const std::string& name)> mayRemain = [](const std::string&) { return false; };
  /// The calls that are left alone, as another operation's.
  CallPredicate isSpared = [](const GatedCall&) { return false; };
  /// Whether a file must be on the disk, by fsync(2), before it gets its name, and the name after.
  bool isDurable = false;
  /// The names of the calls it makes, where no other may come to them; empty: whichever.
  std::vector<std::string> calls = {};
  /// How the name ends of the file that must be locked before anything is read for a change.
  std::string lock = {};
  /// With more calls than this, no more of them fail, evenly chosen, of equal ones the first two
  /// and the last, and each with one of its errors.
  std::size_t mostCalls = 60;
  /// The path of the program whose calls are meant and which is killed; empty: the test's own, in
  /// the process that calls `run` and its children.
  std::string program = {};
};

/// Plays all of it. After each time: no crash and no hang, no descriptor and no file left, the
/// state as the outcome says, and a later try succeeds. An injected failure must be reported.
void failEveryCall(const FaultyOperation& operation);

}  // namespace velum::test
