#pragma once

#include <memory>
#include <string>

#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Files/AtomicFile.h"
#include "Velum/KeyChainData.h"
#include "Velum/KeyStorage.h"

namespace velum {

/// A key storage in a file that is sealed with AES-256-GCM (see SealedBox) under a key of its own,
/// which is kept elsewhere, usually in the keychain. The file is replaced as a whole and is on the
/// disk when a write returns; mode 0600. Its folder must exist.
///
/// A file without its key is worthless, so it is deleted when the storage is made and the key is
/// known to be missing; the next write makes a new key. Both happen under the lock of path +
/// ".lock", so that storages made at once, in any processes, get one key and lose no file. A key
/// that can't be read now is another matter: reading and writing then fail, and nothing is lost.
/// Others may replace both: the key is read again before a file counts as damaged, and before a
/// file that is not the one last seen is replaced.
///
/// A file that was changed by anybody else is refused as damaged: the storage begins empty, and the
/// file stays until the next write, which keeps it as path + ".damaged".
class SecureStorage final : public KeyStorageBase {
 public:
  SecureStorage(std::shared_ptr<KeyChainDataProtocol> storageKey, std::string path,
                double writeDelay);
  SecureStorage(const SecureStorage&) = delete;
  SecureStorage& operator=(const SecureStorage&) = delete;
  ~SecureStorage() override;

  const std::string& path() const noexcept { return file_.path(); }

  /// Whether the file is another one than it was when it was last read or written. One lstat(2).
  bool isOutdated() const override;

  /// Deletes the file; what is in memory stays, and so does the key. A failure is logged, a missing
  /// file is none.
  void deleteData() override;

 protected:
  std::optional<SecretBytes> loadData() override;
  void storeData(std::string_view bytes) override;

 private:
  class KeyTurn;

  std::optional<SecretBytes> readContent();
  std::optional<std::string> readBox() const;
  SecretBytes keyForWriting();
  SecretResult makeKey();
  std::optional<FileStamp> seen() const;
  void setSeen(std::optional<FileStamp> stamp);

  const std::shared_ptr<KeyChainDataProtocol> storageKey_;
  const AtomicFile file_;
  mutable ForkSafeLock lock_{ForkSafeLock::Stage::leaf};
  std::optional<FileStamp> seen_;  // guarded by `lock_`; nothing: the file was never looked at
};

}  // namespace velum
