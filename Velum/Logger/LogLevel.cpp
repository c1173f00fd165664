#include "Velum/Logger/LogLevel.h"

#include <algorithm>
#include <array>

namespace velum {
namespace {

constexpr std::array<std::string_view, 5> names{"verbose", "debug", "info", "warning", "error"};

}  // namespace

std::optional<LogLevel> logLevel(std::string_view name) noexcept {
  const auto* const found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) return std::nullopt;
  return static_cast<LogLevel>(found - names.begin());
}

std::string_view description(LogLevel level) noexcept {
  return names.at(static_cast<std::size_t>(level));
}

}  // namespace velum
