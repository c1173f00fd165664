#pragma once

#include <filesystem>
#include <string>

#include "tests/support/TemporaryFolder.h"

namespace velum::test {

/// An identifier that no other test's application has, though many run at the same time.
inline std::string ownIdentifier(const TemporaryFolder& folder) {
  return "com.quillon.example." + folder.path().substr(folder.path().rfind('-') + 1);
}

/// Copies the sample bundle and gives the copy that identifier.
inline void copySampleBundle(const std::string& from, const std::string& to,
                             const std::string& identifier) {
  constexpr std::string_view original = "com.quillon.example.sample";
  std::filesystem::copy(from, to, std::filesystem::copy_options::recursive);
  std::string info = readFile(to + "/Contents/Info.plist");
  info.replace(info.find(original), original.size(), identifier);
  writeFile(to + "/Contents/Info.plist", info);
}

}  // namespace velum::test
