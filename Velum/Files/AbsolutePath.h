#pragma once

#include <filesystem>
#include <string>
#include <system_error>

namespace velum {

/// `path` from the root on, its links left as they are, for whoever uses it from another working
/// folder. As it is when it is empty, or this process's working folder is gone.
inline std::string absolutePath(const std::string& path) {
  std::error_code error;
  const std::filesystem::path result = std::filesystem::absolute(path, error);
  return error ? path : result.native();
}

}  // namespace velum
