#pragma once

#include <openssl/crypto.h>

namespace velum::detail {

/// OpenSSL frees all it has in an exit handler of its own, under the feet of threads that still
/// work: a process that ended during an exchange, or while it wrote a sealed file, crashed. With
/// this as the first use of the library in the process it stays as it is until the process is gone.
///
/// An application that used it before us has its handler already. Exchanges are then stopped
/// through OPENSSL_atexit, which runs before anything is freed; another thread of ours that uses it
/// in the moment of the exit is not, and can still crash.
inline void keepOpenSsl() noexcept {
  static_cast<void>(OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr));
}

/// Before `main`, in every program that links one of the sources that include this.
inline const bool isOpenSslKept = (keepOpenSsl(), true);

}  // namespace velum::detail
