#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace velum {

/// A failed system call: the POSIX error code and a message that names the routine and the call,
/// such as "rotateFileLk(), truncate (5[/var/log/name.log])". Thrown by file and process
/// operations. `what()` is the message, ": " and the system's text for the code.
class SystemError : public std::runtime_error {
 public:
  /// `code` is an errno value; one the system has no name for becomes `SystemError::lastCode`.
  SystemError(int code, std::string message);

  int code() const noexcept { return code_; }
  const std::string& message() const noexcept { return message_; }

  /// The largest errno value the system names; stands in for values it does not know.
  static const int lastCode;

 private:
  int code_;
  std::string message_;
};

/// Makes the error of a call that just failed, from `errno`.
SystemError lastSystemError(std::string message);

/// The system's text for an errno value, in the C locale: "No such file or directory".
/// Thread-safe, unlike strerror(3).
std::string systemErrorText(int code);

}  // namespace velum
