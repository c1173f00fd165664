#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace velum::test {

/// A record of a log file, taken apart.
struct ReadRecord {
  int process = 0;
  unsigned thread = 0;
  std::string text;  ///< Without the line feed.
};

struct ReadRecords {
  std::vector<ReadRecord> whole;
  std::vector<std::string> broken;  ///< Torn, interleaved or not ended.
};

/// Takes the content of a log file of `subsystem` apart.
inline ReadRecords readRecords(std::string_view content, std::string_view subsystem) {
  ReadRecords result;
  const std::string bracketed = "[" + std::string(subsystem) + "] ";
  while (!content.empty()) {
    const std::string piece(content.substr(0, content.find('\x1E', 1)));
    content.remove_prefix(piece.size());
    ReadRecord record;
    int ids = 0;
    constexpr const char* format = "\x1E%*4d-%*2d-%*2d %*2d:%*2d:%*2d.%*3d %5d:%8x%n";
    const int fields = std::sscanf(piece.c_str(), format, &record.process, &record.thread, &ids);
    const std::size_t text = piece.find(bracketed);
    const bool isWhole = fields == 2 && ids > 0 && text != std::string::npos &&
                         piece.find_first_not_of(' ', static_cast<std::size_t>(ids)) == text &&
                         piece.back() == '\n' && piece.find('\n') == piece.size() - 1;
    if (isWhole) {
      const std::size_t begin = text + bracketed.size();
      record.text = piece.substr(begin, piece.size() - 1 - begin);
      result.whole.push_back(std::move(record));
    } else {
      result.broken.push_back(piece);
    }
  }
  return result;
}

}  // namespace velum::test
