#include "Velum/Process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <mutex>

#include "Velum/LineSplitter.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Posix/Spawn.h"
#include "Velum/SystemError.h"

namespace velum {
namespace {

constexpr LogSite site(CallPlace where = CallPlace::current()) {
  return {"Velum/Process", "run(_:args:workdir:inpipe:outpipe:errpipe:wait:)", where};
}

bool isExecutableFile(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_regular_file(path, error) && ::access(path.c_str(), X_OK) == 0;
}

// The tool may be started in another folder.
std::string absolute(const std::string& path) {
  std::error_code error;
  const std::filesystem::path result = std::filesystem::absolute(path, error);
  return error ? path : result.native();
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

Termination Termination::ofWaitStatus(int waitStatus) noexcept {
  if (WIFSIGNALED(waitStatus)) return {WTERMSIG(waitStatus), Reason::uncaughtSignal};
  return {WEXITSTATUS(waitStatus), Reason::exit};
}

/// Logs what comes out of a pipe, line by line. All of it happens on the queue it is given.
class Process::OutputCollector : public std::enable_shared_from_this<OutputCollector> {
 public:
  OutputCollector(std::shared_ptr<DispatchQueue> queue, UniqueFd reader)
      : queue_(std::move(queue)), reader_(std::move(reader)), buffer_(bufferSize) {
    ::fcntl(reader_.get(), F_SETFL, O_NONBLOCK);
  }

  /// Begins to read, until `stop` or the end of the output. Call once. Throws SystemError.
  void start() {
    const std::lock_guard guard(lock_);
    source_ = DispatchSource::readable(reader_.get(), *queue_, [self = shared_from_this()] {
      if (self->reader_ && self->readSome(bufferSize) == 0) self->stop();
    });
  }

  /// Logs all that the child wrote. Others may still hold the pipe and write: what comes after
  /// the child's end is listened to for a moment, but not waited for.
  void childEnded() {
    if (!reader_) return;
    readAvailable();
    if (readSome(bufferSize) == 0) return stop();
    lines_.finish(&logLine);
    queue_->asyncAfter(outputGrace, [self = shared_from_this()] {
      if (self->reader_) self->readAvailable();
      self->stop();
    });
  }

  void stop() {
    lines_.finish(&logLine);
    reader_.reset();
    std::unique_ptr<DispatchSource> source;  // goes after the lock
    const std::lock_guard guard(lock_);
    source.swap(source_);
  }

 private:
  static constexpr std::size_t bufferSize = 131'072;

  static void logLine(std::string_view line) {
    const LogSite here = site();
    Logger::shared().log(
        LogLevel::info, [line] { return line; }, here.file, here.function, here.line);
  }

  /// Bytes read; 0 at the end, -1 when there is nothing now.
  ssize_t readSome(std::size_t limit) {
    const ssize_t size = retryInterrupted(
        [&] { return ::read(reader_.get(), buffer_.data(), std::min(limit, buffer_.size())); });
    if (size < 0) return errno == EAGAIN ? -1 : 0;
    const std::string_view chunk(buffer_.data(), static_cast<std::size_t>(size));
    if (Logger::shared().passes(LogLevel::info)) {
      lines_.feed(chunk, &logLine);
    } else {
      lines_.skip(chunk);
    }
    return size;
  }

  /// Reads what is there now, however quickly more of it comes.
  void readAvailable() {
    for (std::size_t left = availableBytes(reader_.get()); left > 0;) {
      const ssize_t size = readSome(left);
      if (size <= 0) return;
      left -= static_cast<std::size_t>(size);
    }
  }

  std::shared_ptr<DispatchQueue> queue_;
  UniqueFd reader_;
  std::vector<char> buffer_;
  LineSplitter lines_;
  UnfairLock lock_;  // guards `source_`
  std::unique_ptr<DispatchSource> source_;
};

std::shared_ptr<Process> Process::run(const std::string& path, const RunOptions& options) {
  std::shared_ptr<Process> process;
  if (isExecutableFile(path)) {
    const std::string command = fmt::format("{} {}", path, fmt::join(options.args, " "));
    logInfo(site(), "Running {} {}", command, options.workdir ? " in " + *options.workdir : "");
    process = std::make_shared<Process>(Private{}, path);
    try {
      process->launch(options);
    } catch (const SystemError& error) {
      logError(site(), "Failed to run `{}`. {}", command, error.what());
      process.reset();
    }
  } else {
    logError(site(), "File {} can not be executed", path);
  }
  closeChildEnds(options);
  if (process && options.wait) process->waitUntilExit();
  return process;
}

Process::Process(Private, std::string path)
    : path_(std::move(path)),
      queue_(DispatchQueue::serial(std::string(fileStem(path_)) + ".output")) {}

std::optional<Termination> Process::termination() const {
  if (ended_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) return std::nullopt;
  return ended_.get();
}

void Process::launch(const RunOptions& options) {
  PipeEnds logged;
  if (!options.outpipe || !options.errpipe) {
    logged = makePipe();
    collector_ = std::make_shared<OutputCollector>(queue_, std::move(logged.reader));
  }
  const int loggedEnd = logged.writer.get();
  SpawnOptions spawnOptions;
  spawnOptions.executable = absolute(path_);
  spawnOptions.arguments = {path_};
  spawnOptions.arguments.insert(spawnOptions.arguments.end(), options.args.begin(),
                                options.args.end());
  spawnOptions.directory = options.workdir.value_or("");
  spawnOptions.standardStreams = {
      options.inpipe ? openEnd(options.inpipe->readEnd(), "inpipe") : inheritedStream(STDIN_FILENO),
      options.outpipe ? openEnd(options.outpipe->writeEnd(), "outpipe") : loggedEnd,
      options.errpipe ? openEnd(options.errpipe->writeEnd(), "errpipe") : loggedEnd};
  pid_ = spawn(spawnOptions);
  logged.writer.reset();  // else the end of the output would not show
  try {
    watch();
  } catch (const SystemError&) {
    ::kill(pid_, SIGKILL);
    reapChild(pid_);
    throw;
  }
}

void Process::watch() {
  if (collector_) collector_->start();
  try {
    const std::lock_guard guard(lock_);  // the handler may run before the source is stored
    exitSource_ = DispatchSource::childExit(
        pid_, *queue_, [self = shared_from_this()](int status) { self->childEnded(status); });
  } catch (const SystemError& error) {
    if (error.code() == ECHILD) {  // this process lets the system reap its children
      return queue_->async(
          [self = shared_from_this()] { self->childEnded(reapChild(self->pid_)); });
    }
    if (collector_) queue_->async([collector = collector_] { collector->stop(); });
    throw;
  }
}

void Process::childEnded(int waitStatus) {
  const Termination termination = Termination::ofWaitStatus(waitStatus);
  if (collector_) collector_->childEnded();
  logInfo(site(), "{} (pid: {}) returned {}", path_, pid_, termination.status);
  end_.set_value(termination);
  std::unique_ptr<DispatchSource> source;  // goes after the lock, and may take this object along
  const std::lock_guard guard(lock_);
  source.swap(exitSource_);
}

}  // namespace velum
