#include "velumctl/Moments.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>

#include "velumctl/Errors.h"

namespace velumctl {
namespace {

using velum::LogDate;

// Reads numbers of a fixed width and the marks between them off the front of a text.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  bool number(std::size_t digits, int& value) {
    if (text_.size() < digits) return false;
    const char* const end = text_.data() + digits;
    const auto [stop, error] = std::from_chars(text_.data(), end, value);
    if (error != std::errc() || stop != end || value < 0) return false;
    text_.remove_prefix(digits);
    return true;
  }
  bool mark(std::string_view anyOf) {
    if (text_.empty() || anyOf.find(text_.front()) == std::string_view::npos) return false;
    text_.remove_prefix(1);
    return true;
  }
  bool isAtEnd() const { return text_.empty(); }

 private:
  std::string_view text_;
};

bool scanDate(Scanner& scanner, std::tm& tm) {
  int year = 0;
  int month = 0;
  if (!scanner.number(4, year) || !scanner.mark("-") || !scanner.number(2, month) ||
      !scanner.mark("-") || !scanner.number(2, tm.tm_mday)) {
    return false;
  }
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  return std::chrono::year_month_day(std::chrono::year(year),
                                     std::chrono::month(static_cast<unsigned>(month)),
                                     std::chrono::day(static_cast<unsigned>(tm.tm_mday)))
      .ok();
}

bool scanTime(Scanner& scanner, std::tm& tm) {
  if (!scanner.number(2, tm.tm_hour) || !scanner.mark(":") || !scanner.number(2, tm.tm_min)) {
    return false;
  }
  if (scanner.mark(":") && !scanner.number(2, tm.tm_sec)) return false;
  return tm.tm_hour < 24 && tm.tm_min < 60 && tm.tm_sec < 60;
}

std::optional<LogDate> parsedCalendar(std::string_view text, LogDate now) {
  std::tm tm{};
  if (Scanner date(text); scanDate(date, tm)) {
    if (!date.isAtEnd() && !(date.mark(" T") && scanTime(date, tm) && date.isAtEnd())) {
      return std::nullopt;
    }
  } else {
    const std::time_t seconds = LogDate::clock::to_time_t(now);
    ::localtime_r(&seconds, &tm);
    tm.tm_sec = 0;
    Scanner time(text);
    if (!scanTime(time, tm) || !time.isAtEnd()) return std::nullopt;
  }
  tm.tm_isdst = -1;
  const std::time_t seconds = std::mktime(&tm);
  if (seconds == -1) return std::nullopt;
  return LogDate::clock::from_time_t(seconds);
}

std::optional<LogDate> parsedAge(std::string_view text, LogDate now) {
  constexpr std::string_view units = "smhd";
  constexpr std::array<std::int64_t, units.size()> seconds{1, 60, 3600, 86400};
  constexpr std::int64_t longest = 100'000;  // 273 years in days: no overflow
  std::int64_t count = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, count);
  if (error != std::errc() || stop + 1 != end || count < 0) return std::nullopt;
  const std::size_t unit = units.find(*stop);
  if (unit == std::string_view::npos || count > longest * 86400 / seconds.at(unit)) {
    return std::nullopt;
  }
  return now - std::chrono::seconds(count * seconds.at(unit));
}

}  // namespace

LogDate parsedMoment(const std::string& text, LogDate now) {
  if (const auto age = parsedAge(text, now)) return *age;
  if (const auto moment = parsedCalendar(text, now)) return *moment;
  throw UsageError(fmt::format("\"{}\" is not a time; write {}", text, momentHelp));
}

}  // namespace velumctl
