// What a record of 100 bytes costs in a log file: against the bare system calls under the same
// locks, and against two well-known loggers, which take no lock against other processes; with the
// same lock around them they are measured, too.

#include <fcntl.h>
#include <fmt/format.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/log/attributes/clock.hpp>
#include <boost/log/attributes/current_process_id.hpp>
#include <boost/log/attributes/current_thread_id.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_file_backend.hpp>
#include <boost/log/sources/logger.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/support/date_time.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Logger/Handlers/FileLogHandler.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/Logger.h"
#include "bench/support/Table.h"
#include "bench/support/TemporaryFolder.h"

namespace {

constexpr int rounds = 21;
constexpr int recordsPerRun = 20'000;
constexpr int contendingProcesses = 8;
constexpr std::size_t messageSize = 100;
const std::string subsystem = "com.quillon.mac.vpn";

const std::string message =
    std::string("I (Tunnel): Connected to 10.20.30.40: port 443, session established, ")
        .append(messageSize, '.')
        .substr(0, messageSize);

velum::UniqueFd openForAppending(const std::string& path) {
  velum::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (!file) throw velum::lastSystemError("open (" + path + ")");
  return file;
}

// Somebody who writes records into a file of his own.
class Writer {
 public:
  explicit Writer(std::string path) : path_(std::move(path)) { openForAppending(path_); }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;
  virtual ~Writer() = default;

  virtual void write() = 0;

  // Time for the records of one run, divided among the threads. Starting them is part of it, which
  // is the same for all writers. The file is emptied before.
  double run(int threadCount) {
    if (::truncate(path_.c_str(), 0) != 0) throw velum::lastSystemError("truncate (" + path_ + ")");
    const auto writeShare = [this, threadCount] {
      for (int i = 0; i < recordsPerRun / threadCount; ++i) write();
    };
    return bench::timed([&] {
      std::vector<std::jthread> others;
      for (int i = 1; i < threadCount; ++i) others.emplace_back(writeShare);
      writeShare();
    });
  }

 protected:
  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

class BareWriter final : public Writer {
 public:
  explicit BareWriter(const std::string& path) : Writer(path), file_(openForAppending(path)) {}

  void write() override {
    const std::lock_guard guard(mutex_);
    ::flock(file_.get(), LOCK_EX);
    [[maybe_unused]] const ssize_t written = ::write(file_.get(), line_.data(), line_.size());
    ::flock(file_.get(), LOCK_UN);
  }

 private:
  velum::UniqueFd file_;
  std::mutex mutex_;
  std::string line_ =
      velum::makeRecordPrefix(std::chrono::system_clock::now(), subsystem) + message + '\n';
};

std::shared_ptr<velum::FileLogHandler> makeHandler(const std::string& path) {
  const velum::RotationPolicy never{.firstCheck = std::chrono::hours(24)};
  return velum::FileLogHandler::create(subsystem, path, true, never, {});
}

class HandlerWriter final : public Writer {
 public:
  explicit HandlerWriter(const std::string& path) : Writer(path), handler_(makeHandler(path)) {}

  void write() override {
    handler_->logWithLevel(velum::LogLevel::info, std::chrono::system_clock::now(), message);
  }

 private:
  std::shared_ptr<velum::FileLogHandler> handler_;
};

// The same record as the others', of which the logger formats a part.
class LoggerWriter final : public Writer {
 public:
  explicit LoggerWriter(const std::string& path) : Writer(path) {
    velum::Logger::shared().setHandlers({makeHandler(path)});
  }

  void write() override {
    velum::logInfo({"Tunnel", "connect(to:)"}, "Connected to {}: port {}, session {}", address_,
                   port_, rest_);
  }

 private:
  std::string address_ = "10.20.30.40";
  int port_ = 443;
  std::string rest_ = message.substr(sizeof "I (Tunnel): Connected to 10.20.30.40: port 443");
};

class SpdlogWriter final : public Writer {
 public:
  explicit SpdlogWriter(const std::string& path)
      : Writer(path),
        logger_(subsystem, std::make_shared<spdlog::sinks::basic_file_sink_mt>(path)) {
    logger_.set_pattern("\x1E%Y-%m-%d %H:%M:%S.%e %P:%t     [%n] %L %v");
    logger_.flush_on(spdlog::level::info);
  }

  void write() override {
    logger_.info("(Tunnel): Connected to {}: port {}, session {}", address_, port_, rest_);
  }

 private:
  spdlog::logger logger_;
  std::string address_ = "10.20.30.40";
  int port_ = 443;
  std::string rest_ = message.substr(sizeof "I (Tunnel): Connected to 10.20.30.40: port 443");
};

namespace boost_log = boost::log;

class BoostWriter final : public Writer {
 public:
  explicit BoostWriter(const std::string& path)
      : Writer(path),
        sink_(boost::make_shared<Sink>(boost_log::keywords::file_name = path,
                                       boost_log::keywords::open_mode = std::ios::app,
                                       boost_log::keywords::auto_flush = true)) {
    namespace expressions = boost_log::expressions;
    namespace attributes = boost_log::attributes;
    logger_.add_attribute("TimeStamp", attributes::local_clock());
    logger_.add_attribute("ProcessID", attributes::current_process_id());
    logger_.add_attribute("ThreadID", attributes::current_thread_id());
    sink_->set_formatter(expressions::stream
                         << '\x1E'
                         << expressions::format_date_time<boost::posix_time::ptime>(
                                "TimeStamp", "%Y-%m-%d %H:%M:%S.%f")
                         << ' '
                         << expressions::attr<attributes::current_process_id::value_type>(
                                "ProcessID")
                         << ':'
                         << expressions::attr<attributes::current_thread_id::value_type>("ThreadID")
                         << " [" << subsystem << "] I " << expressions::smessage);
    boost_log::core::get()->add_sink(sink_);
  }
  BoostWriter(const BoostWriter&) = delete;
  BoostWriter& operator=(const BoostWriter&) = delete;
  ~BoostWriter() override { boost_log::core::get()->remove_sink(sink_); }

  void write() override {
    BOOST_LOG(logger_) << "(Tunnel): Connected to " << address_ << ": port " << port_
                       << ", session " << rest_;
  }

 private:
  using Sink = boost_log::sinks::synchronous_sink<boost_log::sinks::text_file_backend>;
  boost::shared_ptr<Sink> sink_;
  boost_log::sources::logger_mt logger_;
  std::string address_ = "10.20.30.40";
  int port_ = 443;
  std::string rest_ = message.substr(sizeof "I (Tunnel): Connected to 10.20.30.40: port 443");
};

// Takes the lock against other processes around another writer, and with it one for the threads,
// because threads of one process share the former.
template <class Other>
class Locked final : public Writer {
 public:
  explicit Locked(const std::string& path)
      : Writer(path), other_(path), file_(openForAppending(path)) {}

  void write() override {
    const std::lock_guard guard(mutex_);
    ::flock(file_.get(), LOCK_EX);
    other_.write();
    ::flock(file_.get(), LOCK_UN);
  }

 private:
  Other other_;
  velum::UniqueFd file_;
  std::mutex mutex_;
};

void compare(const bench::TemporaryFolder& folder, int threads) {
  HandlerWriter handler(folder / "handler.log");
  LoggerWriter logger(folder / "logger.log");
  BareWriter bare(folder / "bare.log");
  SpdlogWriter spdlog(folder / "spdlog.log");
  Locked<SpdlogWriter> lockedSpdlog(folder / "locked_spdlog.log");
  const auto times = bench::interleaved(
      rounds, {[&] { return handler.run(threads); }, [&] { return bare.run(threads); },
               [&] { return logger.run(threads); }, [&] { return spdlog.run(threads); },
               [&] { return lockedSpdlog.run(threads); }});
  // Boost.Log has one core for all loggers of a process, so its two contenders can't be there at
  // once.
  const auto plainBoost = [&] {
    BoostWriter boost(folder / "boost.log");
    return bench::interleaved(
        rounds, {[&] { return logger.run(threads); }, [&] { return boost.run(threads); }});
  }();
  const auto lockedBoost = [&] {
    Locked<BoostWriter> boost(folder / "locked_boost.log");
    return bench::interleaved(
        rounds, {[&] { return logger.run(threads); }, [&] { return boost.run(threads); }});
  }();

  const std::string record =
      fmt::format("file record, {} thread{}: ", threads, threads > 1 ? "s" : "");
  bench::report(record + "handler", times[0], "mutex, flock, write, flock", times[1], {1.25},
                recordsPerRun);
  bench::report(record + "logger, formatted", times[2], "mutex, flock, write, flock", times[1], {},
                recordsPerRun);
  bench::report(record + "logger, formatted", times[2], "spdlog, no flock", times[3], {},
                recordsPerRun);
  bench::report(record + "logger, formatted", times[2], "spdlog in the same locks", times[4], {1},
                recordsPerRun);
  bench::report(record + "logger, formatted", plainBoost[0], "Boost.Log, no flock", plainBoost[1],
                {}, recordsPerRun);
  bench::report(record + "logger, formatted", lockedBoost[0], "Boost.Log in the same locks",
                lockedBoost[1], {1}, recordsPerRun);
}

// Eight processes of four threads each at one file.
template <class Contender>
double contended(const std::string& path) {
  return bench::timed([&] {
    std::vector<pid_t> children;
    for (int i = 0; i < contendingProcesses; ++i) {
      children.push_back(::fork());
      if (children.back() != 0) continue;
      Contender(path).run(4);
      ::_exit(0);
    }
    for (const pid_t child : children) ::waitpid(child, nullptr, 0);
  });
}

void compareContended(const bench::TemporaryFolder& folder) {
  const auto times =
      bench::interleaved(11, {[&] { return contended<HandlerWriter>(folder / "handler.log"); },
                              [&] { return contended<BareWriter>(folder / "bare.log"); }});
  bench::report("file record, 8 processes of 4 threads: handler", times[0],
                "mutex, flock, write, flock", times[1], {1.25},
                contendingProcesses * recordsPerRun);
}

}  // namespace

int main() {
  const bench::TemporaryFolder folder;
  for (const int threads : {1, 4}) compare(folder, threads);
  compareContended(folder);
}
