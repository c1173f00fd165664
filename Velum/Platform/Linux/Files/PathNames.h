#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velum {

/// The last name of a path without slashes at its end; empty when a folder's events never give it:
/// the root, "." and "..".
std::string_view lastName(std::string_view path) noexcept;
/// The folder that holds the last name: "/a" for "/a/b", "/" for "/a", "." for "a".
std::string_view folderAbove(std::string_view path) noexcept;
/// The path of a name in a folder.
std::string pathIn(const std::string& folder, std::string_view name);
/// Takes the first name from a path, and the slashes behind it; "." is passed over.
std::string takeName(std::string& path);
/// Where a symbolic link leads; nothing for anything else.
std::optional<std::string> linkTarget(const std::string& path);

}  // namespace velum
