#include "Velum/Base/SystemError.h"

#include <cerrno>
#include <cstring>

namespace velum {
namespace {

bool isKnown(int code) noexcept {
  return ::strerrorname_np(code) != nullptr;
}

}  // namespace

const int SystemError::lastCode = EHWPOISON;

SystemError::SystemError(int code, std::string message)
    : std::runtime_error(message + ": " + systemErrorText(isKnown(code) ? code : lastCode)),
      code_(isKnown(code) ? code : lastCode),
      message_(std::move(message)) {}

SystemError lastSystemError(std::string message) {
  const int code = errno;  // read before anything can change it
  return {code, std::move(message)};
}

std::string systemErrorText(int code) {
  const char* const text = ::strerrordesc_np(code);
  return text != nullptr ? text : "Unknown error " + std::to_string(code);
}

}  // namespace velum
