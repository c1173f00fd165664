#include <expat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <exception>
#include <memory>
#include <new>
#include <random>
#include <type_traits>
#include <utility>
#include <vector>

#include "Velum/Base/LazyValue.h"
#include "Velum/Base/String.h"
#include "Velum/PropertyList/PropertyListFormats.h"

namespace velum::detail {
namespace {

using Limits = PropertyListLimits;

constexpr std::string_view blanks = " \t\r\n";

/// The whole of `text` as a number; nothing when it is none or does not fit.
template <class Number, class... Base>
std::optional<Number> number(std::string_view text, Base... base) {
  Number value{};
  const char* const last = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), last, value, base...);
  if (error != std::errc{} || end != last) return std::nullopt;
  return value;
}

std::optional<PropertyList> integerValue(std::string_view text) {
  const bool isNegative = text.starts_with('-');
  if (isNegative || text.starts_with('+')) text.remove_prefix(1);
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  if (isHex) text.remove_prefix(2);
  const auto magnitude = number<std::uint64_t>(text, isHex ? 16 : 10);
  if (!magnitude) return std::nullopt;
  constexpr auto mostNegative = std::uint64_t{1} << 63U;
  if (*magnitude < mostNegative || (isNegative && *magnitude == mostNegative)) {
    return PropertyList(static_cast<std::int64_t>(isNegative ? 0 - *magnitude : *magnitude));
  }
  if (isNegative) return std::nullopt;
  return PropertyList(*magnitude);
}

std::optional<PropertyList> realValue(std::string_view text) {
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) return std::nullopt;
  }
  const auto value = number<double>(text);
  if (!value) return std::nullopt;
  return PropertyList(*value);
}

std::optional<PropertyList> dateValue(std::string_view text) {
  constexpr std::string_view pattern = "dddd-dd-ddTdd:dd:ddZ";
  if (!std::equal(text.begin(), text.end(), pattern.begin(), pattern.end(),
                  [](char c, char p) { return p == 'd' ? c >= '0' && c <= '9' : c == p; })) {
    return std::nullopt;
  }
  const auto field = [text](std::size_t at, std::size_t size) {
    return *number<int>(text.substr(at, size));
  };
  using namespace std::chrono;  // NOLINT(google-build-using-namespace): the calendar's words
  const year_month_day day{year(field(0, 4)), month(static_cast<unsigned>(field(5, 2))),
                           std::chrono::day(static_cast<unsigned>(field(8, 2)))};
  const hours hour(field(11, 2));
  const minutes minute(field(14, 2));
  const seconds second(field(17, 2));
  constexpr seconds leapSecond(60);
  if (!day.ok() || hour >= hours(24) || minute >= minutes(60) || second > leapSecond) {
    return std::nullopt;
  }
  return PropertyList(PropertyList::Date(sys_days(day) + hour + minute + second));
}

std::optional<PropertyList> dataValue(std::string_view text) {
  constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  PropertyList::Data bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t group = 0;
  unsigned digits = 0;
  unsigned padding = 0;
  for (const char c : text) {
    if (blanks.find(c) != std::string_view::npos) continue;
    const auto digit = alphabet.find(c);
    const bool isPadding = c == '=' && digits % 4 >= 2;
    if (padding > 0 ? !isPadding : digit == std::string_view::npos && !isPadding) {
      return std::nullopt;
    }
    if (isPadding) ++padding;
    group = (group << 6U) | (isPadding ? 0 : static_cast<std::uint32_t>(digit));
    if (++digits % 4 != 0) continue;
    for (const unsigned shift : {16U, 8U, 0U}) bytes.push_back((group >> shift) & 0xFFU);
    group = 0;
  }
  if (digits % 4 != 0) return std::nullopt;
  bytes.resize(bytes.size() - padding);
  return PropertyList(std::move(bytes));
}

enum class Element : std::uint8_t {
  plist,
  dict,
  array,
  key,
  string,
  integer,
  real,
  yes,
  no,
  date,
  data,
};

std::optional<Element> elementNamed(std::string_view name) {
  constexpr std::array<std::string_view, 11> names{"plist",  "dict",    "array", "key",
                                                   "string", "integer", "real",  "true",
                                                   "false",  "date",    "data"};
  const auto* const found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) return std::nullopt;
  return static_cast<Element>(found - names.begin());
}

/// The value of an element that holds text.
std::optional<PropertyList> leafValue(Element element, std::string&& content) {
  switch (element) {
    case Element::string:
      return PropertyList(std::move(content));
    case Element::integer:
      return integerValue(trimmed(content));
    case Element::real:
      return realValue(trimmed(content));
    case Element::date:
      return dateValue(trimmed(content));
    case Element::data:
      return dataValue(content);
    case Element::yes:
    case Element::no:
      if (trimmed(content).empty()) return PropertyList(element == Element::yes);
      break;
    default:
      break;
  }
  return std::nullopt;
}

/// Against documents made to collide in the parser's tables. The parser alone would ask the system
/// for one with every document, also while an application waits to be opened.
unsigned long hashSalt() {
  static constinit LazyStatic<unsigned long> salt;
  return salt.get([] { return std::random_device()() | 1U; });  // 0 stands for none
}

/// Builds the value while the parser reads, so that what is checked and what is understood are the
/// same. Depth, number and size are bounded before anything is kept.
class Reader {
 public:
  Reader() : parser_(::XML_ParserCreate("UTF-8"), &::XML_ParserFree) {
    if (!parser_) throw std::bad_alloc();
    ::XML_SetHashSalt(parser_.get(), hashSalt());
    ::XML_SetUserData(parser_.get(), this);
    ::XML_SetElementHandler(
        parser_.get(),
        [](void* self, const char* name, const char** attributes) {
          of(self).guarded([&](Reader& reader) { return reader.start(name, *attributes); });
        },
        [](void* self, const char* /*name*/) {
          of(self).guarded([](Reader& reader) { return reader.end(); });
        });
    ::XML_SetCharacterDataHandler(parser_.get(), [](void* self, const char* text, int size) {
      of(self).guarded([&](Reader& reader) {
        return reader.text(std::string_view(text, static_cast<std::size_t>(size)));
      });
    });
    // An internal subset is where entities are declared; no property list needs one. What an
    // external one might declare is never fetched, so its entities are unknown.
    ::XML_SetStartDoctypeDeclHandler(
        parser_.get(), [](void* self, const char*, const char*, const char*, int hasSubset) {
          of(self).guarded([&](Reader&) { return hasSubset == 0; });
        });
    ::XML_SetSkippedEntityHandler(parser_.get(), [](void* self, const char*, int) {
      of(self).guarded([](Reader&) { return false; });
    });
  }

  std::optional<PropertyList> read(std::string_view text) {
    const auto status =
        ::XML_Parse(parser_.get(), text.data(), static_cast<int>(text.size()), XML_TRUE);
    if (failure_) std::rethrow_exception(failure_);
    if (status != XML_STATUS_OK) return std::nullopt;
    return std::move(root_);
  }

 private:
  struct Container {
    PropertyList value;
    std::optional<std::string> key;  // of a dictionary's next value
  };

  static Reader& of(void* self) { return *static_cast<Reader*>(self); }

  /// Stops the parser where `step` refuses or fails: exceptions can't cross it.
  template <class Step>
  void guarded(Step step) noexcept {
    if (isRefused_) return;  // it still delivers what it has read already
    try {
      isRefused_ = !step(*this);
    } catch (...) {
      failure_ = std::current_exception();
      isRefused_ = true;
    }
    if (isRefused_) ::XML_StopParser(parser_.get(), XML_FALSE);
  }

  bool start(std::string_view name, const char* attribute) {
    const auto element = elementNamed(name);
    if (!element || leaf_ || !spend(Limits::perObject)) return false;
    const bool isFirst = std::exchange(isFirst_, false);
    if (element == Element::plist) return isFirst;
    if (attribute != nullptr || !hasPlaceFor(*element)) return false;
    if (element != Element::dict && element != Element::array) {
      leaf_ = element;
      content_.clear();
      return true;
    }
    if (open_.size() >= Limits::depth) return false;
    open_.push_back({element == Element::dict ? PropertyList(PropertyList::Dictionary{})
                                              : PropertyList(PropertyList::Array{}),
                     {}});
    return true;
  }

  /// A dictionary takes a key and a value in turn, an array values, and the document one value:
  /// which of several was meant is not ours to guess.
  bool hasPlaceFor(Element element) const {
    const bool isKey = element == Element::key;
    if (open_.empty()) return !isKey && !root_;
    if (open_.back().value.get<PropertyList::Array>() != nullptr) return !isKey;
    return isKey != open_.back().key.has_value();
  }

  bool text(std::string_view text) {
    if (!leaf_) return trimmed(text).empty();
    content_ += text;
    return true;
  }

  bool end() {
    if (leaf_) {
      const Element leaf = *std::exchange(leaf_, std::nullopt);
      if (!spend(leaf == Element::data ? content_.size() / 4 * 3 : binaryTextSize(content_))) {
        return false;
      }
      if (leaf == Element::key) {
        open_.back().key = std::move(content_);
        return true;
      }
      auto value = leafValue(leaf, std::move(content_));
      return value && add(std::move(*value));
    }
    if (open_.empty()) return root_.has_value();  // the outermost element's
    if (open_.back().key) return false;
    PropertyList value = std::move(open_.back().value);
    open_.pop_back();
    return add(std::move(value));
  }

  bool add(PropertyList value) {
    if (open_.empty()) {
      root_ = std::move(value);
      return true;
    }
    std::visit(
        [&](auto& container) {
          using Type = std::decay_t<decltype(container)>;
          if constexpr (std::is_same_v<Type, PropertyList::Array>) {
            container.push_back(std::move(value));
          } else if constexpr (std::is_same_v<Type, PropertyList::Dictionary>) {
            container.insert_or_assign(*std::exchange(open_.back().key, std::nullopt),
                                       std::move(value));
          }
        },
        open_.back().value.value);
    return true;
  }

  /// As the binary reader counts, so that whatever is read here can be read when it was written.
  bool spend(std::size_t cost) {
    if (cost > budget_) return false;
    budget_ -= cost;
    return true;
  }

  std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&::XML_ParserFree)> parser_;
  std::vector<Container> open_;  // the containers around what comes next
  std::optional<Element> leaf_;  // the element whose text is being read
  std::string content_;
  std::optional<PropertyList> root_;
  std::size_t budget_ = Limits::expandedSize;
  bool isFirst_ = true;
  bool isRefused_ = false;
  std::exception_ptr failure_;
};

}  // namespace

std::optional<PropertyList> readXmlPropertyList(std::string_view text) {
  constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(byteOrderMark)) text.remove_prefix(byteOrderMark.size());
  // Blanks before the declaration are common, though no XML.
  const auto start = text.find_first_not_of(blanks);
  if (start == std::string_view::npos) return std::nullopt;
  return Reader().read(text.substr(start));
}

}  // namespace velum::detail
