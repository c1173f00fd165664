// The sealed file of a storage: bytes of anybody's under the seal's check, and a property list
// behind a seal that is right.

#include <optional>

#include "Velum/Base/ByteView.h"
#include "Velum/PropertyList/PropertyList.h"
#include "Velum/Sealing/SealedBox.h"
#include "Velum/Sealing/StorageError.h"
#include "tests/fuzz/FuzzTarget.h"

namespace {

velum::SealedBox& box() {
  static velum::SealedBox instance(velum::SecretBytes(velum::SealedBox::keySize, 1));
  return instance;
}

std::optional<velum::PropertyList> content(velum::ByteView sealed) try {
  return velum::PropertyList::read(velum::textView(box().open(sealed)));
} catch (const velum::StorageError&) {
  return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using velum::fuzz::require;
  const velum::ByteView input(data, size);
  require(!content(input));  // nobody guesses a seal

  // What the owner sealed comes back, whatever it is; what can be read can be written.
  const std::string sealed = box().seal(input);
  const auto list = content(velum::byteView(sealed));
  if (!list) return 0;
  if (const auto bytes = list->readableBinary()) {
    require(content(velum::byteView(box().seal(velum::byteView(*bytes)))).has_value());
  }
  return 0;
}
