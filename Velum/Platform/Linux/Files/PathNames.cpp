#include "Velum/Platform/Linux/Files/PathNames.h"

#include <unistd.h>

#include <array>
#include <climits>

namespace velum {

std::string_view lastName(std::string_view path) noexcept {
  const std::string_view name = path.substr(path.find_last_of('/') + 1);
  return name == "." || name == ".." ? std::string_view() : name;
}

std::string_view folderAbove(std::string_view path) noexcept {
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string_view::npos) return ".";
  const std::size_t end = path.find_last_not_of('/', slash);
  return end == std::string_view::npos ? "/" : path.substr(0, end + 1);
}

std::string pathIn(const std::string& folder, std::string_view name) {
  std::string path = folder;
  if (!path.ends_with('/')) path += '/';
  return path += name;
}

std::string takeName(std::string& path) {
  std::string name;
  do {
    path.erase(0, path.find_first_not_of('/'));
    name = path.substr(0, path.find('/'));
    path.erase(0, name.size());
  } while (name == ".");
  path.erase(0, path.find_first_not_of('/'));
  return name;
}

std::optional<std::string> linkTarget(const std::string& path) {
  std::array<char, PATH_MAX> target;  // NOLINT(*-member-init): set by the call
  const ssize_t size = ::readlink(path.c_str(), target.data(), target.size());
  if (size <= 0) return std::nullopt;
  return std::string(target.data(), static_cast<std::size_t>(size));
}

}  // namespace velum
