#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Platform/CertificateStore.h"

namespace velum {

/// The certificates that the administrator added to those which the machine's programs trust: the
/// files *.crt of a folder, and the tool that makes lists of them. Changes in several processes
/// exclude each other, by the lock of a file that nobody else may open. Operations throw
/// CertificateFailure and SystemError.
class MachineCertificates {
 public:
  /// What is waited for at most.
  struct Limits {
    std::chrono::nanoseconds lock = std::chrono::seconds(30);
    /// The tool, which takes some seconds. It is then ended.
    std::chrono::nanoseconds tool = std::chrono::minutes(2);
  };

  /// `root` is the system's root folder, empty for this machine's; `updater` the tool's path.
  MachineCertificates(std::string root, std::string updater, const Limits& limits);

  /// /usr/local/share/ca-certificates.
  const std::string& folder() const noexcept { return folder_; }

  /// What is in the folder. Files of others count too: their label is the path below the folder
  /// without ".crt". Links to folders are not followed.
  std::vector<CertificateItem> certificates() const;

  /// Adds a file of mode 0644 and runs the tool. When that fails, or what it makes does not hold
  /// the certificate, the file goes again, the tool is run once more, and the failure says so when
  /// the certificate may be trusted still. What a killed process began, the same call completes.
  void add(const SecCertificate& certificate, const std::string& label) const;
  /// Removes the files of that label and runs the tool; when that fails, or does nothing, they
  /// come back in the same way. So do those that a killed process was removing, which may be
  /// trusted still.
  void remove(const std::string& label) const;

  /// Whether the machine's programs trust it, as a certificate of the distribution's for instance.
  bool isTrusted(const SecCertificate& certificate) const;

 private:
  struct File;
  enum class Update : bool { added, removed };

  std::vector<File> files() const;
  void update(Update kind) const;
  void run(Update kind) const;
  std::vector<std::string> arguments(Update kind) const;
  bool listsAny() const;
  [[noreturn]] void failTakenBack(const CertificateStatus& why, Update back,
                                  const std::vector<SecCertificate>& certificates) const;

  std::string root_;
  std::string updater_;
  Limits limits_;
  std::string folder_;
  std::string distributed_;  // the distribution's certificates
  std::string lists_;        // where the tool links to all that are trusted
  std::string bundle_;       // all trusted certificates in one file
};

}  // namespace velum
