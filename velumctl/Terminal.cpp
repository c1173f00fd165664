#include "velumctl/Terminal.h"

#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <utility>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/ChildIo.h"
#include "Velum/Platform/Spawn.h"
#include "velumctl/Errors.h"

namespace velumctl {
namespace {

std::string environmentValue(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

// The shell command; empty for no pager.
std::string pagerCommand() {
  if (std::getenv("PAGER") == nullptr) return findInPath("less").empty() ? "" : "less -FRX";
  std::string command = environmentValue("PAGER");
  return command == "cat" ? "" : command;
}

}  // namespace

std::string findInPath(const std::string& program) {
  std::istringstream folders(environmentValue("PATH"));
  for (std::string folder; std::getline(folders, folder, ':');) {
    std::string path = (folder.empty() ? "." : folder) + '/' + program;
    if (::access(path.c_str(), X_OK) == 0) return path;
  }
  return {};
}

std::string toolPath(const std::string& tool) {
  std::string path = tool.find('/') == std::string::npos ? findInPath(tool) : tool;
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error) || ::access(path.c_str(), X_OK) != 0) {
    throw Failure(fmt::format("{} is not an executable file; check the path", tool));
  }
  return path;
}

bool isTerminal(int fd) {
  return ::isatty(fd) == 1;
}

bool wantsColour() {
  return environmentValue("NO_COLOR").empty() && environmentValue("TERM") != "dumb";
}

std::string visibleText(std::string_view line, Tabs tabs) {
  std::string out;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const auto byte = static_cast<unsigned char>(line[i]);
    const auto next = static_cast<unsigned char>(i + 1 < line.size() ? line[i + 1] : 0);
    if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {
      out += fmt::format("<{:02X}>", next);
      ++i;
    } else if ((byte < 0x20 && (byte != '\t' || tabs == Tabs::shown)) || byte == 0x7F) {
      out += '^';
      out += static_cast<char>(byte ^ 0x40U);
    } else {
      out += line[i];
    }
  }
  return out;
}

bool isConfirmed(const std::string& question) {
  std::cerr << question << " [y/N] " << std::flush;
  std::string answer;
  if (!std::getline(std::cin, answer)) std::cerr << '\n';
  return answer == "y" || answer == "Y" || answer == "yes";
}

namespace {

class WarningPrinter final : public velum::LogHandlerProtocol {
 public:
  void logWithLevel(velum::LogLevel level, velum::LogDate /*date*/,
                    std::string_view text) override {
    if (level != velum::LogLevel::warning) return;  // errors are thrown, and told by main
    constexpr std::string_view endOfTag = ") ";
    const std::size_t end = text.find(endOfTag);
    if (end != std::string_view::npos) text.remove_prefix(end + endOfTag.size());
    std::cerr << fmt::format("velumctl: {}\n", text) << std::flush;
  }
};

}  // namespace

void showWarnings() {
  velum::Logger::shared().setHandlers({std::make_shared<WarningPrinter>()});
}

void Output::write(std::string_view bytes) {
  constexpr std::size_t enough = 65536;
  if (buffer_.size() + bytes.size() > enough) flush();
  if (bytes.size() > enough) {
    velum::checked::write(fd_, bytes.data(), bytes.size(), "velumctl");
  } else {
    buffer_ += bytes;
  }
}

void Output::flush() {
  if (buffer_.empty()) return;
  velum::checked::write(fd_, buffer_.data(), buffer_.size(), "velumctl");
  buffer_.clear();
}

std::optional<Pager> Pager::start() {
  const std::string command = isTerminal(STDOUT_FILENO) ? pagerCommand() : "";
  if (command.empty()) return std::nullopt;
  velum::PipeEnds pipe = velum::makePipe();
  velum::SpawnOptions options{.executable = "/bin/sh",
                              .arguments = {"sh", "-c", command},
                              .environment = velum::environmentWithout({}),
                              .directory = "",
                              .standardStreams = {pipe.reader.get(), STDOUT_FILENO, STDERR_FILENO},
                              .extraDescriptor = std::nullopt,
                              .newSession = false};
  // A "less" without options of its own should pass colours on and leave short texts on the screen.
  if (std::getenv("LESS") == nullptr) options.environment->emplace_back("LESS=FRX");
  const pid_t pid = velum::spawn(options);
  std::signal(SIGINT, SIG_IGN);   // NOLINT(cert-err33-c): can't fail
  std::signal(SIGQUIT, SIG_IGN);  // NOLINT(cert-err33-c)
  return Pager(std::move(pipe.writer), pid);
}

Pager::Pager(Pager&& other) noexcept
    : input_(std::move(other.input_)), pid_(std::exchange(other.pid_, -1)) {}

Pager::~Pager() {
  wait();
}

void Pager::finish() {
  constexpr int notFound = 127;
  constexpr int notExecutable = 126;
  const int status = wait();
  if (WIFEXITED(status) &&
      (WEXITSTATUS(status) == notFound || WEXITSTATUS(status) == notExecutable)) {
    throw Failure("the pager could not be started; correct PAGER, or set it to cat for none");
  }
}

int Pager::wait() {
  input_.reset();
  int status = 0;
  const pid_t pid = std::exchange(pid_, -1);
  if (pid > 0) velum::retryInterrupted([&] { return ::waitpid(pid, &status, 0); });
  return status;
}

}  // namespace velumctl
