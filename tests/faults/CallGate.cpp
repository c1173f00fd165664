#include "tests/faults/CallGate.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/fs.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>

namespace velum::test {
namespace {

#if defined(__x86_64__)
constexpr std::uint32_t architecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t architecture = AUDIT_ARCH_AARCH64;
#else
#error "Name this architecture's AUDIT_ARCH value."
#endif

enum class Subject : std::uint8_t { none, path, descriptor };

struct CallKind {
  const char* name;
  Subject subject;
  unsigned argument;  // that holds the subject
  std::vector<int> errors;
};

const std::vector<int> opening{EMFILE, EACCES, EIO, EINTR};
const std::vector<int> naming{EACCES, ENOSPC, EIO};
const std::vector<int> looking{EACCES, EIO};
const std::vector<int> making{EMFILE, ENOMEM};

/// By number. Those that only older systems have go by the same names as their successors.
const std::map<int, CallKind>& callKinds() {
  static const std::map<int, CallKind> kinds{
      {SYS_openat, {"open", Subject::path, 1, opening}},
      {SYS_read, {"read", Subject::descriptor, 0, {EIO, EINTR}}},
      {SYS_pread64, {"read", Subject::descriptor, 0, {EIO, EINTR}}},
      {SYS_write, {"write", Subject::descriptor, 0, {ENOSPC, EIO, EINTR}}},
      {SYS_pwrite64, {"write", Subject::descriptor, 0, {ENOSPC, EIO, EINTR}}},
      {SYS_writev, {"write", Subject::descriptor, 0, {ENOSPC, EIO, EINTR}}},
      {SYS_copy_file_range, {"copy_file_range", Subject::descriptor, 0, {ENOSPC, EIO, EXDEV}}},
      {SYS_sendfile, {"sendfile", Subject::descriptor, 0, {ENOSPC, EIO, EINTR}}},
      {SYS_ioctl, {"clone_file", Subject::descriptor, 0, {EOPNOTSUPP, EIO}}},
      {SYS_fsync, {"fsync", Subject::descriptor, 0, {EIO, ENOSPC, EINTR}}},
      {SYS_fdatasync, {"fsync", Subject::descriptor, 0, {EIO, ENOSPC, EINTR}}},
      {SYS_ftruncate, {"ftruncate", Subject::descriptor, 0, {EIO, EINTR}}},
      {SYS_flock, {"flock", Subject::descriptor, 0, {ENOLCK, EINTR}}},
      {SYS_fchmod, {"fchmod", Subject::descriptor, 0, {EPERM, EIO}}},
      {SYS_fstat, {"stat", Subject::descriptor, 0, {EIO}}},
      {SYS_newfstatat, {"stat", Subject::path, 1, looking}},
      {SYS_statx, {"stat", Subject::path, 1, looking}},
      {SYS_getdents64, {"getdents", Subject::descriptor, 0, {EIO}}},
      {SYS_renameat, {"rename", Subject::path, 1, naming}},
      {SYS_renameat2, {"rename", Subject::path, 1, naming}},
      {SYS_linkat, {"link", Subject::path, 1, naming}},
      {SYS_readlinkat, {"readlink", Subject::path, 1, looking}},
      {SYS_symlinkat, {"link", Subject::path, 2, naming}},
      {SYS_unlinkat, {"unlink", Subject::path, 1, looking}},
      {SYS_mkdirat, {"mkdir", Subject::path, 1, naming}},
      {SYS_mmap, {"mmap", Subject::descriptor, 4, {ENOMEM, ENODEV}}},
      {SYS_socket, {"socket", Subject::none, 0, {EMFILE, EACCES}}},
      {SYS_connect, {"connect", Subject::descriptor, 0, {ECONNREFUSED, EACCES}}},
      {SYS_sendmsg, {"send", Subject::descriptor, 0, {EAGAIN, ECONNRESET}}},
      {SYS_sendto, {"send", Subject::descriptor, 0, {EAGAIN, ECONNRESET}}},
      {SYS_clone, {"clone", Subject::none, 0, {EAGAIN, ENOMEM}}},
      {SYS_clone3, {"clone", Subject::none, 0, {EAGAIN, ENOMEM}}},
      {SYS_execve, {"execve", Subject::path, 0, {EACCES, ENOMEM}}},
      {SYS_dup, {"dup", Subject::descriptor, 0, {EMFILE}}},
      {SYS_dup3, {"dup", Subject::descriptor, 0, {EMFILE}}},
      {SYS_pipe2, {"pipe", Subject::none, 0, {EMFILE, ENFILE}}},
      {SYS_epoll_create1, {"epoll_create", Subject::none, 0, making}},
      {SYS_inotify_init1, {"inotify_init", Subject::none, 0, {EMFILE, ENFILE}}},
      {SYS_inotify_add_watch, {"inotify_add_watch", Subject::path, 1, {ENOSPC, ENOMEM}}},
      {SYS_timerfd_create, {"timerfd_create", Subject::none, 0, making}},
      {SYS_eventfd2, {"eventfd", Subject::none, 0, making}},
      {SYS_memfd_create, {"memfd_create", Subject::none, 0, making}},
      {SYS_pidfd_open, {"pidfd_open", Subject::none, 0, {EMFILE, ENOMEM}}},
#ifdef SYS_rename  // the elder architectures
      {SYS_rename, {"rename", Subject::path, 0, naming}},
      {SYS_link, {"link", Subject::path, 0, naming}},
      {SYS_symlink, {"link", Subject::path, 1, naming}},
      {SYS_unlink, {"unlink", Subject::path, 0, looking}},
      {SYS_rmdir, {"unlink", Subject::path, 0, looking}},
      {SYS_mkdir, {"mkdir", Subject::path, 0, naming}},
      {SYS_readlink, {"readlink", Subject::path, 0, looking}},
      {SYS_dup2, {"dup", Subject::descriptor, 0, {EMFILE}}},
#endif
  };
  return kinds;
}

std::vector<sock_filter> filterProgram() {
  constexpr std::uint16_t load = BPF_LD | BPF_W | BPF_ABS;
  constexpr std::uint16_t equal = BPF_JMP | BPF_JEQ | BPF_K;
  constexpr std::uint16_t leave = BPF_RET | BPF_K;
  constexpr auto number = static_cast<std::uint32_t>(offsetof(seccomp_data, nr));
  std::vector<sock_filter> program{
      {load, 0, 0, static_cast<std::uint32_t>(offsetof(seccomp_data, arch))},
      {equal, 1, 0, architecture},
      {leave, 0, 0, SECCOMP_RET_ALLOW},
      {load, 0, 0, number},
  };
  auto left = static_cast<std::uint8_t>(callKinds().size());
  for (const auto& [call, kind] : callKinds()) {
    program.push_back({equal, left--, 0, static_cast<std::uint32_t>(call)});
  }
  program.push_back({leave, 0, 0, SECCOMP_RET_ALLOW});
  program.push_back({leave, 0, 0, SECCOMP_RET_USER_NOTIF});
  return program;
}

UniqueFd installFilter() {
  std::vector<sock_filter> instructions = filterProgram();
  const sock_fprog program{static_cast<unsigned short>(instructions.size()), instructions.data()};
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  constexpr unsigned flags = SECCOMP_FILTER_FLAG_NEW_LISTENER | SECCOMP_FILTER_FLAG_TSYNC |
                             SECCOMP_FILTER_FLAG_TSYNC_ESRCH;
  return UniqueFd(
      static_cast<int>(::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &program)));
}

/// A message with one descriptor in its ancillary data.
struct Message {
  Message() {
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
  }
  char byte = 0;
  iovec part{&byte, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr header{};
};

/// By a call that is not gated, for it hands over the gate.
void sendDescriptor(int socket, int fd) {
  Message message;
  cmsghdr* const ancillary = CMSG_FIRSTHDR(&message.header);
  ancillary->cmsg_level = SOL_SOCKET;
  ancillary->cmsg_type = SCM_RIGHTS;
  ancillary->cmsg_len = CMSG_LEN(sizeof fd);
  std::memcpy(CMSG_DATA(ancillary), &fd, sizeof fd);
  mmsghdr one{message.header, 0};
  if (::sendmmsg(socket, &one, 1, 0) != 1) ::_exit(78);
}

/// The sent descriptor; none when the sender ended before.
UniqueFd receiveDescriptor(int socket) {
  Message message;
  if (retryInterrupted([&] { return ::recvmsg(socket, &message.header, MSG_CMSG_CLOEXEC); }) != 1) {
    return UniqueFd();
  }
  int fd = -1;
  const cmsghdr* const ancillary = CMSG_FIRSTHDR(&message.header);
  if (ancillary != nullptr) std::memcpy(&fd, CMSG_DATA(ancillary), sizeof fd);
  return UniqueFd(fd);
}

std::string textAt(pid_t thread, std::uint64_t address) {
  std::array<char, 512> text{};
  const UniqueFd memory(
      ::open(("/proc/" + std::to_string(thread) + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
  // It may end before the next page, which need not be there.
  const ssize_t size =
      ::pread(memory.get(), text.data(), text.size() - 1, static_cast<off_t>(address));
  return size > 0 ? text.data() : "?";
}

/// Where a link in the thread's folder of /proc leads to.
std::string linkOf(pid_t thread, const std::string& name) {
  std::error_code error;
  const auto link = "/proc/" + std::to_string(thread) + '/' + name;
  return std::filesystem::read_symlink(link, error).native();
}

std::string fileOf(pid_t thread, int fd) {
  return linkOf(thread, "fd/" + std::to_string(fd));
}

std::string programOf(pid_t thread) {
  return linkOf(thread, "exe");
}

/// A sanitizer asks a pipe whether memory can be read, at any moment.
#ifdef VELUM_SANITIZED
constexpr bool sparesPipes = true;
#else
constexpr bool sparesPipes = false;
#endif

bool isOfTheLoader(const std::string& path) {
  return path.find(".so") != std::string::npos || path.find("/gconv") != std::string::npos;
}

}  // namespace

bool GatedCall::isOneOf(std::initializer_list<const char*> names) const {
  return std::ranges::find(names, name) != names.end();
}

/// Answers the calls of one process.
class CallGate::Supervisor {
 public:
  Supervisor(UniqueFd listener, pid_t process, const std::atomic<bool>& isArmed,
             const Injection& injection, const CallPredicate& isSpared, const std::string& program,
             GatedRun& run)
      : listener_(std::move(listener)),
        process_(process),
        isArmed_(isArmed),
        injection_(injection),
        isSpared_(isSpared),
        program_(program.empty() ? programOf(process) : program),
        isProcessMeant_(program.empty()),
        run_(run) {}

  void serve() {
    using std::chrono::steady_clock;
    constexpr std::chrono::seconds patience(30);
    const UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, process_, 0U)));
    const auto end = steady_clock::now() + patience;
    std::array<pollfd, 2> states{{{listener_.get(), POLLIN, 0}, {process.get(), POLLIN, 0}}};
    for (;;) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(end - steady_clock::now());
      const int ready = left.count() > 0
                            ? ::poll(states.data(), states.size(), static_cast<int>(left.count()))
                            : 0;
      if (ready < 0 && errno == EINTR) continue;
      run_.isHung = ready == 0;
      if (ready <= 0 || states[1].revents != 0) return;
      if ((states[0].revents & POLLIN) != 0) answer();
    }
  }

 private:
  void answer() {
    seccomp_notif call{};
    if (::ioctl(listener_.get(), SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) return;  // was interrupted
    const int error = isArmed_ ? decide(call) : 0;
    if (error == Injection::kill) {
      const auto caller = static_cast<pid_t>(call.pid);
      if (isProcessMeant_) ::kill(process_, SIGKILL);
      endChild(caller);
      return;
    }
    seccomp_notif_resp response{};
    response.id = call.id;
    response.error = -error;
    if (error == 0) response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    ::ioctl(listener_.get(), SECCOMP_IOCTL_NOTIF_SEND, &response);  // fails for one interrupted
  }

  /// Kills it, and waits: until it is gone, a child keeps what it inherited, such as locks.
  void endChild(pid_t caller) const {
    const UniqueFd child(static_cast<int>(::syscall(SYS_pidfd_open, caller, 0U)));
    ::kill(caller, SIGKILL);
    if (!child || caller == process_) return;  // a thread has no descriptor
    pollfd end{child.get(), POLLIN, 0};
    retryInterrupted([&] { return ::poll(&end, 1, 10'000); });
  }

  /// 0, an errno, or Injection::kill.
  int decide(const seccomp_notif& notice) {
    const auto thread = static_cast<pid_t>(notice.pid);
    const CallKind& kind = callKinds().at(notice.data.nr);
    if (!isOurs(thread)) return 0;
    constexpr auto anonymous = static_cast<std::uint64_t>(MAP_ANONYMOUS);
    if (notice.data.nr == SYS_mmap && (notice.data.args[3] & anonymous) != 0) return 0;  // malloc
    if (notice.data.nr == SYS_ioctl && notice.data.args[1] != FICLONE) return 0;
    GatedCall call{kind.name, {}, kind.errors};
    const std::uint64_t argument = notice.data.args[kind.argument];
    if (kind.subject == Subject::path) {
      call.subject = textAt(thread, argument);
      const auto folder = static_cast<int>(notice.data.args[0]);
      const bool isRelative = kind.argument == 1 && !call.subject.starts_with('/');
      if (isRelative && folder != AT_FDCWD) {
        call.subject = fileOf(thread, folder) + '/' + call.subject;
      }
    }
    if (kind.subject == Subject::descriptor) {
      call.subject = fileOf(thread, static_cast<int>(argument));
    }
    if (isOfTheLoader(call.subject) || isSpared_(call)) return 0;
    if (sparesPipes && (call.name == "pipe" || call.subject.starts_with("pipe:"))) return 0;
    const std::uint64_t flags = notice.data.args[kind.argument + 1];
    if (kind.errors == opening && (flags & O_CREAT) != 0)
      call.errors.insert(call.errors.begin(), ENOSPC);
    // To let go of a lock does not fail.
    if (notice.data.nr == SYS_flock && notice.data.args[1] == LOCK_UN) call.errors.clear();

    int error = 0;
    const bool canFail = injection_.kills || !call.errors.empty();
    if (run_.calls.size() == injection_.index && canFail) {
      error =
          injection_.kills ? Injection::kill : call.errors[injection_.error % call.errors.size()];
      run_.injected = call;
      run_.error = error;
    }
    run_.calls.push_back(std::move(call));
    return error;
  }

  /// Whether a thread belongs to the process or to a child that runs the same program.
  bool isOurs(pid_t thread) const {
    return (isProcessMeant_ && thread == process_) || programOf(thread) == program_;
  }

  const UniqueFd listener_;
  const pid_t process_;
  const std::atomic<bool>& isArmed_;
  const Injection& injection_;
  const CallPredicate& isSpared_;
  const std::string program_;
  const bool isProcessMeant_;
  GatedRun& run_;
};

CallGate::CallGate() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::runtime_error("socketpair");
  }
  ours_.reset(ends[0]);
  childs_.reset(ends[1]);
}

void CallGate::enter() {
  ours_.reset();
  const UniqueFd listener = installFilter();
  if (!listener) ::_exit(79);
  sendDescriptor(childs_.get(), listener.get());
  childs_.reset();
}

GatedRun CallGate::run(const std::function<void()>& child, const Injection& injection,
                       const CallPredicate& isSpared, const std::string& program) {
  GatedRun run;
  arm(false);
  ChildProcess process(child);
  childs_.reset();
  UniqueFd listener = receiveDescriptor(ours_.get());
  if (listener) {
    Supervisor(std::move(listener), process.pid(), *isArmed_, injection, isSpared, program, run)
        .serve();
  }
  run.status = run.isHung ? process.kill() : process.wait();
  return run;
}

bool CallGate::isSupported() {
  ChildProcess child([] { ::_exit(installFilter() ? 0 : 1); });
  return child.wait() == 0;
}

}  // namespace velum::test
