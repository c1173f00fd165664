#pragma once

#include <openssl/types.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Files/FileIdentity.h"

namespace velum {

/// The authorities whose certificates make a code signature count: the self-signed certificates in
/// the files *.pem of one folder. Other files are left alone.
///
/// One unsound file makes the whole folder unusable, so that a mistake shows at once. Folder and
/// files must belong to root or to this user, and nobody else may write them (not even a group);
/// neither the folder nor a file may be a symbolic link. The folders above are the administrator's
/// affair.
class SigningRoots final {
 public:
  static constexpr std::size_t maximumFileSize = std::size_t{1} << 20U;
  static constexpr std::size_t maximumFiles = 1000;

  explicit SigningRoots(std::string folder);

  /// The certificates as the folder holds them now; read again only when it or one of its files
  /// has changed. Throws CodeRefused. Any thread.
  std::shared_ptr<X509_STORE> load();

 private:
  /// What tells one state of the folder from another: the kernel sets a file's ctime anew with
  /// every change of its content, owner or mode, and nobody else can.
  struct Entry {
    std::string name;
    FileIdentity file;
    off_t size = 0;
    timespec changed{};

    bool operator==(const Entry& other) const noexcept;
  };
  using Listing = std::vector<Entry>;  // the folder itself first, without a name
  struct Loaded {
    Listing listing;
    std::shared_ptr<X509_STORE> store;
    unsigned forkGeneration = 0;
  };

  static bool isUnchanged(int folder, const Listing& listing);
  Listing list(int folder) const;
  std::shared_ptr<X509_STORE> read(int folder, const Listing& listing) const;
  std::string fileText(int folder, const std::string& name) const;
  [[noreturn]] void refuse(const std::string& name, const std::string& why) const;
  void requireOurs(const struct stat& status, const std::string& name) const;
  static Entry entry(const std::string& name, const struct stat& status);
  static bool isSettled(const Listing& listing);

  std::string folder_;
  ForkSafeLock lock_{ForkSafeLock::Stage::leaf};
  std::shared_ptr<const Loaded> loaded_;  // guarded by the lock
};

}  // namespace velum
