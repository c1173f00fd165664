#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velum {

/// The header fields of a request or response, in order; names compare without regard to case.
/// A name may occur more than once, as Set-Cookie does.
class HTTPHeaders {
 public:
  using Field = std::pair<std::string, std::string>;

  HTTPHeaders() = default;
  HTTPHeaders(std::initializer_list<Field> fields) : fields_(fields) {}

  /// Replaces every field of that name; its place is that of the first.
  void set(std::string_view name, std::string value);
  void add(std::string name, std::string value);
  void clear() noexcept { fields_.clear(); }

  /// The value of the first field of that name.
  std::optional<std::string_view> value(std::string_view name) const noexcept;

  bool empty() const noexcept { return fields_.empty(); }
  auto begin() const noexcept { return fields_.begin(); }
  auto end() const noexcept { return fields_.end(); }
  bool operator==(const HTTPHeaders&) const = default;

 private:
  std::vector<Field> fields_;
};

}  // namespace velum
