#include <algorithm>
#include <bit>
#include <limits>
#include <map>
#include <type_traits>

#include "Velum/Platform/PropertyListFormats.h"
#include "Velum/String.h"

namespace velum::detail {
namespace {

/// The fewest bytes (1, 2, 4 or 8) that hold `number`, as a power of two.
unsigned widthExponent(std::uint64_t number) {
  if (number <= std::numeric_limits<std::uint8_t>::max()) return 0;
  if (number <= std::numeric_limits<std::uint16_t>::max()) return 1;
  return number <= std::numeric_limits<std::uint32_t>::max() ? 2 : 3;
}

void appendBigEndian(std::string& out, std::uint64_t number, std::size_t width) {
  for (std::size_t left = width; left-- > 0;) {
    out.push_back(static_cast<char>(left < 8 ? number >> (left * 8) : 0));
  }
}

void appendMarker(std::string& out, BinaryMarker type, unsigned low) {
  out.push_back(static_cast<char>((static_cast<unsigned>(type) << 4U) | low));
}

void appendUnsigned(std::string& out, std::uint64_t number) {
  const unsigned exponent = widthExponent(number);
  appendMarker(out, BinaryMarker::integer, exponent);
  appendBigEndian(out, number, std::size_t{1} << exponent);
}

void appendLength(std::string& out, BinaryMarker type, std::size_t length) {
  appendMarker(out, type, length < 0xF ? static_cast<unsigned>(length) : 0xFU);
  if (length >= 0xF) appendUnsigned(out, length);
}

void append(std::string& out, bool value) {
  appendMarker(out, BinaryMarker::boolean, value ? 9 : 8);
}

/// Negative numbers always take 8 bytes: shorter ones are read as unsigned.
void append(std::string& out, std::int64_t value) {
  appendUnsigned(out, static_cast<std::uint64_t>(value));
}

void append(std::string& out, std::uint64_t value) {
  if (value <= std::uint64_t{std::numeric_limits<std::int64_t>::max()}) {
    appendUnsigned(out, value);
    return;
  }
  appendMarker(out, BinaryMarker::integer, 4);
  appendBigEndian(out, value, 16);
}

void append(std::string& out, double value) {
  appendMarker(out, BinaryMarker::real, 3);
  appendBigEndian(out, std::bit_cast<std::uint64_t>(value), 8);
}

void append(std::string& out, PropertyList::Date value) {
  const double seconds = std::chrono::duration<double>(value.time_since_epoch()).count();
  appendMarker(out, BinaryMarker::date, 3);
  appendBigEndian(out, std::bit_cast<std::uint64_t>(seconds - secondsFrom1970To2001), 8);
}

void append(std::string& out, const PropertyList::Data& value) {
  appendLength(out, BinaryMarker::data, value.size());
  out.append(value.begin(), value.end());
}

/// Well-formed UTF-8 as UTF-16 units.
std::u16string utf16(std::string_view text) {
  std::u16string units;
  for (std::size_t at = 0; at < text.size();) {
    const auto lead = static_cast<unsigned char>(text[at]);
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    std::uint32_t scalar = length == 1 ? lead : lead & (0x7FU >> length);
    for (const char next : text.substr(at + 1, length - 1)) {
      scalar = (scalar << 6U) | (static_cast<unsigned char>(next) & 0x3FU);
    }
    if (scalar >= 0x10000) {
      units.push_back(static_cast<char16_t>(0xD800 + ((scalar - 0x10000) >> 10U)));
      scalar = 0xDC00 + (scalar & 0x3FFU);
    }
    units.push_back(static_cast<char16_t>(scalar));
    at += length;
  }
  return units;
}

void append(std::string& out, std::string_view text) {
  const auto isAscii = [](char unit) { return static_cast<unsigned char>(unit) < 0x80; };
  if (std::all_of(text.begin(), text.end(), isAscii)) {
    appendLength(out, BinaryMarker::ascii, text.size());
    out.append(text);
    return;
  }
  const std::u16string units = utf16(repairedUtf8(text));
  appendLength(out, BinaryMarker::utf16, units.size());
  for (const char16_t unit : units) appendBigEndian(out, unit, 2);
}

/// Numbers the objects in a first pass, because the width of a reference depends on their count,
/// and writes them in a second. Equal keys are one object.
class Writer {
 public:
  std::string write(const PropertyList& root) {
    number(root);
    referenceWidth_ = std::size_t{1} << widthExponent(objectCount_);
    out_ = binaryPropertyListMagic;
    nextNumber_ = 0;
    offsets_.resize(objectCount_);
    emit(root);
    for (const auto& [key, number] : keys_) {
      offsets_[number] = out_.size();
      append(out_, key);
    }
    appendTable();
    return std::move(out_);
  }

 private:
  /// Values come first, in the order of a walk; the keys follow them.
  void number(const PropertyList& root) {
    count(root);
    for (auto& [key, number] : keys_) number = objectCount_++;
  }

  void count(const PropertyList& value) {
    ++objectCount_;
    if (const auto* array = value.get<PropertyList::Array>()) {
      for (const auto& element : *array) count(element);
    } else if (const auto* dictionary = value.get<PropertyList::Dictionary>()) {
      for (const auto& [key, element] : *dictionary) {
        keys_.try_emplace(key, 0);
        count(element);
      }
    }
  }

  /// Writes `value`, then what it contains, and returns its number.
  std::uint64_t emit(const PropertyList& value) {
    const std::uint64_t number = nextNumber_++;
    offsets_[number] = out_.size();
    if (const auto* array = value.get<PropertyList::Array>()) {
      appendLength(out_, BinaryMarker::array, array->size());
      std::size_t reference = reserveReferences(array->size());
      for (const auto& element : *array) putReference(reference, emit(element));
    } else if (const auto* dictionary = value.get<PropertyList::Dictionary>()) {
      appendLength(out_, BinaryMarker::dictionary, dictionary->size());
      std::size_t keyReference = reserveReferences(dictionary->size());
      std::size_t reference = reserveReferences(dictionary->size());
      for (const auto& [key, element] : *dictionary) {
        putReference(keyReference, keys_.at(key));
        putReference(reference, emit(element));
      }
    } else {
      emitScalar(value);
    }
    return number;
  }

  void emitScalar(const PropertyList& scalar) {
    std::visit(
        [this](const auto& value) {
          using Type = std::decay_t<decltype(value)>;
          constexpr bool isContainer = std::is_same_v<Type, PropertyList::Array> ||
                                       std::is_same_v<Type, PropertyList::Dictionary>;
          if constexpr (!isContainer) append(out_, value);
        },
        scalar.value);
  }

  std::size_t reserveReferences(std::size_t count) {
    const std::size_t position = out_.size();
    out_.resize(position + count * referenceWidth_);
    return position;
  }

  /// Fills the reference at `position`, which moves to the next.
  void putReference(std::size_t& position, std::uint64_t number) {
    std::string reference;
    appendBigEndian(reference, number, referenceWidth_);
    out_.replace(position, referenceWidth_, reference);
    position += referenceWidth_;
  }

  void appendTable() {
    const std::size_t tableOffset = out_.size();
    const std::size_t offsetWidth = std::size_t{1} << widthExponent(tableOffset);
    for (const std::uint64_t offset : offsets_) appendBigEndian(out_, offset, offsetWidth);
    out_.append(6, '\0');
    out_.push_back(static_cast<char>(offsetWidth));
    out_.push_back(static_cast<char>(referenceWidth_));
    appendBigEndian(out_, objectCount_, 8);
    appendBigEndian(out_, 0, 8);  // the root's number
    appendBigEndian(out_, tableOffset, 8);
  }

  std::string out_;
  std::map<std::string_view, std::uint64_t> keys_;
  std::vector<std::uint64_t> offsets_;
  std::uint64_t objectCount_ = 0;
  std::uint64_t nextNumber_ = 0;
  std::size_t referenceWidth_ = 0;
};

}  // namespace

std::string writeBinaryPropertyList(const PropertyList& root) {
  return Writer().write(root);
}

}  // namespace velum::detail
