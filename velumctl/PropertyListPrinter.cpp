#include "velumctl/PropertyListPrinter.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <iterator>
#include <string_view>

#include "Velum/Base/String.h"

namespace velumctl {
namespace {

using velum::PropertyList;
using velum::SecretText;

// A fraction of a second is shown only where there is one.
std::string dateText(PropertyList::Date date, const char* separator, const char* zone) {
  // The calendar's years are 16 bits wide; it is the same every 400 years.
  constexpr std::chrono::days era(146'097);
  const auto day = std::chrono::floor<std::chrono::days>(date);
  const auto eras = day.time_since_epoch() / era;
  const std::chrono::year_month_day calendar(day - eras * era);
  const std::chrono::hh_mm_ss time(date - day);
  std::string text =
      fmt::format("{:04}-{:02}-{:02}{}{:02}:{:02}:{:02}", int{calendar.year()} + 400 * eras,
                  unsigned{calendar.month()}, unsigned{calendar.day()}, separator,
                  time.hours().count(), time.minutes().count(), time.seconds().count());
  if (time.subseconds().count() != 0) text += fmt::format(".{:06}", time.subseconds().count());
  return text + zone;
}

// Appends both forms, with the same walk.
class Printer {
 public:
  explicit Printer(SecretText& out) : out_(out) {}
  Printer(const Printer&) = delete;
  Printer& operator=(const Printer&) = delete;
  virtual ~Printer() = default;

  void print(const PropertyList& value) {
    std::visit([this](const auto& content) { put(content); }, value.value);
  }

 protected:
  virtual void put(const bool& value) = 0;
  virtual void put(const std::int64_t& value) { append(fmt::format("{}", value)); }
  virtual void put(const std::uint64_t& value) { append(fmt::format("{}", value)); }
  virtual void put(const double& value) = 0;
  virtual void put(const std::string& value) = 0;
  virtual void put(const PropertyList::Date& value) = 0;
  virtual void put(const PropertyList::Data& value) = 0;
  virtual void put(const PropertyList::Array& value) = 0;
  virtual void put(const PropertyList::Dictionary& value) = 0;

  void append(std::string_view text) { out_.append(text); }
  void append(char c) { out_.push_back(c); }

 private:
  SecretText& out_;
};

class PlainPrinter final : public Printer {
 public:
  using Printer::Printer;

 private:
  void put(const bool& value) override { append(value ? '1' : '0'); }
  void put(const double& value) override { append(fmt::format("{}", value)); }
  void put(const PropertyList::Date& value) override {
    append('"');
    append(dateText(value, " ", " +0000"));
    append('"');
  }

  void put(const PropertyList::Data& value) override {
    append('<');
    for (const std::uint8_t byte : value) append(fmt::format("{:02x}", byte));
    append('>');
  }

  void put(const std::string& value) override {
    const auto isWord = [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
             std::string_view("_$/:.-").find(c) != std::string_view::npos;
    };
    if (!value.empty() && std::ranges::all_of(value, isWord)) {
      append(value);
      return;
    }
    append('"');
    for (const char c : value) {
      if (c == '"' || c == '\\') append('\\');
      append(c);
    }
    append('"');
  }

  void put(const PropertyList::Array& value) override {
    putBlock('(', ')', value, [this](const PropertyList& element) {
      print(element);
      append(",");
    });
  }

  void put(const PropertyList::Dictionary& value) override {
    putBlock('{', '}', value, [this](const auto& entry) {
      put(entry.first);
      append(" = ");
      print(entry.second);
      append(";");
    });
  }

  template <class Container, class PutElement>
  void putBlock(char opening, char closing, const Container& elements, PutElement putElement) {
    append(opening);
    ++depth_;
    for (const auto& element : elements) {
      lineFeed();
      putElement(element);
    }
    --depth_;
    if (!elements.empty()) lineFeed();
    append(closing);
  }

  void lineFeed() {
    append('\n');
    append(std::string(std::size_t{4} * depth_, ' '));
  }

  unsigned depth_ = 0;
};

class JsonValuePrinter final : public Printer {
 public:
  using Printer::Printer;

 private:
  void put(const bool& value) override { append(value ? "true" : "false"); }
  void put(const double& value) override {
    append(std::isfinite(value) ? fmt::format("{}", value) : "null");
  }
  void put(const PropertyList::Date& value) override {
    append('"');
    append(dateText(value, "T", "Z"));
    append('"');
  }

  void put(const PropertyList::Data& value) override {
    constexpr std::string_view digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    append('"');
    for (std::size_t at = 0; at < value.size(); at += 3) {
      const std::size_t count = std::min<std::size_t>(3, value.size() - at);
      std::uint32_t bits = 0;
      for (std::size_t i = 0; i < 3; ++i) bits = (bits << 8U) | (i < count ? value[at + i] : 0U);
      for (unsigned i = 0; i < 4; ++i) {
        append(i <= count ? digits[(bits >> (18 - 6 * i)) & 63U] : '=');
      }
    }
    append('"');
  }

  void put(const std::string& value) override {
    append('"');
    for (const char c : value) {
      if (c == '"' || c == '\\') append('\\');
      if (static_cast<unsigned char>(c) < ' ') {
        append(fmt::format("\\u{:04x}", static_cast<unsigned>(c)));
      } else {
        append(c);
      }
    }
    append('"');
  }

  void put(const PropertyList::Array& value) override {
    append('[');
    bool isFirst = true;
    for (const PropertyList& element : value) {
      if (!std::exchange(isFirst, false)) append(',');
      print(element);
    }
    append(']');
  }

  void put(const PropertyList::Dictionary& value) override {
    append('{');
    bool isFirst = true;
    for (const auto& [key, entry] : value) {
      if (!std::exchange(isFirst, false)) append(',');
      put(key);
      append(':');
      print(entry);
    }
    append('}');
  }
};

}  // namespace

SecretText plainText(const PropertyList& value) {
  SecretText out;
  if (const auto* text = value.get<std::string>()) {
    out.append(*text);
  } else {
    PlainPrinter(out).print(value);
  }
  return out;
}

SecretText jsonText(const PropertyList& value) {
  SecretText out;
  JsonValuePrinter(out).print(value);
  return out;
}

}  // namespace velumctl
