// Feeds a target with the inputs of its corpus, so that what was once found stays fixed.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "Velum/Files/ReadFile.h"
#include "tests/fuzz/FuzzTarget.h"

namespace velum::fuzz {

[[gnu::weak]] std::vector<std::string> craftedInputs() {
  return {};
}

namespace {

constexpr std::size_t largestInput = std::size_t{64} << 20U;

// In a block of its own size, so that a read beyond the end is noticed.
void read(const std::string& input) {
  const std::vector<std::uint8_t> bytes(input.begin(), input.end());
  require(LLVMFuzzerTestOneInput(bytes.data(), bytes.size()) == 0);
}

void feed(const std::string& name, const std::string& input) {
  static_cast<void>(std::puts(name.c_str()));
  static_cast<void>(std::fflush(stdout));  // the last name printed is the one that crashed
  read(input);
}

// A short input, cut off everywhere and with each byte replaced. Those named .whole take too long.
void damage(const std::string& input) {
  constexpr std::size_t most = 300;  // bytes, so that it stays quick
  for (std::size_t at = 0; at < input.size() && input.size() <= most; ++at) {
    read(input.substr(0, at));
    for (const char byte : {'\0', '\x1F', '<', '\x7F', '\xAF', '\xDF', '\xFF'}) {
      std::string damaged = input;
      damaged[at] = byte;
      read(damaged);
    }
  }
}

void replay(const char* folder) {
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    paths.push_back(entry.path().string());
  }
  std::ranges::sort(paths);
  require(!paths.empty());
  feed("(no bytes)", {});
  for (const std::string& path : paths) {
    const auto input = readRegularFile(path, largestInput);
    require(input.has_value());
    feed(path, *input);
    if (!path.ends_with(".whole")) damage(*input);
  }
  const auto crafted = craftedInputs();
  for (std::size_t number = 0; number < crafted.size(); ++number) {
    feed("(crafted " + std::to_string(number) + ")", crafted[number]);
  }
}

}  // namespace
}  // namespace velum::fuzz

int main(int argc, char* argv[]) {
  if (argc != 2) return 2;
  try {
    velum::fuzz::replay(argv[1]);  // NOLINT(cppcoreguidelines-pro-bounds-pointer-arithmetic)
    return 0;
  } catch (const std::exception& error) {
    static_cast<void>(std::fputs(error.what(), stderr));
    return 1;
  }
}
