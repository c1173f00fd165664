#pragma once

#include <sys/resource.h>

#include <csignal>

namespace velum::test {

/// Until its end no file of this process can be written, as on a full disk.
class NoRoom {
 public:
  NoRoom() : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit none{.rlim_cur = 0, .rlim_max = before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &none);
  }
  NoRoom(const NoRoom&) = delete;
  NoRoom& operator=(const NoRoom&) = delete;
  ~NoRoom() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    static_cast<void>(std::signal(SIGXFSZ, handler_));
  }

 private:
  rlimit before_{};
  void (*handler_)(int);
};

}  // namespace velum::test
