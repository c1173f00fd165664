#pragma once

#include <stdexcept>

namespace velum {

/// Why stored content could not be read or written; `what()` is a text for the log, without any
/// of the content. When read: it is damaged.
class StorageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The content is there but can't be had now: a locked keychain, a service that does not answer, a
/// file that can't be opened. Whoever sees it must not put something new in its place.
class StorageUnavailable : public StorageError {
 public:
  using StorageError::StorageError;
};

/// A record of the failure stands in the log already.
class StorageErrorLogged : public StorageError {
 public:
  using StorageError::StorageError;
};

}  // namespace velum
