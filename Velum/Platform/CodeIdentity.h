#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace velum {

/// What a check of a process's signature came to.
struct CodeVerdict {
  bool valid = false;
  /// Why it is not valid, for makers who wonder about their own program; empty when it is. Not part
  /// of any decision.
  std::string reason;
};

/// How strict a check is.
struct CodeCheckOptions {
  /// Also refuse a signature whose certificates have run out by now, or are not valid yet. Off by
  /// default: a program does not become foreign while it runs, nor on a machine whose clock is
  /// wrong.
  bool strictValidity = false;
  /// The largest program that is read, in bytes: who puts a signature of the team's beside a huge
  /// file makes every check take as long as reading it does, some 5 s for each GiB.
  std::uint64_t maximumSize = std::uint64_t{512} << 20U;
};

/// Tells who signed the program that a process runs. What the process loaded beside its executable
/// (libraries, plug-ins, an interpreter's script) is not looked at. Any thread; nothing throws but
/// std::bad_alloc.
class CodeIdentity {
 public:
  CodeIdentity() = default;
  CodeIdentity(const CodeIdentity&) = delete;
  CodeIdentity& operator=(const CodeIdentity&) = delete;
  virtual ~CodeIdentity() = default;

  /// Trusts the machine's code-signing roots. Never destroyed.
  static CodeIdentity& shared();

  /// Trusts the certificates in the files *.pem of `rootsFolder` instead, as that folder is at each
  /// check. Nobody but root and this user may be able to write it.
  static std::unique_ptr<CodeIdentity> trusting(std::string rootsFolder);

  /// Whether the program of process `pid` is validly signed and the signer's certificate names
  /// exactly the team `teamIdentifier` as its only organisational unit.
  virtual CodeVerdict check(int pid, const std::string& teamIdentifier,
                            const CodeCheckOptions& options = {}) = 0;
};

}  // namespace velum
