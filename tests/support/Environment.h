#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace velum::test {

/// Sets or (with nothing) removes an environment variable until the end of the scope.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* const before = std::getenv(name)) before_ = before;
    assign(value);
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;
  ~ScopedVariable() { assign(before_); }

 private:
  void assign(const std::optional<std::string>& value) const {
    if (value) {
      ::setenv(name_, value->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }

  const char* name_;
  std::optional<std::string> before_;
};

}  // namespace velum::test
