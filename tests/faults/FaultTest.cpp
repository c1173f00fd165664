#include "tests/faults/FaultTest.h"

#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <map>
#include <regex>
#include <set>

#include "Velum/Logger/Logger.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Environment.h"
#include "tests/support/Inspection.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Waiting.h"

namespace velum::test {
namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;

Names filesBelow(const std::string& folder) {
  Names names;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    names.insert(entry.path().lexically_relative(folder).string());
  }
  return names;
}

/// What a child tells its parent, in memory that they share.
struct Notes {
  using Text = std::array<char, 16 * 1024>;
  bool isSuccess;
  std::ptrdiff_t descriptors;
  Text filesBefore;
  Text filesAfterRun;

  static void put(const Names& names, Text& to) {
    std::string text;
    for (const std::string& name : names) text += name + '\n';
    text.copy(to.data(), to.size() - 1);
  }
  static Names names(const Text& from) {
    Names result;
    std::istringstream lines(from.data());
    for (std::string line; std::getline(lines, line);) result.insert(line);
    return result;
  }
};

class Harness {
 public:
  explicit Harness(const FaultyOperation& operation) : operation_(operation) {}

  void playAll() {
    const Played first = play({});
    if (!first.problems.empty() || !first.isSuccess) {
      ADD_FAILURE() << "without any fault: " << first.problems;
      return;
    }
    expectOrder(first.run.calls);
    knownFiles_ = first.filesAfterRun;
    knownFiles_.insert(first.filesBefore.begin(), first.filesBefore.end());
    knownFiles_.insert(first.filesAtTheEnd.begin(), first.filesAtTheEnd.end());
    descriptors_ = first.descriptors;
    const bool isShort = first.run.calls.size() <= operation_.mostCalls;
    for (const std::size_t index : chosenCalls(first.run.calls)) {
      const std::size_t errors = isShort ? first.run.calls[index].errors.size() : 1;
      for (std::size_t error = 0; error < errors; ++error) {
        inject({.index = index, .error = isShort ? error : index});
      }
      inject({.index = index, .kills = true});
    }
    std::cout << "[  faults  ] " << first.run.calls.size() << " calls, " << failures_
              << " failures, " << kills_ << " kills\n";
    EXPECT_GT(failures_, 0U);
    EXPECT_GT(kills_, 0U);
    // Only now: a child would take a failure it inherits for its own.
    for (const std::string& report : reports_) ADD_FAILURE() << report;
  }

 private:
  struct Played {
    GatedRun run;
    bool isSuccess;
    Names filesBefore;
    Names filesAfterRun;
    Names filesAtTheEnd;
    std::ptrdiff_t descriptors;
    std::string problems;
  };

  void expectOrder(const std::vector<GatedCall>& calls) {
    const auto find = [](auto from, auto to, const char* name, const std::string& subject) {
      return std::find_if(from, to, [&](const GatedCall& call) {
        return call.name == name && call.subject.ends_with(subject);
      });
    };
    for (auto call = calls.begin(); operation_.isDurable && call != calls.end(); ++call) {
      if (call->name != "rename") continue;
      const std::string folder = call->subject.substr(0, call->subject.rfind('/'));
      const auto before = std::reverse_iterator(call);
      const auto written = find(before, calls.rend(), "write", call->subject);
      if (find(before, written, "fsync", call->subject) == written ||
          find(call, calls.end(), "fsync", folder) == calls.end()) {
        reports_.push_back(call->text() + ": is not on the disk");
      }
    }
    std::vector<std::string> names;
    for (const GatedCall& call : calls) names.push_back(call.name);
    if (!operation_.calls.empty() && names != operation_.calls) {
      reports_.push_back("makes other calls: " + ::testing::PrintToString(names));
    }
    const auto locked = find(calls.begin(), calls.end(), "flock", operation_.lock);
    const auto looked = find(calls.begin(), calls.end(), "rename", "");
    const std::string changed = looked == calls.end() ? "" : looked->subject;
    const std::string target =
        std::regex_replace(changed, std::regex(R"(/\.(.+)\.[0-9a-f]{16}\.new$)"), "/$1");
    if (!operation_.lock.empty() && locked >= find(calls.begin(), calls.end(), "open", target)) {
      reports_.push_back("reads before it has the lock");
    }
  }

  /// All of a short operation; of a long one the first two and the last of equal calls.
  std::vector<std::size_t> chosenCalls(const std::vector<GatedCall>& calls) const {
    const bool isShort = calls.size() <= operation_.mostCalls;
    std::map<std::string, std::size_t> equal;
    for (const GatedCall& call : calls) ++equal[call.text()];
    std::map<std::string, std::size_t> seen;
    std::vector<std::size_t> chosen;
    for (std::size_t index = 0; index < calls.size(); ++index) {
      const std::string text = calls[index].text();
      const std::size_t number = ++seen[text];
      if (isShort || number <= 2 || number == equal[text]) chosen.push_back(index);
    }
    const std::size_t step = chosen.size() / operation_.mostCalls + 1;
    std::vector<std::size_t> even;
    for (std::size_t i = 0; i < chosen.size(); i += step) even.push_back(chosen[i]);
    return even;
  }

  Played play(const Injection& injection) const {
    const TemporaryFolder folder;
    const SharedWithChild<Notes> notes;
    CallGate gate;
    Played played{};
    played.run = gate.run(guarded([&] { playInChild(folder.path(), gate, *notes); }), injection,
                          operation_.isSpared, operation_.program);
    played.isSuccess = notes->isSuccess;
    if (played.run.error == Injection::kill && operation_.program.empty()) {
      ChildProcess child(guarded([&] {
        operation_.enter(folder.path());
        operation_.verify(Outcome::killed);
        tryAgain();
      }));
      if (child.wait() != 0) played.problems += "\n  what comes next is wrong, see above";
    } else if (played.run.isHung) {
      played.problems += "\n  hangs";
    } else if (played.run.status != 0) {
      const int status = played.run.status;
      played.problems += WIFSIGNALED(status)
                             ? "\n  ended by signal " + std::to_string(WTERMSIG(status))
                             : "\n  failed, see above: " + std::to_string(WEXITSTATUS(status));
    }
    played.filesBefore = Notes::names(notes->filesBefore);
    played.filesAfterRun = Notes::names(notes->filesAfterRun);
    played.filesAtTheEnd = filesBelow(folder.path());
    played.descriptors = notes->descriptors;
    return played;
  }

  /// An exception must not lead a child out of its part.
  static std::function<void()> guarded(const std::function<void()>& body) {
    return [body] {
      Logger::shared().setHandlers({});
      try {
        body();
      } catch (const std::exception& error) {
        ADD_FAILURE() << "throws " << error.what();
      }
    };
  }

  void playInChild(const std::string& folder, CallGate& gate, Notes& notes) const {
    operation_.enter(folder);
    operation_.prepare();
    Notes::put(filesBelow(folder), notes.filesBefore);
    gate.enter();
    gate.arm(true);
    const bool isSuccess = operation_.run();
    gate.arm(false);
    notes.isSuccess = isSuccess;
    if (operation_.isSettled) eventually(operation_.isSettled, std::chrono::seconds(2));
    Notes::put(filesBelow(folder), notes.filesAfterRun);
    operation_.verify(isSuccess ? Outcome::succeeded : Outcome::failed);
    tryAgain();
    // Threads may be about to close some.
    eventually([&] { return openDescriptors() <= descriptors_; }, std::chrono::seconds(2));
    notes.descriptors = openDescriptors();
  }

  void tryAgain() const {
    EXPECT_TRUE(operation_.again ? operation_.again() : operation_.run()) << "a later try";
    operation_.verify(Outcome::succeeded);
  }

  void inject(const Injection& injection) {
    SCOPED_TRACE("call " + std::to_string(injection.index) +
                 (injection.kills ? ", killed" : ", error " + std::to_string(injection.error)));
    Played played = play(injection);
    if (!played.run.injected) return;  // it went another way this time
    ++(injection.kills ? kills_ : failures_);
    const GatedCall& call = *played.run.injected;
    const int error = played.run.error;
    std::string& problems = played.problems;
    if (error == Injection::kill) {
      problems += unexpected(played.filesAtTheEnd, operation_.mayRemain);
    } else if (problems.empty()) {
      if (!isReportedWell(call, error, played.isSuccess)) {
        problems += error == EINTR ? "\n  gives up when interrupted" : "\n  nobody hears of it";
      }
      const bool isTidying = call.name == "unlink" || operation_.isTidying(call);
      // Without a thread that watches it, a tool is killed.
      const auto mayRemain = [&](const std::string& name) {
        return isTidying || (call.name == "clone" && operation_.mayRemain(name));
      };
      problems += unexpected(played.filesAfterRun, mayRemain);
      problems += unexpected(played.filesAtTheEnd, mayRemain);
      if (played.descriptors > descriptors_) problems += "\n  a descriptor stays open";
    }
    if (problems.empty()) return;
    reports_.push_back("call " + std::to_string(injection.index) + ", " + call.text() + ", " +
                       (error == Injection::kill ? "killed" : ::strerrorname_np(error)) + ":" +
                       problems);
  }

  bool isReportedWell(const GatedCall& call, int error, bool isSuccess) const {
    // The C library opens that one for a child, once; nothing interrupts its opening.
    if (error == EINTR && call.subject == "/dev/null") return true;
    return error == EINTR ? isSuccess || operation_.mayGiveUp(call)
                          : !isSuccess || operation_.mayHide(call) || operation_.isTidying(call);
  }

  std::string unexpected(const Names& found,
                         const std::function<bool(const std::string&)>& mayRemain) const {
    std::string text;
    for (const std::string& name : found) {
      if (!knownFiles_.contains(name) && !mayRemain(name)) text += "\n  left behind: " + name;
    }
    return text;
  }

  const FaultyOperation& operation_;
  Names knownFiles_;  // before, after and at the end of a play without a fault
  std::ptrdiff_t descriptors_ = PTRDIFF_MAX;  // at the end, as many as without a fault
  std::size_t failures_ = 0;
  std::size_t kills_ = 0;
  std::vector<std::string> reports_;
};

}  // namespace

void failEveryCall(const FaultyOperation& operation) {
  if (!CallGate::isSupported()) GTEST_SKIP() << "calls can't be gated here";
  // Where fsync(2) costs nothing.
  const char* const memory = "/dev/shm";
  const ScopedVariable temporary("TMPDIR", ::access(memory, W_OK) == 0 ? memory : "/tmp");
  Harness(operation).playAll();
}

}  // namespace velum::test
