#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Velum/Platform/CertificateStore.h"
#include "Velum/Platform/Linux/Certificates/Trust.h"

namespace velum {

/// An open NSS database. One at a time in this process: making a second waits for the first to go.
/// Only the objects of this database are looked at and changed, whatever else uses NSS in the
/// process. Operations throw CertificateFailure.
class NssDatabase {
 public:
  enum class Access : bool { read, write };

  /// Opens the database and has `use` work with it. When another program is at it, that is tried
  /// again for some seconds, from the start; the failure then names who.
  static void with(const std::string& folder, Access access,
                   const std::function<void(NssDatabase&)>& use);

  /// Whether there is a database in the folder.
  static bool isIn(const std::string& folder);

  /// Opens the database, which `Access::write` makes when it is missing; the folder must exist.
  /// Waits until the deadline while another process of ours has it open.
  NssDatabase(const std::string& folder, Access access,
              std::chrono::steady_clock::time_point deadline);
  NssDatabase(const NssDatabase&) = delete;
  NssDatabase& operator=(const NssDatabase&) = delete;
  ~NssDatabase();

  std::vector<CertificateItem> certificates() const;
  void add(const SecCertificate& certificate, const std::string& label);
  /// Removes the certificates of that label with what is thought of them.
  void remove(const std::string& label);

  /// All unknown when nothing is stored.
  TrustByUse trust(const SecCertificate& certificate) const;
  void setTrust(const SecCertificate& certificate, const TrustByUse& trust);

 private:
  class Session;

  bool has(const SecCertificate& certificate) const;

  std::unique_ptr<Session> session_;
};

}  // namespace velum
