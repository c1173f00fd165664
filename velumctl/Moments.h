#pragma once

#include <string>

#include "Velum/Logger/LogHandler.h"

namespace velumctl {

/// What may be written for a moment, for help texts.
inline constexpr const char* momentHelp =
    "\"2026-11-21 09:00[:00]\", \"2026-11-21\", \"09:00[:00]\" (today), or how long ago: "
    "\"30s\", \"10m\", \"2h\", \"3d\"";

/// The moment a user means by `text`, in local time, seen from `now`. Throws UsageError for any
/// other text and for dates that do not exist.
velum::LogDate parsedMoment(const std::string& text, velum::LogDate now);

}  // namespace velumctl
