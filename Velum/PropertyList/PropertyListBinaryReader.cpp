#include <bit>
#include <cmath>

#include "Velum/Base/String.h"
#include "Velum/PropertyList/PropertyListFormats.h"

namespace velum::detail {
namespace {

using Limits = PropertyListLimits;

/// Thrown inside this file alone: half of the routines below would otherwise pass it on by hand.
struct Malformed {};

void require(bool condition) {
  if (!condition) throw Malformed{};
}

std::uint64_t bigEndian(std::string_view bytes) {
  std::uint64_t number = 0;
  for (const char byte : bytes) number = (number << 8U) | static_cast<unsigned char>(byte);
  return number;
}

void appendUtf8(std::string& out, std::uint32_t scalar) {
  const auto put = [&out](std::uint32_t byte) { out.push_back(static_cast<char>(byte)); };
  const auto putRest = [&](unsigned shift) { put(0x80U | ((scalar >> shift) & 0x3FU)); };
  if (scalar < 0x80) {
    put(scalar);
  } else if (scalar < 0x800) {
    put(0xC0U | (scalar >> 6U));
    putRest(0);
  } else if (scalar < 0x10000) {
    put(0xE0U | (scalar >> 12U));
    putRest(6);
    putRest(0);
  } else {
    put(0xF0U | (scalar >> 18U));
    putRest(12);
    putRest(6);
    putRest(0);
  }
}

/// A surrogate without its partner becomes U+FFFD.
std::string utf8FromUtf16(std::string_view units) {
  std::string text;
  text.reserve(units.size() / 2 * 3);  // the most it can take: what grows leaves copies behind
  for (std::size_t at = 0; at < units.size(); at += 2) {
    auto scalar = static_cast<std::uint32_t>(bigEndian(units.substr(at, 2)));
    if (scalar >= 0xD800 && scalar < 0xE000) {
      const std::string_view next = units.substr(at + 2, 2);  // `at` is never the end
      const auto low = static_cast<std::uint32_t>(bigEndian(next));
      const bool isPair = scalar < 0xDC00 && low >= 0xDC00 && low < 0xE000;
      scalar = isPair ? 0x10000 + ((scalar - 0xD800) << 10U) + (low - 0xDC00) : 0xFFFD;
      if (isPair) at += 2;
    }
    appendUtf8(text, scalar);
  }
  return text;
}

PropertyList::Date dateFromSecondsSince2001(double seconds) {
  require(seconds >= earliestSeconds &&
          seconds <= latestSeconds);  // also refuses what is no number
  if (seconds == earliestSeconds) return PropertyList::Date::min();
  if (seconds == latestSeconds) return PropertyList::Date::max();
  constexpr std::int64_t million = 1'000'000;
  const double floored = std::floor(seconds);
  auto rest = static_cast<std::int64_t>(std::round((seconds - floored) * 1e6));
  std::int64_t whole = static_cast<std::int64_t>(floored) + start2001.time_since_epoch().count();
  if (whole < 0) {  // towards the middle, so that the product does not overflow at the end
    ++whole;
    rest -= million;
  }
  return PropertyList::Date(std::chrono::microseconds(whole * million + rest));
}

class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {
    require(bytes.size() >= binaryPropertyListMagic.size() + binaryPropertyListTrailerSize);
    const auto trailer = bytes.substr(bytes.size() - binaryPropertyListTrailerSize);
    offsetWidth_ = static_cast<unsigned char>(trailer[6]);
    referenceWidth_ = static_cast<unsigned char>(trailer[7]);
    objectCount_ = bigEndian(trailer.substr(8, 8));
    topObject_ = bigEndian(trailer.substr(16, 8));
    tableOffset_ = bigEndian(trailer.substr(24, 8));

    const std::size_t end = bytes.size() - trailer.size();
    require(offsetWidth_ >= 1 && offsetWidth_ <= 8);
    require(referenceWidth_ >= 1 && referenceWidth_ <= 8);
    require(tableOffset_ > binaryPropertyListMagic.size() && tableOffset_ <= end);
    require(objectCount_ <= (end - tableOffset_) / offsetWidth_);
  }

  PropertyList root() { return object(topObject_, 0); }

 private:
  /// The part of an object after its marker.
  struct Cursor {
    std::size_t position;
    unsigned low;  // of the marker
  };

  /// `length` bytes of the object area from the cursor on, which moves past them.
  std::string_view take(Cursor& cursor, std::uint64_t length) const {
    require(length <= tableOffset_ - cursor.position);
    const auto part = bytes_.substr(cursor.position, length);
    cursor.position += part.size();
    return part;
  }

  /// A shared object is read anew each time something refers to it, so the cost is counted here,
  /// not by the size of the document. A cycle ends at the depth limit.
  void spend(std::size_t cost) {
    require(cost <= budget_);
    budget_ -= cost;
  }

  PropertyList object(std::uint64_t number, unsigned depth) {
    spend(Limits::perObject);
    return paidObject(number, depth);
  }

  PropertyList paidObject(std::uint64_t number, unsigned depth) {
    require(number < objectCount_);
    const std::uint64_t offset =
        bigEndian(bytes_.substr(tableOffset_ + number * offsetWidth_, offsetWidth_));
    require(offset >= binaryPropertyListMagic.size() && offset < tableOffset_);
    const auto marker = static_cast<unsigned char>(bytes_[offset]);
    return content(static_cast<BinaryMarker>(marker >> 4U), {offset + 1, marker & 0xFU}, depth);
  }

  PropertyList content(BinaryMarker type, Cursor cursor, unsigned depth) {
    switch (type) {
      case BinaryMarker::boolean:
        require(cursor.low == 8 || cursor.low == 9);
        return PropertyList(cursor.low == 9);
      case BinaryMarker::integer:
        return integer(cursor);
      case BinaryMarker::real:
        return PropertyList(real(cursor));
      case BinaryMarker::date:
        require(cursor.low == 3);
        return PropertyList(dateFromSecondsSince2001(real(cursor)));
      case BinaryMarker::data: {
        const auto part = take(cursor, length(cursor));
        spend(part.size());
        return PropertyList(PropertyList::Data(part.begin(), part.end()));
      }
      case BinaryMarker::ascii:
      case BinaryMarker::utf16:
        return PropertyList(text(type, cursor));
      case BinaryMarker::array:
        return array(cursor, depth);
      case BinaryMarker::dictionary:
        return dictionary(cursor, depth);
    }
    throw Malformed{};  // null, sets and the identifiers of archives are no property-list values
  }

  /// Up to 4 bytes are unsigned, 8 are signed, 16 hold what needs 65 bits: the unsigned ones.
  PropertyList integer(Cursor& cursor) const {
    require(cursor.low <= 4);
    auto bytes = take(cursor, std::uint64_t{1} << cursor.low);
    const std::uint64_t high = bytes.size() == 16 ? bigEndian(bytes.substr(0, 8)) : 0;
    if (bytes.size() == 16) bytes.remove_prefix(8);
    const std::uint64_t low = bigEndian(bytes);
    const auto asSigned = static_cast<std::int64_t>(low);
    const bool isWide = cursor.low == 4;
    if (isWide && high == 0 && asSigned < 0) return PropertyList(low);
    require(!isWide || high == (asSigned < 0 ? ~std::uint64_t{0} : 0));
    return PropertyList(asSigned);
  }

  double real(Cursor& cursor) const {
    require(cursor.low == 2 || cursor.low == 3);
    const std::uint64_t bits = bigEndian(take(cursor, std::uint64_t{1} << cursor.low));
    return cursor.low == 2
               ? static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits)))
               : std::bit_cast<double>(bits);
  }

  /// The length of data, text (in units) or a container (in entries).
  std::uint64_t length(Cursor& cursor) const {
    if (cursor.low != 0xF) return cursor.low;
    const auto marker = static_cast<unsigned char>(take(cursor, 1)[0]);
    require(static_cast<BinaryMarker>(marker >> 4U) == BinaryMarker::integer);
    require((marker & 0xFU) <= 3);
    const std::uint64_t count = bigEndian(take(cursor, std::uint64_t{1} << (marker & 0xFU)));
    require(count <= bytes_.size());  // keeps the products below in range
    return count;
  }

  std::string text(BinaryMarker type, Cursor cursor) {
    const std::uint64_t units = length(cursor);
    const auto part = take(cursor, type == BinaryMarker::utf16 ? units * 2 : units);
    spend(part.size());
    if (type == BinaryMarker::utf16) return utf8FromUtf16(part);
    require(isValidUtf8(part));  // some writers put any UTF-8 text here
    return std::string(part);
  }

  std::string key(std::uint64_t number) {
    auto value = object(number, Limits::depth);  // at the limit: a container is no key
    auto* const name = std::get_if<std::string>(&value.value);
    require(name != nullptr);
    return std::move(*name);
  }

  /// The number of the object that the `index`th reference names.
  std::uint64_t reference(std::string_view references, std::uint64_t index) const {
    return bigEndian(references.substr(index * referenceWidth_, referenceWidth_));
  }

  PropertyList array(Cursor cursor, unsigned depth) {
    require(depth < Limits::depth);
    const std::uint64_t count = length(cursor);
    const auto references = take(cursor, count * referenceWidth_);
    spend(count * Limits::perObject);  // before there is room for them: the count is a mere claim
    PropertyList::Array values;
    values.reserve(count);  // short texts that moved would be left in freed memory
    for (std::uint64_t index = 0; index < count; ++index) {
      values.push_back(paidObject(reference(references, index), depth + 1));
    }
    return PropertyList(std::move(values));
  }

  PropertyList dictionary(Cursor cursor, unsigned depth) {
    require(depth < Limits::depth);
    const std::uint64_t count = length(cursor);
    const auto keys = take(cursor, count * referenceWidth_);
    const auto values = take(cursor, count * referenceWidth_);
    PropertyList::Dictionary entries;
    for (std::uint64_t index = 0; index < count; ++index) {
      auto name = key(reference(keys, index));
      entries.insert_or_assign(std::move(name), object(reference(values, index), depth + 1));
    }
    return PropertyList(std::move(entries));
  }

  std::string_view bytes_;
  std::size_t offsetWidth_ = 0;
  std::size_t referenceWidth_ = 0;
  std::uint64_t objectCount_ = 0;
  std::uint64_t topObject_ = 0;
  std::uint64_t tableOffset_ = 0;  // where the objects end and their offsets begin
  std::size_t budget_ = Limits::expandedSize;
};

}  // namespace

std::optional<PropertyList> readBinaryPropertyList(std::string_view bytes) {
  try {
    return Reader(bytes).root();
  } catch (const Malformed&) {
    return std::nullopt;
  }
}

}  // namespace velum::detail
