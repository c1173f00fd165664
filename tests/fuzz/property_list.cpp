// What the reader accepts can be written, and is the same when it is read again.

#include "Velum/PropertyList/PropertyList.h"

#include "tests/fuzz/FuzzTarget.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using velum::PropertyList;
  const std::string bytes(data, data + size);
  const auto list = PropertyList::read(bytes);
  if (!list) return 0;
  const std::string written = list->binary();
  const auto again = PropertyList::read(written);
  // Compared as bytes, because a number that is none equals nothing, not even itself.
  velum::fuzz::require(again && again->binary() == written);
  const auto readable = list->readableBinary();
  velum::fuzz::require(!readable || PropertyList::read(*readable));
  return 0;
}
