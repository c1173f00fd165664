#include "velumctl/ProgressBar.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace velumctl {

void drawBar(double done) {
  constexpr int widest = 40;
  constexpr int besides = 9;  // the brackets and the percentage; the last column stays free
  winsize size{};
  const bool isKnown = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
  const int width = isKnown ? std::clamp(size.ws_col - besides, 0, widest) : widest;
  const double share = std::clamp(done, 0.0, 1.0);
  const int filled = static_cast<int>(share * width);
  std::cerr << fmt::format("\r[{:#<{}}{:<{}}] {:3.0f} %", "", filled, "", width - filled,
                           share * 100)
            << std::flush;
}

void clearBar() {
  std::cerr << "\r\x1B[K" << std::flush;
}

}  // namespace velumctl
