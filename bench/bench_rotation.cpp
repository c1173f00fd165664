// What the rotation of a log file of 50 MiB costs, against the two commands that do the same.

#include <fcntl.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <string>
#include <string_view>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Logger/Handlers/FileLogHandler.h"
#include "Velum/Platform/FileClone.h"
#include "Velum/Platform/SystemLog.h"
#include "bench/support/Process.h"
#include "bench/support/Table.h"
#include "bench/support/TemporaryFolder.h"

namespace {

constexpr int rounds = 15;
constexpr std::size_t fileSize = 52'428'800;

velum::UniqueFd openLog(const std::string& path) {
  velum::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  if (!file) throw velum::lastSystemError("open (" + path + ")");
  return file;
}

// A full log beside its rotated predecessor, both on the disk, as after days of logging.
void fill(const std::string& path) {
  static const std::string content(fileSize, 'r');
  const velum::UniqueFd file = openLog(path);
  if (::write(file.get(), content.data(), content.size()) != static_cast<ssize_t>(fileSize) ||
      ::fsync(file.get()) != 0) {
    throw velum::lastSystemError("write (" + path + ")");
  }
}

void prepare(const std::string& path, const std::string& rotated) {
  fill(path);
  fill(rotated);
}

// The handler reports the end of its rotation to the system log.
class EndOfRotation final : public velum::SystemLog {
 public:
  void write(Type /*type*/, std::string_view message) noexcept override {
    if (message == "Log file has been rotated") isOver_.set_value();
  }
  void await() {
    if (isOver_.get_future().wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
      throw velum::SystemError(ETIMEDOUT, "the file is not rotated");
    }
  }

 private:
  std::promise<void> isOver_;
};

}  // namespace

int main() {
  const bench::TemporaryFolder folder;
  const std::string path = folder / "name.log";
  const std::string rotated = folder / "name.1.log";

  const bench::Run handler = [&] {
    prepare(path, rotated);
    return bench::timed([&] {
      const auto end = std::make_shared<EndOfRotation>();
      const velum::RotationPolicy atOnce{.firstCheck = std::chrono::nanoseconds(0)};
      velum::FileLogHandler::Services services;
      services.systemLog = end;
      const auto log = velum::FileLogHandler::create("bench", path, true, atOnce, services);
      end->await();
    });
  };
  const bench::Run calls = [&] {
    prepare(path, rotated);
    const velum::UniqueFd log = openLog(path);
    return bench::timed([&] {
      velum::cloneFile(path, rotated);
      if (::ftruncate(log.get(), 0) != 0) throw velum::lastSystemError("ftruncate");
    });
  };
  const bench::Run commands = [&] {
    prepare(path, rotated);
    return bench::timed([&] {
      if (bench::Process({"/bin/cp", "--reflink=auto", path, rotated}).wait() != 0 ||
          bench::Process({"/usr/bin/truncate", "-s", "0", path}).wait() != 0) {
        throw velum::SystemError(EIO, "cp, truncate");
      }
    });
  };

  const auto times = bench::interleaved(rounds, {handler, commands, calls});
  bench::report("rotation of 50 MiB: opening, check and all", times[0],
                "cp --reflink=auto; truncate", times[1], {1.1});
  bench::report("rotation of 50 MiB: clone and truncate alone", times[2],
                "cp --reflink=auto; truncate", times[1], {1.1});
}
