#include "Velum/Process.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "Velum/Base/LineSplitter.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Thread.h"

namespace velum {
namespace {

constexpr LogSite site(CallPlace where = CallPlace::current()) {
  return {"Velum/Process", "run(_:args:workdir:inpipe:outpipe:errpipe:wait:)", where};
}

bool isExecutableFile(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_regular_file(path, error) && ::access(path.c_str(), X_OK) == 0;
}

/// An end of a pipe that a caller handed in; it is gone when the pipe served another child before.
int openEnd(int descriptor, std::string_view name) {
  if (descriptor < 0) throw SystemError(EBADF, fmt::format("{} is closed", name));
  return descriptor;
}

void closeChildEnds(const RunOptions& options) noexcept {
  if (options.inpipe) options.inpipe->closeReadEnd();
  if (options.outpipe) options.outpipe->closeWriteEnd();
  if (options.errpipe) options.errpipe->closeWriteEnd();
}

}  // namespace

ByteBuffer Pipe::gatherData() const {
  constexpr std::size_t chunk = 4096;
  ByteBuffer data;
  for (;;) {
    char* const room = data.room(chunk);
    const ssize_t size = retryInterrupted([&] { return ::read(readEnd(), room, chunk); });
    if (size < 0) throw lastSystemError("Reading data from pipe");
    if (size == 0) return data;
    data.extend(static_cast<std::size_t>(size));
  }
}

void Pipe::write(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t size = writeQuietly(writeEnd(), bytes);
    if (size < 0) throw lastSystemError("Writing data to pipe");
    bytes.remove_prefix(static_cast<std::size_t>(size));
  }
}

namespace {

/// Logs what comes out of a pipe, line by line.
class LineLog {
 public:
  explicit LineLog(int reader) : reader_(reader), buffer_(reader < 0 ? 0 : bufferSize) {}

  /// Reads once; see ReadOutput.
  std::size_t readSome(std::size_t limit) {
    const ssize_t size = retryInterrupted(
        [&] { return ::read(reader_, buffer_.data(), std::min(limit, buffer_.size())); });
    if (size < 0) logError(site(), "Can't read a tool's output: {}", systemErrorText(errno));
    if (size <= 0) return 0;
    const std::string_view chunk(buffer_.data(), static_cast<std::size_t>(size));
    if (Logger::shared().passes(LogLevel::info)) {
      lines_.feed(chunk, &logLine);
    } else {
      lines_.skip(chunk);
    }
    return chunk.size();
  }

  void finish() { lines_.finish(&logLine); }

 private:
  static constexpr std::size_t bufferSize = 131'072;

  static void logLine(std::string_view line) {
    const LogSite here = site();
    Logger::shared().log(
        LogLevel::info, [line] { return line; }, here.file, here.function, here.line);
  }

  int reader_;
  std::vector<char> buffer_;
  LineSplitter lines_;
};

}  // namespace

std::shared_ptr<Process> Process::run(const std::string& path, const RunOptions& options) {
  std::shared_ptr<Process> process;
  if (!isExecutableFile(path)) {
    logError(site(), "File {} can not be executed", path);
    closeChildEnds(options);
    return process;
  }
  const std::string command = fmt::format("{} {}", path, fmt::join(options.args, " "));
  logInfo(site(), "Running {} {}", command, options.workdir ? " in " + *options.workdir : "");
  try {
    process = std::make_shared<Process>(Private{}, path);
    const auto output = std::make_shared<UniqueFd>();
    const std::shared_ptr<Tool> tool = process->launch(options, *output);
    if (!options.wait) {
      const int error =
          startThread("tool.output", [process, tool, output, keepRunning = options.keepRunning] {
            process->attend(*tool, output->get(), keepRunning);
          });
      if (error != 0) throw SystemError(error, "startThread");
    }
    closeChildEnds(options);
    if (options.wait) process->attend(*tool, output->get(), options.keepRunning);
  } catch (const std::exception& error) {
    logError(site(), "Failed to run `{}`. {}", command, error.what());
    process.reset();
    closeChildEnds(options);
  }
  return process;
}

std::optional<Termination> Process::termination() const {
  if (generation_ == forkGeneration() &&
      ended_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
    return std::nullopt;
  }
  return waitUntilExit();
}

Termination Process::waitUntilExit() const {
  constexpr int unknown = 255;
  if (generation_ != forkGeneration()) return {unknown, Termination::Reason::exit};
  return ended_.get();
}

std::shared_ptr<Tool> Process::launch(const RunOptions& options, UniqueFd& output) {
  PipeEnds logged;
  if (!options.outpipe || !options.errpipe) logged = makePipe();
  const int loggedEnd = logged.writer.get();
  SpawnOptions spawnOptions = toolOptions(path_, options.args, options.workdir);
  spawnOptions.standardStreams = {
      options.inpipe ? openEnd(options.inpipe->readEnd(), "inpipe") : SpawnOptions::nullDevice,
      options.outpipe ? openEnd(options.outpipe->writeEnd(), "outpipe") : loggedEnd,
      options.errpipe ? openEnd(options.errpipe->writeEnd(), "errpipe") : loggedEnd};
  auto tool = std::make_shared<Tool>(spawnOptions);
  pid_ = tool->pid();
  output = std::move(logged.reader);
  return tool;
}

void Process::attend(Tool& tool, int output, const KeepRunning& keepRunning) {
  LineLog lines(output);
  const int waitStatus = tool.wait(
      output, [&](std::size_t limit) { return lines.readSome(limit); }, keepRunning);
  lines.finish();
  const Termination termination = Termination::ofWaitStatus(waitStatus);
  logInfo(site(), "{} (pid: {}) returned {}", path_, pid_, termination.status);
  end_.set_value(termination);
}

}  // namespace velum
