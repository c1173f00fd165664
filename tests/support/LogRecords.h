#pragma once

#include <regex>
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
inline ReadRecords readRecords(std::string_view content, const std::string& subsystem) {
  ReadRecords result;
  const std::regex pattern("\x1E[-\\d]{10} [:\\d]{8}\\.\\d{3} +(\\d+):([0-9a-f]+) +\\[" +
                           subsystem + "\\] (.*)\n");
  while (!content.empty()) {
    const std::string piece(content.substr(0, content.find('\x1E', 1)));
    content.remove_prefix(piece.size());
    std::smatch match;
    if (std::regex_match(piece, match, pattern)) {
      const auto thread = std::stoul(match[2], nullptr, 16);
      result.whole.push_back({std::stoi(match[1]), static_cast<unsigned>(thread), match[3]});
    } else {
      result.broken.push_back(piece);
    }
  }
  return result;
}

}  // namespace velum::test
