#include "velumctl/ProgressBar.h"

#include <fmt/format.h>

#include <algorithm>
#include <iostream>

namespace velumctl {

void drawBar(double done) {
  constexpr int width = 40;
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
