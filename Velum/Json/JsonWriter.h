#pragma once

#include <concepts>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/Base/RawValue.h"

namespace velum {

/// Writes one JSON object straight into a text, its members in the order of the calls, without
/// blanks, its texts in the form of appendJsonString. For records with known keys, which need no
/// tree of values. Throws std::invalid_argument for a text that is no UTF-8; what is in the text
/// then is of no use.
class JsonObjectWriter {
 public:
  explicit JsonObjectWriter(std::string& out) : out_(out) { out_.push_back('{'); }

  /// Keys are the program's own, and stand as they are.
  void add(std::string_view key, std::string_view text);
  /// Nothing that only converts to a truth value, as a pointer to a text does.
  void add(std::string_view key, std::same_as<bool> auto value) {
    addKey(key);
    out_.append(value ? "true" : "false");
  }
  /// A case of an enumeration is its text.
  template <class Enumeration, auto = RawValues<Enumeration>::texts.size()>
  void add(std::string_view key, Enumeration value) {
    add(key, rawValue(value));
  }
  /// Nothing when the value is absent.
  template <class Value>
  void add(std::string_view key, const std::optional<Value>& value) {
    if (value) add(key, *value);
  }
  /// An object whose members `write(JsonObjectWriter&)` adds.
  template <class Write>
  void addObject(std::string_view key, Write write) {
    addKey(key);
    JsonObjectWriter object(out_);
    write(object);
    object.finish();
  }
  /// Call once, at the end.
  void finish() { out_.push_back('}'); }

 private:
  void addKey(std::string_view key);

  std::string& out_;
  bool isFirst_ = true;
};

}  // namespace velum
