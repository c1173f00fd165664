// Whatever a bundle's property list says, the program it names lies in the bundle.

#include "Velum/Platform/Bundle.h"
#include "tests/fuzz/FuzzTarget.h"
#include "tests/support/TemporaryFolder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const velum::test::TemporaryFolder folder;
  static const std::string path = folder / "Sample.app";
  const std::string content(data, data + size);
  velum::test::writeFile(path + "/Contents/Info.plist", content);

  const auto bundle = velum::Bundle::at(path);
  velum::fuzz::require(bundle.has_value());
  velum::fuzz::require(!bundle->identifier || !bundle->identifier->empty());
  const std::string programs = path + "/Contents/MacOS/";
  velum::fuzz::require(bundle->executable.starts_with(programs));
  const std::string name = bundle->executable.substr(programs.size());
  velum::fuzz::require(!name.empty() && name != "." && name != "..");
  velum::fuzz::require(name.find_first_of(std::string("/\0", 2)) == std::string::npos);
  return 0;
}
