#pragma once

#include <openssl/types.h>
#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Velum/Files/UniqueFd.h"

namespace velum {

/// The program that a process runs: one process, pinned by a descriptor, so that a reused number is
/// no other one; and one file, opened through the process, so that a replaced path is no other one.
/// Every call throws CodeRefused when it can't do its work. Not thread-safe.
class PinnedProgram {
 public:
  static constexpr std::size_t maximumSignatureSize = std::size_t{1} << 20U;
  static constexpr const char* signatureAttribute = "user.velum.signature";
  static constexpr const char* signatureSuffix = ".p7s";

  /// Refuses what runs no program: no such process, one that has ended (reaped or not), a kernel
  /// thread; a process this user may not look at, or that /proc does not show; and a program that
  /// has been deleted or has more than `maximumSize` bytes.
  PinnedProgram(int pid, std::uint64_t maximumSize);

  /// The bytes of its signature: the extended attribute where there is one, which goes with the
  /// file wherever it is moved; else the file NAME.p7s in the folder where the program is now.
  std::string signature() const;

  /// The digest of the file's content, which is read once and piece by piece.
  std::vector<std::uint8_t> digest(const EVP_MD* algorithm) const;

  /// Refuses unless, since the constructor, the process has lived on and run this program, and
  /// nothing has touched the file.
  void requireUnchanged() const;

 private:
  bool hasEnded() const;
  std::optional<std::string> attribute() const;
  UniqueFd folder() const;

  int number_ = 0;  // as /proc knows it
  UniqueFd process_;
  UniqueFd file_;
  struct stat status_ {};
  std::string path_;  // as the system names the open file
};

}  // namespace velum
