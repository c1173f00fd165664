// What a request and its response cost between two processes, and what a notify center's other
// observers cost the one that is meant.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <semaphore>
#include <string>
#include <vector>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/IPCDarwinMessage.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/NotifyCenter.h"
#include "bench/support/Process.h"
#include "bench/support/Table.h"
#include "tests/support/TemporaryFolder.h"

namespace {

constexpr int rounds = 25;
constexpr int trips = 400;
constexpr int posts = 2000;
constexpr auto message = "bench.request";
constexpr auto busPath = "/bench";
constexpr auto busInterface = "com.example.Bench";

void check(int result, const char* call) {
  if (result < 0) throw velum::SystemError(-result, call);
}

void sayReady() {
  constexpr int readyDescriptor = 3;
  if (::write(readyDescriptor, "\n", 1) != 1) throw velum::lastSystemError("write (ready)");
}

/// A file that one process touches and another watches, with nothing else around it.
class TouchedFile {
 public:
  explicit TouchedFile(std::string path) : path_(std::move(path)) { touch(); }

  void watch() {
    inotify_.reset(::inotify_init1(IN_CLOEXEC));
    if (::inotify_add_watch(inotify_.get(), path_.c_str(), IN_ATTRIB) < 0) {
      throw velum::lastSystemError("inotify_add_watch (" + path_ + ")");
    }
  }
  void touch() const {
    const velum::UniqueFd file(::open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (::futimens(file.get(), nullptr) != 0) throw velum::lastSystemError("futimens");
  }
  void await() const {
    std::array<char, 4096> events{};
    if (::read(inotify_.get(), events.data(), events.size()) <= 0) {
      throw velum::lastSystemError("read (inotify)");
    }
  }

 private:
  std::string path_;
  velum::UniqueFd inotify_;
};

/// One end of a conversation by signals of the bus.
class BusEnd {
 public:
  explicit BusEnd(const char* awaited) {
    sd_bus* bus = nullptr;
    check(sd_bus_open_user(&bus), "sd_bus_open_user");
    bus_.reset(bus);
    const auto count = [](sd_bus_message*, void* end, sd_bus_error*) {
      ++static_cast<BusEnd*>(end)->received_;
      return 0;
    };
    check(sd_bus_match_signal(bus, nullptr, nullptr, busPath, busInterface, awaited, count, this),
          "sd_bus_match_signal");
  }
  void emit(const char* member) {
    check(sd_bus_emit_signal(bus_.get(), busPath, busInterface, member, ""), "sd_bus_emit_signal");
    check(sd_bus_flush(bus_.get()), "sd_bus_flush");
  }
  void await() {
    for (const int before = received_; received_ == before;) {
      const int done = sd_bus_process(bus_.get(), nullptr);
      check(done, "sd_bus_process");
      if (done == 0) check(sd_bus_wait(bus_.get(), UINT64_MAX), "sd_bus_wait");
    }
  }

 private:
  struct Close {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  };
  std::unique_ptr<sd_bus, Close> bus_;
  int received_ = 0;
};

void installConfig() {
  velum::Logger::shared().setHandlers({});
  velum::IPCDarwinMessageConfig::install({.prefix = "com.example.bench"});
}

// The other processes of the conversations; each answers until it is killed.

[[noreturn]] void answerMessages(const std::string& id) {
  installConfig();
  velum::IPCDarwinMessage::addListener(
      message, [id] { velum::IPCDarwinMessage::sendResponse(message, id); });
  sayReady();
  for (;;) ::pause();
}

[[noreturn]] void answerTouches(const std::string& folder) {
  TouchedFile request(folder + "/request");
  const TouchedFile response(folder + "/response");
  request.watch();
  sayReady();
  for (;;) {
    request.await();
    response.touch();
  }
}

[[noreturn]] void answerSignals() {
  BusEnd end("Request");
  sayReady();
  for (;;) {
    end.await();
    end.emit("Response");
  }
}

void answerSocket() {
  constexpr int inherited = 3;
  for (char byte = 0; ::read(inherited, &byte, 1) == 1;) {
    if (::write(inherited, &byte, 1) != 1) return;
  }
}

void reportRoundTrip(const std::string& self, const std::string& folder) {
  const auto responder = bench::startReady({self, "messages", "id"});
  const auto toucher = bench::startReady({self, "touches", folder});
  const std::string busAddress = "unix:path=" + folder + "/bus";
  const auto bus = bench::startReady({"/usr/bin/dbus-daemon", "--session", "--nofork",
                                      "--print-address=3", "--address=" + busAddress});
  ::setenv("DBUS_SESSION_BUS_ADDRESS", busAddress.c_str(), 1);
  const auto signaller = bench::startReady({self, "signals"});
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw velum::lastSystemError("socketpair");
  }
  const velum::UniqueFd socket(ends[0]);
  velum::UniqueFd otherEnd(ends[1]);
  const bench::Process echo({self, "socket"}, otherEnd.get());
  otherEnd.reset();
  TouchedFile response(folder + "/response");
  response.watch();
  const TouchedFile request(folder + "/request");
  BusEnd signals("Response");

  const auto repeated = [](auto trip) {
    return [trip] {
      return bench::timed([&] {
        for (int i = 0; i < trips; ++i) trip();
      });
    };
  };
  const auto times = bench::interleaved(
      rounds, {repeated([] {
                 if (!velum::IPCDarwinMessage::sendRequest(message, "id")) {
                   throw velum::SystemError(ETIMEDOUT, "sendRequest");
                 }
               }),
               repeated([&] {
                 request.touch();
                 response.await();
               }),
               repeated([&] {
                 signals.emit("Request");
                 signals.await();
               }),
               repeated([&] {
                 char byte = 'x';
                 if (::write(socket.get(), &byte, 1) != 1 || ::read(socket.get(), &byte, 1) != 1) {
                   throw velum::lastSystemError("socket");
                 }
               })});
  constexpr auto what = "request and response between processes";
  bench::report(what, times[0], "inotify on touched files", times[1], {1.8}, trips);
  bench::report(what, times[0], "signals on a bus", times[2], {1}, trips);
  bench::report(what, times[0], "UNIX socket", times[3], {}, trips);
}

// From a post to its callback in the same process, with `others` names observed beside it.
bench::Run postAndHear(int others) {
  struct State {
    std::vector<std::unique_ptr<velum::NotifyCenter::Observer>> observers;
    std::counting_semaphore<> heard{0};
  };
  return [others] {
    auto& center = velum::NotifyCenter::shared(velum::NotifyCenter::Scope::user);
    const auto state = std::make_shared<State>();
    for (int i = 0; i < others; ++i) {
      state->observers.push_back(center.addObserver(fmt::format("other.{}", i), [] {}));
    }
    state->observers.push_back(center.addObserver("meant", [state = state.get()] {  //
      state->heard.release();
    }));
    return bench::timed([&] {
      for (int i = 0; i < posts; ++i) {
        center.post("meant");
        state->heard.acquire();
      }
    });
  };
}

void reportObservers() {
  const auto times = bench::interleaved(rounds, {postAndHear(999), postAndHear(0)});
  bench::report("one of 1,000 observed names posted", times[0], "one observed name", times[1],
                {1.5}, posts);
}

int run(const std::vector<std::string>& arguments) {
  const std::string mode = arguments.size() > 1 ? arguments[1] : "";
  if (mode == "messages") answerMessages(arguments.at(2));
  if (mode == "touches") answerTouches(arguments.at(2));
  if (mode == "signals") answerSignals();
  if (mode == "socket") {
    answerSocket();
    return EXIT_SUCCESS;
  }
  const velum::test::TemporaryFolder folder("/dev/shm");  // in memory, as those of sessions are
  bench::isolateEnvironment(folder.path());
  installConfig();
  reportRoundTrip(arguments[0], folder.path());
  reportObservers();
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char* argv[]) {
  try {
    return run({argv, argv + argc});
  } catch (const std::exception& error) {
    fmt::print(stderr, "bench_messaging: {}\n", error.what());
    return EXIT_FAILURE;
  }
}
