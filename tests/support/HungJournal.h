#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <filesystem>
#include <string_view>

#include "Velum/Platform/Posix/UniqueFd.h"

namespace velum::test {

inline constexpr const char* journalSocketPath = "/run/systemd/journal/socket";

/// A journal that hangs: its socket, which nobody reads from, filled. For a process with a /run of
/// its own.
inline UniqueFd hungJournal() {
  std::filesystem::create_directories("/run/systemd/journal");
  UniqueFd journal(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  sockaddr_un address{AF_UNIX, {}};
  std::string_view(journalSocketPath).copy(address.sun_path, sizeof address.sun_path - 1);
  const auto* const name = reinterpret_cast<const sockaddr*>(&address);  // NOLINT(*-reinterpret-*)
  EXPECT_EQ(::bind(journal.get(), name, sizeof address), 0);
  const UniqueFd sender(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  while (::sendto(sender.get(), "x", 1, 0, name, sizeof address) == 1) continue;
  EXPECT_EQ(errno, EAGAIN);
  return journal;
}

}  // namespace velum::test
