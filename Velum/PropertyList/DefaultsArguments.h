#pragma once

#include <span>
#include <string_view>

#include "Velum/PropertyList/PropertyList.h"

namespace velum {

/// What a program's arguments, without its name, set for its settings: pairs "-key value", the
/// value as propertyListFromText reads it. An argument with two dashes is no key, one with a dash
/// no value, unless it is a number. Of equal keys the last counts.
PropertyList::Dictionary defaultsFromArguments(std::span<const std::string_view> arguments);

}  // namespace velum
