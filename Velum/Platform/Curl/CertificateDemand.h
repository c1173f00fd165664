#pragma once

#include <curl/curl.h>

#include <memory>

namespace velum {

/// Whether a server asked for a certificate of the client's, which it is never given. One that
/// insists closes the connection right after the handshake; whether its reason is read before our
/// request fails to be sent is a race. One thread, that of the transfer.
class CertificateDemand {
 public:
  /// Listens to the transfer's handshakes.
  void noticeIn(CURL* transfer);
  /// The server answers all the same.
  void withdraw() noexcept { *isMade_ = false; }
  bool isMade() const noexcept { return *isMade_; }

 private:
  // Shared with the connections, which outlive the transfer.
  std::shared_ptr<bool> isMade_ = std::make_shared<bool>(false);
};

}  // namespace velum
