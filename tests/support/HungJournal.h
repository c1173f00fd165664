#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <filesystem>
#include <string_view>

#include "Velum/Files/UniqueFd.h"

namespace velum::test {

inline constexpr const char* journalSocketPath = "/run/systemd/journal/socket";

namespace detail {
inline UniqueFd boundSocket(int type, const sockaddr_un& address) {
  std::filesystem::create_directories("/run/systemd/journal");
  UniqueFd journal(::socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const auto* const name = reinterpret_cast<const sockaddr*>(&address);  // NOLINT(*-reinterpret-*)
  EXPECT_EQ(::bind(journal.get(), name, sizeof address), 0);
  return journal;
}
}  // namespace detail

/// A journal that hangs, like the next one: here its socket for records, which nobody reads from,
/// filled. For a process with a /run of its own.
inline UniqueFd hungJournal() {
  sockaddr_un address{AF_UNIX, {}};
  std::string_view(journalSocketPath).copy(address.sun_path, sizeof address.sun_path - 1);
  const auto* const name = reinterpret_cast<const sockaddr*>(&address);  // NOLINT(*-reinterpret-*)
  UniqueFd journal = detail::boundSocket(SOCK_DGRAM, address);
  const UniqueFd sender(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  while (::sendto(sender.get(), "x", 1, 0, name, sizeof address) == 1) continue;
  EXPECT_EQ(errno, EAGAIN);
  return journal;
}

/// And here its socket for programs' output, with one more place for those that nobody accepts.
inline UniqueFd journalWithRoomForOneStream() {
  UniqueFd journal = detail::boundSocket(SOCK_STREAM, {AF_UNIX, "/run/systemd/journal/stdout"});
  EXPECT_EQ(::listen(journal.get(), 0), 0);
  return journal;
}

}  // namespace velum::test
