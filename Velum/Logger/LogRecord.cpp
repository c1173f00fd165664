#include "Velum/Logger/LogRecord.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <mutex>
#include <utility>
#include <vector>

#include "Velum/Base/AtFork.h"
#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Platform/Thread.h"

namespace velum {
namespace {

using std::chrono::floor;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// The local zone as it was when the first date was formatted. The C library knows one zone, and
/// anybody who calls tzset(3) after a change of TZ replaces it, so what it says of the coming years
/// is noted at once. It guards its data with a lock that a forked child may inherit locked for
/// ever; taking our own lock around it closes that hole.
class LocalZone {
 public:
  static LocalZone& shared() {
    static NeverDestroyed<LocalZone> instance;
    return *instance;
  }

  /// What is to be added to a time to have the clock on the wall.
  seconds offset(std::time_t time) {
    const std::lock_guard guard(lock_);
    if (changes_.empty()) noteChangesLk();
    if (time < changes_.front().time || time >= end_) return offsetNowLk(time);
    const auto next = std::upper_bound(changes_.begin(), changes_.end(), time,
                                       [](std::time_t t, const Change& c) { return t < c.time; });
    return std::prev(next)->offset;
  }

 private:
  struct Change {
    std::time_t time;
    seconds offset;
  };

  static seconds offsetNowLk(std::time_t time) {
    std::tm result{};
    ::localtime_r(&time, &result);
    return seconds(result.tm_gmtoff);
  }

  // No zone changes its clocks twice within four weeks, nor other than at a quarter of an hour.
  void noteChangesLk() {
    constexpr std::time_t quarter = 900;
    constexpr std::time_t step = std::time_t{28} * 86400;
    constexpr std::time_t years = std::time_t{3} * 366 * 86400;
    ::tzset();
    end_ = std::time(nullptr) / quarter * quarter - step;
    changes_ = {{end_, offsetNowLk(end_)}};
    for (const std::time_t last = end_ + years; end_ < last; end_ += step) {
      const seconds after = offsetNowLk(end_ + step);
      if (after == changes_.back().offset) continue;
      std::time_t low = 0;  // in quarters; the new offset begins behind it, at `high` the latest
      std::time_t high = step / quarter;
      while (high - low > 1) {
        const std::time_t middle = low + (high - low) / 2;
        (offsetNowLk(end_ + middle * quarter) == after ? high : low) = middle;
      }
      changes_.push_back({end_ + high * quarter, after});
    }
  }

  ForkSafeLock lock_{ForkSafeLock::Stage::leaf};
  std::vector<Change> changes_;  // the first is the beginning of what is known
  std::time_t end_ = 0;          // of what is known
};

// Made when the program starts: making it registers it, which must not happen under a lock.
[[maybe_unused]] const LocalZone& earlyZone = LocalZone::shared();

// A short text that a thread keeps. Not a string: records may come after the destructors of the
// thread's variables ran, from exit handlers for instance.
struct ShortText {
  std::array<char, 48> bytes;
  std::size_t size;

  std::string_view view() const noexcept { return {bytes.data(), size}; }

  template <class... Arguments>
  void set(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    size = std::min(bytes.size(), fmt::format_to_n(bytes.data(), bytes.size(), format,
                                                   std::forward<Arguments>(arguments)...)
                                      .size);
  }
};

// The text of one second; a thread's records mostly fall into the same one.
std::string_view secondText(std::chrono::sys_time<seconds> second) {
  static thread_local constinit ShortText text{};
  static thread_local constinit auto cached = std::chrono::sys_time<seconds>::min();
  if (cached != second) {
    const auto local = second + LocalZone::shared().offset(second.time_since_epoch().count());
    const auto day = floor<std::chrono::days>(local);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(local - day);
    text.set("{}-{:02}-{:02} {:02}:{:02}:{:02}.", int{date.year()}, unsigned{date.month()},
             unsigned{date.day()}, time.hours().count(), time.minutes().count(),
             time.seconds().count());
    cached = second;
  }
  return text.view();
}

// " 12345:1a03     ": the same for every record of a thread.
std::string_view identifiersText() {
  static thread_local constinit ShortText text{};
  static thread_local constinit unsigned generation = 0;
  if (text.size == 0 || generation != forkGeneration()) {
    generation = forkGeneration();
    text.set(" {:5}:{:<8x} ", currentProcessId(), currentThreadId());
  }
  return text.view();
}

}  // namespace

void appendLogDate(std::string& out, LogDate date) {
  const auto second = floor<seconds>(date);
  const auto rest = static_cast<unsigned>(floor<milliseconds>(date - second).count());
  const auto digit = [](unsigned value) { return static_cast<char>('0' + value % 10); };
  out += secondText(second);
  const std::array<char, 3> digits{digit(rest / 100), digit(rest / 10), digit(rest)};
  out.append(digits.data(), digits.size());
}

void appendRecordPrefix(std::string& out, LogDate date, std::string_view subsystem) {
  out += recordSeparator;
  appendLogDate(out, date);
  out += identifiersText();
  out += '[';
  out += subsystem;
  out += "] ";
}

std::string makeRecordPrefix(LogDate date, std::string_view subsystem) {
  std::string prefix;
  appendRecordPrefix(prefix, date, subsystem);
  return prefix;
}

namespace {

// A short text to compare with, where '0' stands for any digit: all its bytes at once, since every
// record of a saved log is asked. Each byte's difference from the pattern must be 0, for a digit
// at most 9; adding what is missing to 0x80 moves a larger one into the top bit, and a carry out of
// a byte means that its top bit was set before.
template <class Word>
class Pattern {
 public:
  consteval explicit Pattern(std::string_view text) {
    std::array<char, sizeof(Word)> expected{};
    std::array<char, sizeof(Word)> margins{};
    for (std::size_t i = 0; i < sizeof(Word); ++i) {
      expected[i] = text[i];
      margins[i] = text[i] == '0' ? 0x76 : 0x7F;
    }
    expected_ = std::bit_cast<Word>(expected);
    margins_ = std::bit_cast<Word>(margins);
  }

  bool matches(const char* text) const noexcept {
    constexpr auto topBits = static_cast<Word>(0x8080'8080'8080'8080U);
    Word bytes = 0;
    std::memcpy(&bytes, text, sizeof(Word));
    const Word difference = bytes ^ expected_;
    return ((difference | (difference + margins_)) & topBits) == 0;
  }

 private:
  Word expected_ = 0;
  Word margins_ = 0;
};

}  // namespace

bool beginsRecord(std::string_view text) noexcept {
  constexpr Pattern<std::uint64_t> year(
      "\x1E"
      "0000-00");
  constexpr Pattern<std::uint64_t> day("-00 00:0");
  constexpr Pattern<std::uint32_t> minute("0:00");
  return text.size() >= recordStartSize && year.matches(text.data()) &&
         day.matches(text.data() + 8) && minute.matches(text.data() + 16);
}

std::optional<std::string_view> recordSubsystem(std::string_view text) noexcept {
  constexpr auto isIdentifier = [](char c) {
    return (c >= '0' && c <= ':') || (c >= 'a' && c <= 'f') || c == ' ';
  };
  if (!beginsRecord(text)) return std::nullopt;
  text = text.substr(0, mostPrefixSize);
  std::size_t open = recordDateEnd;
  while (open < text.size() && isIdentifier(text[open])) ++open;
  if (open >= text.size() || text[open] != '[') return std::nullopt;
  const std::size_t close = text.find(']', open);
  if (close == std::string_view::npos) return std::nullopt;
  return text.substr(open + 1, close - open - 1);
}

namespace {

// Where the extension's dot stands in `path`; its size when there is none. A leading dot of the
// last component makes a hidden file, not an extension.
std::size_t extensionDot(std::string_view path) noexcept {
  const std::size_t slash = path.rfind('/');
  const std::size_t name = slash == std::string_view::npos ? 0 : slash + 1;
  const std::size_t dot = path.rfind('.');
  return dot == std::string_view::npos || dot <= name ? path.size() : dot;
}

}  // namespace

std::string rotatedFilePath(std::string_view path, int index) {
  if (index < 1) return std::string(path);
  const std::size_t dot = extensionDot(path);
  const std::string_view extension = dot < path.size() ? path.substr(dot + 1) : "";
  return fmt::format("{}.{}.{}", path.substr(0, dot), index, extension);
}

std::string_view fileStem(std::string_view path) noexcept {
  path = path.substr(0, extensionDot(path));
  return path.substr(path.rfind('/') + 1);  // npos + 1 is 0
}

std::string makeRecordText(LogLevel level, std::string_view file, std::string_view function,
                           std::string_view message) {
  const std::string_view stem = fileStem(file);
  std::string text(1, letter(level));
  if (namesFunction(level)) {
    text += fmt::format(": ({}: {}) ", stem, function);
  } else if (!stem.empty()) {
    text += fmt::format(": ({}) ", stem);
  } else {
    text += ": ";
  }
  text += message;
  return text;
}

}  // namespace velum
