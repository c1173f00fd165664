#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace velum {

/// Cuts a stream of bytes that comes in chunks into lines. A line ends with a line feed, a carriage
/// return, or both in that order, also when a chunk ends between the two. Holds no more than the
/// line that has not ended yet, and of that no more than `longestLine` bytes: a longer line comes
/// in pieces of that size. Not thread-safe.
class LineSplitter {
 public:
  static constexpr std::size_t longestLine = 1'048'576;

  /// Calls `sink(std::string_view line)` for every line that ends in `chunk`, without its end.
  template <class Sink>
  void feed(std::string_view chunk, Sink sink) {
    chunk = afterSplitEnd(chunk);
    constexpr std::size_t none = std::string_view::npos;
    std::size_t start = 0;
    std::size_t lineFeed = chunk.find('\n');
    std::size_t carriageReturn = chunk.find('\r');
    for (std::size_t end = 0; (end = std::min(lineFeed, carriageReturn)) != none;) {
      emit(chunk.substr(start, end - start), sink);
      start = end + 1;
      if (end == carriageReturn && lineFeed == start) ++start;
      // Each byte is looked at twice, however many lines there are.
      if (lineFeed < start) lineFeed = chunk.find('\n', start);
      if (carriageReturn < start) carriageReturn = chunk.find('\r', start);
    }
    keep(chunk.substr(start), sink);
  }

  /// The same for a chunk whose lines nobody wants; what has not ended yet is kept all the same.
  void skip(std::string_view chunk) {
    chunk = afterSplitEnd(chunk);
    const std::size_t end = chunk.find_last_of("\r\n");
    if (end != std::string_view::npos) {
      partial_.clear();
      chunk.remove_prefix(end + 1);
    }
    const auto nobody = [](std::string_view /*piece*/) {};
    keep(chunk, nobody);
  }

  /// The stream is at its end: what is left is a line, unless it is empty.
  template <class Sink>
  void finish(Sink sink) {
    if (!partial_.empty()) emit({}, sink);
  }

 private:
  /// `chunk` without the second half of an end whose first half was the last byte before it.
  std::string_view afterSplitEnd(std::string_view chunk) noexcept {
    if (chunk.empty()) return chunk;
    const bool isSplitEnd = endedWithReturn_ && chunk.front() == '\n';
    endedWithReturn_ = chunk.back() == '\r';
    return chunk.substr(isSplitEnd ? 1 : 0);
  }

  /// Keeps the begin of a line, of which more may come.
  template <class Sink>
  void keep(std::string_view begin, Sink& sink) {
    while (begin.size() > longestLine - partial_.size()) {
      const std::size_t room = longestLine - partial_.size();
      partial_.append(begin.substr(0, room));
      sink(std::string_view(partial_));
      partial_.clear();
      begin.remove_prefix(room);
    }
    partial_.append(begin);
  }

  template <class Sink>
  void emit(std::string_view line, Sink& sink) {
    if (partial_.empty() && line.size() <= longestLine) return sink(line);
    keep(line, sink);
    sink(std::string_view(partial_));
    partial_ = {};  // it may have been a long one
  }

  std::string partial_;
  bool endedWithReturn_ = false;
};

}  // namespace velum
