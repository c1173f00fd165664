#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "Velum/Base/AtFork.h"
#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Concurrency/UnfairLock.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/ConsoleLog.h"
#include "Velum/Platform/SystemLog.h"

namespace velum {
namespace {

int journalPriority(SystemLog::Type type) noexcept {
  switch (type) {
    case SystemLog::Type::normal:
      return LOG_NOTICE;
    case SystemLog::Type::error:
      return LOG_ERR;
    case SystemLog::Type::fault:
      break;
  }
  return LOG_CRIT;
}

iovec piece(std::string_view text) noexcept {
  return {const_cast<char*>(text.data()), text.size()};  // NOLINT(*-pro-type-const-cast): read only
}

// A field of the journal's protocol. A value that has lines would end at the first one; those are
// preceded by their size instead.
std::string fieldStart(std::string_view name, std::string_view value) {
  std::string start(name);
  if (value.find('\n') == std::string_view::npos) return start + '=';
  std::array<char, sizeof(std::uint64_t)> littleEndian{};
  for (std::size_t i = 0; i < littleEndian.size(); ++i) {
    littleEndian[i] = static_cast<char>(std::uint64_t{value.size()} >> (8 * i) & 0xFFU);
  }
  start += '\n';
  return start.append(littleEndian.data(), littleEndian.size());
}

std::string field(std::string_view name, std::string_view value) {
  return fieldStart(name, value).append(value).append(1, '\n');
}

/// The process's way to the journal: one socket, opened with the first record. It never blocks,
/// whatever becomes of the journal, and is not connected, so that a journal that was restarted gets
/// the next record. Any thread.
class JournalSocket final : public ForkParticipant {
 public:
  static JournalSocket& shared() {
    static NeverDestroyed<JournalSocket> instance;
    return *instance;
  }

  /// False when the journal is not there, or has too much to read already.
  template <std::size_t count>
  bool send(std::array<iovec, count> pieces) noexcept {
    const int socket = descriptor();
    if (socket < 0) return false;
    msghdr message = emptyMessage();
    message.msg_iov = pieces.data();
    message.msg_iovlen = count;
    if (send(socket, message)) return true;
    return (errno == EMSGSIZE || errno == ENOBUFS) && sendAsFile(socket, pieces.data(), count);
  }

  void prepareFork() noexcept override { opening_.lock(); }
  void afterForkInParent() noexcept override { opening_.unlock(); }
  void afterForkInChild() noexcept override {
    socket_.reset();  // what the parent has not been rid of yet would count as the child's
    opening_.resetAfterFork();
  }

 private:
  friend class NeverDestroyed<JournalSocket>;

  JournalSocket() : ForkParticipant(Stage::leaf) {
    constexpr std::string_view path = "/run/systemd/journal/socket";
    address_.sun_family = AF_UNIX;
    path.copy(address_.sun_path, sizeof address_.sun_path - 1);
    registerForFork();
  }

  // Stays open until the end, so it is used without the lock.
  int descriptor() noexcept {
    const std::lock_guard guard(opening_);
    if (!socket_) {
      constexpr int room = 8 << 20;  // bytes; the system may give less
      socket_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    }
    return socket_.get();
  }

  msghdr emptyMessage() noexcept {
    msghdr message{};
    message.msg_name = &address_;
    message.msg_namelen = sizeof address_;
    return message;
  }

  static bool send(int socket, const msghdr& message) noexcept {
    return retryInterrupted([&] { return ::sendmsg(socket, &message, MSG_NOSIGNAL); }) >= 0;
  }

  // What is too large for a datagram is put into a file in memory, whose descriptor is sent.
  bool sendAsFile(int socket, const iovec* pieces, std::size_t count) noexcept {
    const UniqueFd file(::memfd_create("journal-record", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    for (std::size_t i = 0; i < count; ++i) {
      for (std::size_t done = 0; done < pieces[i].iov_len;) {
        const char* const rest = static_cast<const char*>(pieces[i].iov_base) + done;
        const ssize_t written =
            retryInterrupted([&] { return ::write(file.get(), rest, pieces[i].iov_len - done); });
        if (written < 0) return false;
        done += static_cast<std::size_t>(written);
      }
    }
    constexpr int seals = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
    if (::fcntl(file.get(), F_ADD_SEALS, seals) != 0) return false;
    const int descriptor = file.get();
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptor)> control{};
    msghdr message = emptyMessage();
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    return send(socket, message);
  }

  sockaddr_un address_{};
  UnfairLock opening_;
  UniqueFd socket_;
};

// Made when the program starts: making it registers it, which must not happen under a lock.
[[maybe_unused]] const JournalSocket& earlySocket = JournalSocket::shared();

class Journal final : public SystemLog {
 public:
  Journal(std::string_view subsystem, std::string_view category)
      : fields_(field("SYSLOG_IDENTIFIER", subsystem) + field("VELUM_CATEGORY", category)) {}

  // No field tells the place of the call: it would be this file's.
  void write(Type type, std::string_view text) noexcept override try {
    const std::string start = fieldStart("MESSAGE", text);
    const std::string priority = "\nPRIORITY=" + std::to_string(journalPriority(type)) + '\n';
    const std::array<iovec, 4> record{piece(start), piece(text), piece(priority), piece(fields_)};
    if (!JournalSocket::shared().send(record) && type != Type::normal) consoleLog(text);
  } catch (...) {  // out of memory: the console needs none
    consoleLog(text);
  }

 private:
  std::string fields_;  // the same in every record
};

}  // namespace

std::shared_ptr<SystemLog> SystemLog::open(const std::string& subsystem,
                                           const std::string& category) {
  return std::make_shared<Journal>(subsystem, category);
}

}  // namespace velum
