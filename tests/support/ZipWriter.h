#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Velum/SystemUtils.h"

namespace velum::test {

/// What an archive says of one entry; names and types that no zip tool would write included. The
/// content of a link is what it leads to. Every entry has mode 0 but for its type, files 0600.
struct ZipEntry {
  std::string name;
  std::string content;
  std::uint32_t type = S_IFREG;
};

/// Writes a zip archive of uncompressed entries.
inline void writeZip(const std::string& path, const std::vector<ZipEntry>& entries) {
  constexpr const char* script = R"(
import sys, warnings, zipfile
warnings.simplefilter('ignore')
with zipfile.ZipFile(sys.argv[1], 'w') as archive:
  for name, content, kind in zip(*[iter(sys.argv[2:])] * 3):
    entry = zipfile.ZipInfo(name)
    entry.create_system = 3  # Unix
    archive.writestr(entry, content)
    entry.external_attr = int(kind) << 16
)";
  std::vector<std::string> arguments{"-c", script, path};
  for (const ZipEntry& entry : entries) {
    const std::uint32_t mode = entry.type == S_IFREG ? 0600U : 0U;
    arguments.insert(arguments.end(),
                     {entry.name, entry.content, std::to_string(entry.type | mode)});
  }
  ASSERT_EQ(SystemUtil::cliUtil("/usr/bin/python3", arguments).status, 0);
}

}  // namespace velum::test
