// What the reader accepts can be written, and is the same when it is read again.

#include "Velum/Platform/PropertyList.h"

#include "tests/fuzz/FuzzTarget.h"

namespace velum::fuzz {
namespace {

std::string repeated(const std::string& text, std::size_t times) {
  std::string result;
  for (std::size_t count = 0; count < times; ++count) result += text;
  return result;
}

std::string bigEndian(std::uint64_t number, unsigned width) {
  std::string bytes;
  for (unsigned left = width; left-- > 0;) bytes += static_cast<char>(number >> (left * 8));
  return bytes;
}

// A binary document of arrays: each holds the next one `references` times, the last one nothing.
std::string chainOfArrays(std::uint64_t length, std::uint64_t references) {
  std::string bytes = "bplist00";
  std::string table;
  for (std::uint64_t number = 0; number < length; ++number) {
    table += bigEndian(bytes.size(), 4);
    const std::uint64_t count = number + 1 < length ? references : 0;
    bytes += static_cast<char>(0xA0U + count);
    bytes += repeated(bigEndian(number + 1, 4), count);
  }
  const std::uint64_t tableOffset = bytes.size();
  return bytes + table + std::string(6, '\0') + "\x04\x04" + bigEndian(length, 8) +
         bigEndian(0, 8) + bigEndian(tableOffset, 8);
}

}  // namespace

std::vector<std::string> craftedInputs() {
  constexpr std::size_t levels = 100'000;
  return {chainOfArrays(levels, 1), chainOfArrays(9, 10),
          "<plist>" + repeated("<array>", levels) + repeated("</array>", levels) + "</plist>",
          "<plist>" + repeated("<dict><key>a</key>", levels)};
}

}  // namespace velum::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using velum::PropertyList;
  const std::string bytes(data, data + size);
  const auto list = PropertyList::read(bytes);
  if (!list) return 0;
  const std::string written = list->binary();
  const auto again = PropertyList::read(written);
  // Compared as bytes, because a number that is none equals nothing, not even itself.
  velum::fuzz::require(again && again->binary() == written);
  return 0;
}
