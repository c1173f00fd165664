#pragma once

#include <string_view>

#include "Velum/PropertyList/PropertyList.h"

namespace velum {

/// The value that a user means who types `text`, on a command line for instance: XML, or
///
///     (a, "b c")    {key = value;}    <0fbd77>    "a \"quoted\" text"
///
/// that is arrays, dictionaries, data and text, whose words need no quotes when they are made of
/// letters, digits and "_$/:.-". A backslash gives n, r and t their usual meanings and every other
/// character its own. What is none of these is a text as it stands: numbers and flags are text too.
PropertyList propertyListFromText(std::string_view text);

}  // namespace velum
