#pragma once

#include <functional>

namespace velum::test {

/// For programs that are linked with the source of this name in the system's folder.
/// Called before a file takes the name `target` beside others: made under no name or a hidden one.
extern std::function<void(const char* target)> onNaming;
/// Called each time that a file's lock is refused.
extern std::function<void()> onRefusal;

}  // namespace velum::test
