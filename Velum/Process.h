#pragma once

#include <sys/types.h>

#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Velum/Base/AtFork.h"
#include "Velum/Base/ByteBuffer.h"
#include "Velum/Base/Termination.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/ChildIo.h"
#include "Velum/Platform/Tool.h"

namespace velum {

/// A pipe between this process and a child. Each side belongs to one thread at a time.
class Pipe {
 public:
  /// Throws SystemError, when there are no descriptors left for instance.
  Pipe() : ends_(makePipe()) {}

  /// The descriptors; -1 for an end that is closed or was given to a child.
  int readEnd() const noexcept { return ends_.reader.get(); }
  int writeEnd() const noexcept { return ends_.writer.get(); }
  void closeReadEnd() noexcept { ends_.reader.reset(); }
  void closeWriteEnd() noexcept { ends_.writer.reset(); }

  /// Reads until every holder of the write end has closed it; blocks until then. Throws
  /// SystemError "Reading data from pipe".
  ByteBuffer gatherData() const;

  /// Writes all of it; blocks while the pipe is full. Throws SystemError, with EPIPE when nobody
  /// is left to read it; there is no SIGPIPE.
  void write(std::string_view bytes) const;

 private:
  PipeEnds ends_;
};

/// What `Process::run` gives to the tool besides its path. The environment is this process's own.
/// (Each member has an initializer, so that callers may name some of them without a warning.)
struct RunOptions {
  std::vector<std::string> args = {};
  std::optional<std::string> workdir = {};
  /// The tool's end of each pipe is closed in this process when `run` returns, whether or not the
  /// tool was started. One pipe may serve as both outputs.
  std::shared_ptr<Pipe> inpipe = {};   ///< Absent: the tool has nothing to read.
  std::shared_ptr<Pipe> outpipe = {};  ///< Absent: each line of the output is logged.
  std::shared_ptr<Pipe> errpipe = {};  ///< Absent: the same.
  bool wait = false;                   ///< Return only when the tool has ended.
  KeepRunning keepRunning = {};        ///< Absent: the tool ends by itself.
};

/// A command-line tool that runs as a child of this process, in a session of its own: it has no
/// terminal, and gets no Ctrl-C.
class Process {
  struct Private {};  // keeps construction to `run`

 public:
  /// Starts the tool at `path`. Whatever of its output and error stream has no pipe is merged and
  /// logged at level info, line by line, as it comes (a line of more than 1 MiB in pieces); how the
  /// tool ended is logged as well. Null, and one logged error, when it is not an executable file or
  /// can't be started. Never throws.
  ///
  /// What the tool wrote until its end is logged before that end is reported. Processes that it
  /// leaves behind may hold its output for ever: they are listened to for a moment only.
  ///
  /// Any thread, several at once. With `wait` the caller's thread does all of this, else one that
  /// is started for the tool.
  static std::shared_ptr<Process> run(const std::string& path, const RunOptions& options = {});

  Process(Private, std::string path) : path_(std::move(path)) {}

  pid_t processIdentifier() const noexcept { return pid_; }
  bool isRunning() const { return !termination(); }
  /// Nothing while the tool runs. In a forked child, which can't learn it of the parent's tools,
  /// exit status 255.
  std::optional<Termination> termination() const;
  /// Blocks until the tool has ended. Its output has been logged by then.
  Termination waitUntilExit() const;

 private:
  std::shared_ptr<Tool> launch(const RunOptions& options, UniqueFd& output);
  void attend(Tool& tool, int output, const KeepRunning& keepRunning);

  std::string path_;
  pid_t pid_ = -1;
  unsigned generation_ = forkGeneration();
  std::promise<Termination> end_;
  std::shared_future<Termination> ended_ = end_.get_future().share();
};

}  // namespace velum
