#pragma once

#include <stdexcept>

namespace velumctl {

/// A command line that makes no sense; exit status 2. The text is one line that says what to do.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A command that could not be done; exit status 1. The text is one line that says what to do.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace velumctl
