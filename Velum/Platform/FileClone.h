#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace velum {

class Progress;

/// Copies a file, sharing its blocks where the volume can (copy on write), with its times, owner
/// and permissions. Where the owner or the group can't be kept, what it alone was permitted is not.
/// What stands at `target` is replaced in one step: a reader sees the old or the new file, and a
/// failure leaves the old one. A symbolic link at `source` is followed. Throws SystemError
/// "clonefile(_:to:), copyfile (source, target)", with ECANCELED when `progress` was cancelled,
/// which is looked at every few MiB.
void cloneFile(const std::string& source, const std::string& target,
               const Progress* progress = nullptr);

struct CopyOutcome {
  int error = 0;            ///< 0 or an errno value.
  bool isOfSource = false;  ///< Reading failed, not writing.
};

/// Copies `size` bytes between open files, at the given offsets, inside the kernel where that is
/// possible. Stops early, without error, at the end of the source.
CopyOutcome copyFileRange(int source, std::int64_t sourceOffset, int target,
                          std::int64_t targetOffset, std::int64_t size) noexcept;

/// Sets the creation time of an open file. Returns 0 or an errno value. Where nobody can set it,
/// the call does nothing and succeeds.
int setCreationTime(int descriptor, timespec time) noexcept;

}  // namespace velum
