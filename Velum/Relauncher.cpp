#include "Velum/Relauncher.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

#include "Velum/Base/Deadline.h"
#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Base/Termination.h"
#include "Velum/Files/AbsolutePath.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/ChildIo.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Spawn.h"

namespace velum {
namespace {

constexpr const char* readyVariable = "VELUM_READY_FD";
constexpr char readyByte = 1;

/// Reaps the helpers that end while the application lives.
class HelperReaper {
 public:
  static HelperReaper& shared() {
    static NeverDestroyed<HelperReaper> instance;
    return *instance;
  }

  void reapLater(pid_t helper) {
    queue_->async([this, helper] {
      try {
        ends_[helper] = DispatchSource::childExit(helper, *queue_,
                                                  [this, helper](int) { ends_.erase(helper); });
      } catch (const SystemError&) {
        // The application reaps every child itself, and was quicker.
        ends_.erase(helper);
      }
    });
  }

 private:
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::serial("Relauncher");
  std::map<pid_t, std::unique_ptr<DispatchSource>> ends_;  // touched on the queue only
};

/// Waits for the helper's byte; the code of what came instead.
int waitUntilReady(int descriptor, std::chrono::milliseconds timeout) {
  const auto deadline = deadlineAfter(timeout);
  while (true) {
    pollfd state{descriptor, POLLIN, 0};
    const int limit = pollTimeout(deadline);
    const int result = ::poll(&state, 1, limit);
    if (result == 0 && limit == 0) return ETIMEDOUT;
    if (result == 0) continue;
    if (result < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    char byte = 0;
    const ssize_t size = retryInterrupted([&] { return ::read(descriptor, &byte, 1); });
    return size == 1 ? 0 : EPIPE;
  }
}

/// How the helper's life ended; it is no zombie afterwards.
std::string endHelper(pid_t helper) {
  ::kill(helper, SIGKILL);  // it may have ended by itself, which then stands in its status
  int status = 0;
  if (retryInterrupted([&] { return ::waitpid(helper, &status, 0); }) != helper) return "ended";
  return Termination::ofWaitStatus(status).text();
}

/// The descriptor named by the variable, when a byte can be written to it.
std::optional<int> parseReadyDescriptor(std::string_view text) {
  int descriptor = -1;
  const char* const textEnd = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), textEnd, descriptor);
  if (error != std::errc{} || end != textEnd || descriptor <= STDERR_FILENO) return std::nullopt;
  struct stat status {};
  // One that is there and can't be looked at is taken: somebody may wait for it.
  if (::fstat(descriptor, &status) != 0) {
    return errno == EBADF ? std::nullopt : std::optional(descriptor);
  }
  if (!S_ISFIFO(status.st_mode) && !S_ISSOCK(status.st_mode)) return std::nullopt;
  return descriptor;
}

UniqueFd& readyDescriptor() {
  static UniqueFd descriptor;
  return descriptor;
}

/// Never blocks and gets no SIGPIPE, which would end the helper just when the application died
/// first.
void writeReadyByte(int descriptor) {
  pollfd state{descriptor, POLLOUT, 0};
  if (::poll(&state, 1, 0) != 1) return;  // full: whoever should read it does not
  static_cast<void>(writeQuietly(descriptor, std::string_view(&readyByte, 1)));
}

}  // namespace

pid_t startRelauncher(const std::string& helperPath, const std::string& bundlePath,
                      std::chrono::milliseconds timeout) {
  auto [reader, writer] = makePipe();
  SpawnOptions options;
  options.executable = absolutePath(helperPath);  // the helper works in another folder
  options.arguments = {options.executable, absolutePath(bundlePath), std::to_string(::getpid())};
  // The bundle's path in this environment names this application, which the helper is not.
  options.environment = environmentWithout({readyVariable, "VELUM_BUNDLE_PATH"});
  options.environment->push_back(
      fmt::format("{}={}", readyVariable, SpawnOptions::extraDescriptorNumber));
  options.extraDescriptor = writer.get();
  options.directory = std::string("/");  // GCC 12 warns falsely of assigning a literal
  options.newSession = true;
  const pid_t helper = spawn(options);
  writer.reset();  // else the helper's end would not show
  if (const int error = waitUntilReady(reader.get(), timeout); error != 0) {
    throw SystemError(error, fmt::format("startRelauncher, helper {} {} before it was ready",
                                         helper, endHelper(helper)));
  }
  HelperReaper::shared().reapLater(helper);
  return helper;
}

void adoptReadyDescriptor() noexcept {
  const char* const text = std::getenv(readyVariable);
  if (text == nullptr) return;
  if (const std::optional<int> descriptor = parseReadyDescriptor(text)) {
    ::fcntl(*descriptor, F_SETFD, FD_CLOEXEC);
    readyDescriptor().reset(*descriptor);
  }
  ::unsetenv(readyVariable);
}

void reportReady() noexcept {
  adoptReadyDescriptor();
  UniqueFd& descriptor = readyDescriptor();
  if (descriptor) writeReadyByte(descriptor.get());
  descriptor.reset();
}

}  // namespace velum
