#pragma once

#include <string_view>

namespace velum {

/// False when the path alone says that a program is no bundle's main one, as it does of nearly
/// every process. Costs nothing.
bool isInProgramFolder(std::string_view executable) noexcept;

}  // namespace velum
