#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Velum/Platform/CertificateStore.h"

namespace velum {

/// The certificates that the administrator added to those which the machine's programs trust: the
/// files *.crt of a folder, and the tool that makes lists of them. Changes in several processes
/// exclude each other. Operations throw CertificateFailure and SystemError.
class MachineCertificates {
 public:
  /// `root` is the system's root folder, empty for this machine's; `updater` the tool's path.
  MachineCertificates(std::string root, std::string updater);

  /// /usr/local/share/ca-certificates.
  const std::string& folder() const noexcept { return folder_; }

  /// What is in the folder. Files of others count too: their label is the path below the folder
  /// without ".crt".
  std::vector<CertificateItem> certificates() const;

  /// Adds a file of mode 0644 and runs the tool. When that fails, or what it makes does not hold
  /// the certificate, the file goes again. What a killed process began, the same call completes.
  void add(const SecCertificate& certificate, const std::string& label) const;
  /// Removes the files of that label and runs the tool; when that fails, or does nothing, they
  /// come back. So do those that a killed process was removing, which may be trusted still.
  void remove(const std::string& label) const;

  /// Whether the machine's programs trust it, as a certificate of the distribution's for instance.
  bool isTrusted(const SecCertificate& certificate) const;

 private:
  struct File;
  enum class Update : bool { added, removed };

  std::vector<File> files() const;
  void update(Update kind) const;
  void run(Update kind) const;
  bool listsAny() const;

  std::string root_;
  std::string updater_;
  std::string folder_;
  std::string distributed_;  // the distribution's certificates
  std::string lists_;        // where the tool links to all that are trusted
  std::string bundle_;       // all trusted certificates in one file
};

}  // namespace velum
