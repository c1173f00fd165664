#include "Velum/PropertyList/DefaultsArguments.h"

#include "Velum/PropertyList/PropertyListText.h"

namespace velum {
namespace {

bool isKey(std::string_view argument) {
  return argument.size() > 1 && argument.starts_with('-') && !argument.starts_with("--");
}

/// A number, which may begin with a dash, or anything that does not.
bool isValue(std::string_view argument) {
  if (!argument.starts_with('-') || argument == "-") return true;
  const auto digit = argument.find_first_not_of("-.");
  return digit <= 2 && argument[digit] >= '0' && argument[digit] <= '9';
}

}  // namespace

PropertyList::Dictionary defaultsFromArguments(std::span<const std::string_view> arguments) {
  PropertyList::Dictionary entries;
  std::string_view key;
  for (const std::string_view argument : arguments) {
    if (!key.empty() && isValue(argument)) {
      entries.insert_or_assign(std::string(key), propertyListFromText(argument));
      key = {};
    } else {
      key = isKey(argument) ? argument.substr(1) : std::string_view();
    }
  }
  return entries;
}

}  // namespace velum
