#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velum::test {

/// What an archive says of one entry; names and types that no zip tool would write included. The
/// content of a link is what it leads to. Every entry has mode 0 but for its type, files 0600.
struct ZipEntry {
  std::string name;
  std::string content;
  std::uint32_t type = S_IFREG;
};

inline std::uint32_t crc32(std::string_view bytes) {
  std::uint32_t crc = ~0U;
  for (const char c : bytes) {
    crc ^= static_cast<unsigned char>(c);
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
  }
  return ~crc;
}

/// A zip archive of uncompressed entries.
inline std::string zipOf(const std::vector<ZipEntry>& entries) {
  std::string file;
  std::string directory;
  const auto put = [](std::string& to, std::uint32_t value, int bytes) {
    for (; bytes > 0; --bytes, value >>= 8U) to += static_cast<char>(value & 0xFFU);
  };
  for (const ZipEntry& entry : entries) {
    const auto offset = static_cast<std::uint32_t>(file.size());
    const auto size = static_cast<std::uint32_t>(entry.content.size());
    std::string common;           // of the entry's header and its place in the directory
    put(common, 10, 2);           // version needed
    put(common, 0, 2);            // flags
    put(common, 0, 2);            // stored
    put(common, 0x21 << 16U, 4);  // 1980-01-01
    put(common, crc32(entry.content), 4);
    put(common, size, 4);
    put(common, size, 4);
    put(common, static_cast<std::uint32_t>(entry.name.size()), 2);
    put(common, 0, 2);  // no extra field
    file += "PK\3\4" + common + entry.name + entry.content;
    directory += std::string("PK\1\2\x1e\3", 6) + common;  // made by Unix
    put(directory, 0, 6);                                  // comment, disk, internal attributes
    put(directory, (entry.type | (entry.type == S_IFREG ? 0600U : 0U)) << 16U, 4);
    put(directory, offset, 4);
    directory += entry.name;
  }
  std::string end = "PK\5\6";
  put(end, 0, 4);
  put(end, static_cast<std::uint32_t>(entries.size()), 2);
  put(end, static_cast<std::uint32_t>(entries.size()), 2);
  put(end, static_cast<std::uint32_t>(directory.size()), 4);
  put(end, static_cast<std::uint32_t>(file.size()), 4);
  put(end, 0, 2);
  return file + directory + end;
}

}  // namespace velum::test
