#include <exception>
#include <filesystem>

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
    const std::string& folder =
        folder_.emplace("locale", fs::temp_directory_path().string(), "Utf8Locale").path();
    for (const fs::path name : {"en_US.UTF-8", "C.UTF-8"}) {
      fs::create_directory_symlink(existing, folder / name);
    }
    variables_ = {"LC_ALL=C.UTF-8", "LOCPATH=" + folder};
  } catch (const std::exception&) {  // names are then marked where the machine has the locale
    variables_.clear();
  }
}

}  // namespace velum
