#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Velum/Files/TemporaryFolder.h"

namespace velum {

/// A locale whose characters are UTF-8, for a tool that would write other names where the machine
/// has none. Lives at least as long as the tool.
class Utf8Locale {
 public:
  Utf8Locale();

  /// What the tool's environment needs, NAME=value each; nothing where it can't be had.
  const std::vector<std::string>& variables() const noexcept { return variables_; }

 private:
  std::optional<TemporaryFolder> folder_;
  std::vector<std::string> variables_;
};

}  // namespace velum
