#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/PropertyList/PropertyList.h"

namespace velum::detail {

/// What one property list may cost its reader. Documents come from anywhere, so each limit holds
/// before the memory or the stack is used: 300 crafted bytes can name terabytes, and 100,000 levels
/// overflow the stack of whoever walks or frees them.
struct PropertyListLimits {
  static constexpr std::size_t size = std::size_t{16} << 20U;  ///< Bytes of the document.
  static constexpr unsigned depth = 512;                       ///< Arrays and dictionaries nested.
  /// Bytes of the values read: `perObject` each time an object is reached (a shared one counts
  /// every time) and the content of its text or data.
  static constexpr std::size_t expandedSize = std::size_t{32} << 20U;
  static constexpr std::size_t perObject = 64;
  static constexpr std::size_t objects = expandedSize / perObject;
};

/// Reads the binary format. Every offset, count and reference is checked against the document.
std::optional<PropertyList> readBinaryPropertyList(std::string_view bytes);

/// Reads an XML document in UTF-8, whatever encoding it claims. Nothing when it is malformed,
/// declares entities, or exceeds the limits.
std::optional<PropertyList> readXmlPropertyList(std::string_view text);

/// Bytes that the content of `text` takes in the binary format.
std::size_t binaryTextSize(std::string_view text);

/// Writes the binary format. Text that is not UTF-8 is repaired. The content is written to one
/// piece of memory, the result's: whoever must not leave copies of it has only that to wipe.
std::string writeBinaryPropertyList(const PropertyList& root);
/// The same; nothing when the result would exceed the limits.
std::optional<std::string> writeReadableBinaryPropertyList(const PropertyList& root);

/// First bytes of the binary format, and its last 32: the widths, counts and offsets below.
constexpr std::string_view binaryPropertyListMagic = "bplist00";
constexpr std::size_t binaryPropertyListTrailerSize = 32;

/// The high four bits of an object's first byte.
enum class BinaryMarker : unsigned char {
  boolean = 0x0,  // low bits: 8 false, 9 true; null and fill bytes have other low bits
  integer = 0x1,  // low bits of integer and real: log2 of the size in bytes
  real = 0x2,
  date = 0x3,  // a real of 8 bytes: seconds since 2001
  data = 0x4,  // low bits from here on: the length, or 15 and an integer object follows
  ascii = 0x5,
  utf16 = 0x6,
  array = 0xA,
  dictionary = 0xD,
};

/// Dates count seconds from this moment.
constexpr std::chrono::sys_seconds start2001 =
    std::chrono::sys_days{std::chrono::year{2001} / 1 / 1};

/// A date as the binary format has it. Whole seconds and the rest apart: a date that was read is
/// the same when it is written and read again, however far away it is.
constexpr double secondsSince2001(PropertyList::Date date) {
  constexpr std::int64_t million = 1'000'000;
  const std::int64_t count = date.time_since_epoch().count();
  const bool isBefore = count % million < 0;  // as std::chrono::floor, which overflows at the end
  const std::int64_t whole = count / million - (isBefore ? 1 : 0);
  const std::int64_t rest = count % million + (isBefore ? million : 0);
  return static_cast<double>(whole - start2001.time_since_epoch().count()) +
         static_cast<double>(rest) / 1e6;
}

/// What a written date can be. The numbers next to the ends stand for the ends, which have none of
/// their own.
constexpr double earliestSeconds = secondsSince2001(PropertyList::Date::min());
constexpr double latestSeconds = secondsSince2001(PropertyList::Date::max());

}  // namespace velum::detail
