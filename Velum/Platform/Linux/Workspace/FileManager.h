#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velum {

/// Asks the desktop's file manager to show the files at these absolute paths, selected in their
/// folders. It is started where none runs. Nothing on success, else why not, for people; also when
/// `timeout` passes first. Blocks; any thread.
std::optional<std::string> showItems(const std::vector<std::string>& paths,
                                     std::chrono::microseconds timeout);

/// "file:///a%20b": the URI of an absolute path, whatever bytes it holds.
std::string fileUri(std::string_view path);

}  // namespace velum
