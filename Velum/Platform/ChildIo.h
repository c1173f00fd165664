#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Velum/Files/UniqueFd.h"

namespace velum {

/// What a process needs to talk with its children and to wait for them.

struct PipeEnds {
  UniqueFd reader;
  UniqueFd writer;
};

/// A new pipe that no child inherits by itself, of 256 KiB where this user may have that much, so
/// that a child writes on while its reader is busy. (With more, what it holds is no longer in the
/// processor's cache when it is read.) Its ends are never the numbers of standard
/// streams, even where this process has closed those. Throws SystemError.
PipeEnds makePipe();

/// Bytes that can be read from a pipe at this moment.
std::size_t availableBytes(int reader) noexcept;

/// write(2) to a pipe or socket, but a reader that is gone is only the error EPIPE: this process
/// gets no SIGPIPE. Any thread.
ssize_t writeQuietly(int writer, std::string_view bytes) noexcept;

/// A descriptor that becomes readable once `child` has ended and stays so. It stands for that
/// process, not for its number; one that was reaped already counts as ended. Throws SystemError.
UniqueFd exitDescriptor(pid_t child);

/// Waits until `child` has ended and returns its wait(2) status; its number is free again then.
/// Where something else in this process took the status away, it reads as exit status 255.
int reapChild(pid_t child) noexcept;

/// Has the system provide the memory pages of a block all at once, for whoever is about to fill
/// them: one by one, as they are touched, takes longer. Only a hint.
void provideMemory(char* begin, std::size_t size) noexcept;

/// How many bytes a running process has read from whatever it reads; 0 when that can't be learned.
std::uint64_t bytesReadBy(pid_t process);

}  // namespace velum
