#include <cerrno>

#include "Velum/Base/SystemError.h"
#include "Velum/Platform/SecretStatus.h"

namespace velum {

std::optional<std::string> secretErrorText(SecretStatus status) {
  switch (status) {
    case errSecSuccess:
      return "No error.";
    case errSecUnimplemented:
      return "Function or operation not implemented.";
    case errSecIO:
      return "I/O error.";
    case errSecParam:
      return "One or more parameters passed to a function were not valid.";
    case errSecNoTrustSettings:
      return "No trust settings were found.";
    case errSecNoSuchKeychain:
      return "The specified keychain could not be found.";
    case errSecUserCanceled:
      return "User canceled the operation.";
    case errSecNotAvailable:
      return "The secret store is not available.";
    case errSecDuplicateItem:
      return "The specified item already exists in the keychain.";
    case errSecItemNotFound:
      return "The specified item could not be found in the keychain.";
    case errSecInteractionNotAllowed:
      return "The keychain is locked and user interaction is not allowed.";
    case errSecDecode:
      return "Unable to decode the provided data.";
    case errSecInvalidData:
      return "The data is invalid.";
    case errSecTimedOut:
      return systemErrorText(ETIMEDOUT);
    default:
      break;
  }
  const int code = status - errSecErrnoBase;
  if (code <= 0 || code > SystemError::lastCode) return std::nullopt;
  return systemErrorText(code);
}

}  // namespace velum
