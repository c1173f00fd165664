#include <exception>
#include <filesystem>

#include "Velum/FileUtils.h"
#include "Velum/Platform/Utf8Locale.h"

namespace velum {

namespace fs = std::filesystem;

// The C library always has this one. But zip asks for the American one by name, and a machine has
// that only when somebody chose it; so the tool finds the one under the name of the other.
Utf8Locale::Utf8Locale() {
  constexpr const char* existing = "/usr/lib/locale/C.utf8";
  std::error_code error;
  if (!fs::exists(existing, error)) return;
  try {
    folder_ = makeTemporaryFolder("locale", fs::temp_directory_path().string(), "Utf8Locale");
    for (const fs::path name : {"en_US.UTF-8", "C.UTF-8"}) {
      fs::create_directory_symlink(existing, folder_ / name);
    }
    variables_ = {"LC_ALL=C.UTF-8", "LOCPATH=" + folder_};
  } catch (const std::exception&) {  // names are then marked where the machine has the locale
    variables_.clear();
  }
}

Utf8Locale::~Utf8Locale() {
  std::error_code ignored;
  if (!folder_.empty()) fs::remove_all(folder_, ignored);
}

}  // namespace velum
