#pragma once

#include <string>

#include "Velum/Json/Json.h"
#include "Velum/PropertyList/PropertyList.h"

namespace velumctl {

/// The value as people write it, the form that propertyListFromText reads: text in quotes where it
/// needs them, flags as 1 and 0, dates as "2026-11-21 09:00:00 +0000", data as <0fbd77>; arrays and
/// dictionaries over several lines. A text that is the whole value comes as it stands.
velum::SecretText plainText(const velum::PropertyList& value);

/// The value as JSON, on one line: dates as "2026-11-21T09:00:00Z", data as base64, numbers that
/// are none as null.
velum::SecretText jsonText(const velum::PropertyList& value);

}  // namespace velumctl
