#include <algorithm>
#include <bit>
#include <limits>
#include <type_traits>
#include <unordered_map>

#include "Velum/Base/String.h"
#include "Velum/PropertyList/PropertyListFormats.h"

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
  appendMarker(out, BinaryMarker::date, 3);
  appendBigEndian(out, std::bit_cast<std::uint64_t>(secondsSince2001(value)), 8);
}

void append(std::string& out, const PropertyList::Data& value) {
  appendLength(out, BinaryMarker::data, value.size());
  out.append(value.begin(), value.end());
}

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char unit) { return static_cast<unsigned char>(unit) < 0x80; });
}

/// Hands the UTF-16 units of well-formed UTF-8 to `take`.
template <class Take>
void forEachUtf16Unit(std::string_view text, Take take) {
  for (std::size_t at = 0; at < text.size();) {
    const auto lead = static_cast<unsigned char>(text[at]);
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    std::uint32_t scalar = length == 1 ? lead : lead & (0x7FU >> length);
    for (const char next : text.substr(at + 1, length - 1)) {
      scalar = (scalar << 6U) | (static_cast<unsigned char>(next) & 0x3FU);
    }
    if (scalar >= 0x10000) {
      take(0xD800U + ((scalar - 0x10000) >> 10U));
      scalar = 0xDC00U + (scalar & 0x3FFU);
    }
    take(scalar);
    at += length;
  }
}

std::size_t utf16Length(std::string_view text) {
  std::size_t length = 0;
  forEachUtf16Unit(text, [&](std::uint32_t) { ++length; });
  return length;
}

void append(std::string& out, std::string_view text) {
  if (isAscii(text)) {
    appendLength(out, BinaryMarker::ascii, text.size());
    out.append(text);
  } else if (isValidUtf8(text)) {
    appendLength(out, BinaryMarker::utf16, utf16Length(text));
    forEachUtf16Unit(text, [&](std::uint32_t unit) { appendBigEndian(out, unit, 2); });
  } else {
    append(out, std::string_view(repairedUtf8(text)));
  }
}

/// Numbers the objects in a first pass, because the width of a reference depends on their count,
/// and writes them in a second, into memory that was reserved for all of them. Equal keys are one
/// object.
class Writer {
 public:
  std::string write(const PropertyList& root) {
    measure(root, 0);
    return emitAll(root);
  }

  std::optional<std::string> writeReadable(const PropertyList& root) {
    checksLimits_ = true;
    measure(root, 0);
    if (exceedsLimits_) return std::nullopt;
    std::string bytes = emitAll(root);
    if (bytes.size() > PropertyListLimits::size) return std::nullopt;
    return bytes;
  }

 private:
  static constexpr std::size_t markerSize = 10;  // with the longest length

  void measure(const PropertyList& value, unsigned depth) {
    ++objectCount_;
    spend(PropertyListLimits::perObject);
    if (const auto* array = value.get<PropertyList::Array>()) {
      references_ += array->size();
      if (isTooDeep(depth)) return;
      for (const auto& element : *array) measure(element, depth + 1);
    } else if (const auto* dictionary = value.get<PropertyList::Dictionary>()) {
      references_ += 2 * dictionary->size();
      if (isTooDeep(depth)) return;
      for (const auto& [key, element] : *dictionary) {
        measureKey(key);
        measure(element, depth + 1);
      }
    } else if (const auto* text = value.get<std::string>()) {
      measureContent(binaryTextSize(*text));
    } else if (const auto* data = value.get<PropertyList::Data>()) {
      measureContent(data->size());
    }
  }

  void measureKey(std::string_view key) {
    const std::size_t size = binaryTextSize(key);
    spend(PropertyListLimits::perObject + size);
    if (!keys_.try_emplace(key, keyOrder_.size()).second) return;
    keyOrder_.push_back(key);
    contentSize_ += size;
  }

  void measureContent(std::size_t size) {
    contentSize_ += size;
    spend(size);
  }

  /// Counts as the reader will.
  void spend(std::size_t cost) {
    expandedSize_ += cost;
    if (expandedSize_ > PropertyListLimits::expandedSize) exceedsLimits_ = true;
  }

  /// Stops the walk in time: whoever checks the limits doesn't trust the depth.
  bool isTooDeep(unsigned depth) {
    if (depth >= PropertyListLimits::depth) exceedsLimits_ = true;
    return checksLimits_ && exceedsLimits_;
  }

  std::string emitAll(const PropertyList& root) {
    valueCount_ = objectCount_;
    objectCount_ += keyOrder_.size();  // the keys follow the values
    referenceWidth_ = std::size_t{1} << widthExponent(objectCount_);
    out_.reserve(binaryPropertyListMagic.size() + contentSize_ + references_ * referenceWidth_ +
                 objectCount_ * (markerSize + sizeof(std::uint64_t)) +
                 binaryPropertyListTrailerSize);
    out_ = binaryPropertyListMagic;
    offsets_.resize(objectCount_);
    emit(root);
    for (const auto key : keyOrder_) {
      offsets_[nextNumber_++] = out_.size();
      append(out_, key);
    }
    appendTable();
    return std::move(out_);
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
        putReference(keyReference, valueCount_ + keys_.at(key));
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
    for (std::size_t left = referenceWidth_; left-- > 0;) {
      out_[position++] = static_cast<char>(number >> (left * 8));
    }
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
  std::unordered_map<std::string_view, std::uint64_t> keys_;  // the place in keyOrder_
  std::vector<std::string_view> keyOrder_;
  std::vector<std::uint64_t> offsets_;
  std::uint64_t objectCount_ = 0;
  std::uint64_t valueCount_ = 0;
  std::uint64_t nextNumber_ = 0;
  std::size_t referenceWidth_ = 0;
  std::size_t references_ = 0;
  std::size_t contentSize_ = 0;
  std::size_t expandedSize_ = 0;
  bool checksLimits_ = false;
  bool exceedsLimits_ = false;
};

}  // namespace

std::size_t binaryTextSize(std::string_view text) {
  if (isAscii(text)) return text.size();
  return 2 * (isValidUtf8(text) ? utf16Length(text) : utf16Length(repairedUtf8(text)));
}

std::string writeBinaryPropertyList(const PropertyList& root) {
  return Writer().write(root);
}

std::optional<std::string> writeReadableBinaryPropertyList(const PropertyList& root) {
  return Writer().writeReadable(root);
}

}  // namespace velum::detail
