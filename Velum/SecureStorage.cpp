#include "Velum/SecureStorage.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <mutex>

#include "Velum/Base/ByteView.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Files/LockedFile.h"
#include "Velum/Files/ReadFile.h"
#include "Velum/KeyChain.h"
#include "Velum/Logger/DeferredLog.h"
#include "Velum/Logger/Logger.h"
#include "Velum/PropertyList/PropertyListFormats.h"
#include "Velum/Sealing/SealedBox.h"
#include "Velum/Sealing/StorageError.h"

namespace velum {
namespace {

constexpr std::string_view sourceFile = "Velum/SecureStorage";
constexpr std::size_t maximumFileSize = detail::PropertyListLimits::size + SealedBox::overhead;

[[noreturn]] void throwKeyUnavailable(SecretStatus status) {
  throw StorageUnavailable("The key can't be read: " + secretStatusText(status));
}

std::optional<SecretBytes> opened(const std::string& box, const SecretResult& key) {
  if (key.status == errSecSuccess) return SealedBox(key.data).open(byteView(box));
  logWarning({sourceFile, "loadData()"}, "No secure key found");
  if (key.status != errSecItemNotFound) throwKeyUnavailable(key.status);
  return std::nullopt;
}

}  // namespace

/// Excludes all others, in any process, who make the key or throw the file away for want of it.
class SecureStorage::KeyTurn {
 public:
  explicit KeyTurn(const std::string& path)
      : lock_([&] { return open(path + ".lock"); }, std::chrono::seconds(5)) {
    if (!lock_) {
      throw StorageUnavailable(path + ".lock is kept locked by another process");
    }
  }

 private:
  static UniqueFd open(const std::string& path) {
    constexpr mode_t ownerOnly = 0600;
    return checked::open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK, ownerOnly,
                         "SecureStorage");
  }

  LockedFile lock_;
};

SecureStorage::SecureStorage(std::shared_ptr<KeyChainDataProtocol> storageKey, std::string path,
                             double writeDelay)
    : KeyStorageBase("SecureStorage:" + path, writeDelay),
      storageKey_(std::move(storageKey)),
      file_(std::move(path)) {
  constexpr LogSite site{sourceFile, "init(storageKey:url:writeDelay:)"};
  if (storageKey_->read().status != errSecItemNotFound) return;
  logDebug(site, "Storage Key doesn't exist.");
  if (::access(this->path().c_str(), F_OK) != 0 && errno == ENOENT) return;
  std::string failure;
  try {
    const DeferredLog log;
    const KeyTurn turn(this->path());
    // Another process may have made both since.
    if (storageKey_->readAgain().status == errSecItemNotFound) ::unlink(this->path().c_str());
  } catch (const std::exception& error) {  // the next one does it
    failure = error.what();
  }
  if (!failure.empty()) logError(site, "The file without a key stays: {}", failure);
}

SecureStorage::~SecureStorage() {
  finish();
}

std::optional<SecretBytes> SecureStorage::loadData() {
  logDebug({sourceFile, "loadData()"}, "Load from {}", path());
  const auto stamp = FileStamp::ofPath(path());  // before: what comes meanwhile is seen next time
  try {
    auto content = readContent();
    setSeen(stamp);
    return content;
  } catch (const StorageUnavailable&) {
    throw;
  } catch (const StorageError&) {
    setSeen(stamp);
    throw;
  }
}

std::optional<SecretBytes> SecureStorage::readContent() {
  auto box = readBox();
  if (!box) return std::nullopt;
  const SecretResult key = storageKey_->read();
  try {
    return opened(*box, key);
  } catch (const StorageUnavailable&) {
    throw;
  } catch (const StorageError&) {
    // Others may have replaced the key, and then the file, since the key was read.
    const SecretResult current = storageKey_->readAgain();
    if (current.status == errSecSuccess && current.data == key.data) throw;
    box = readBox();
    return box ? opened(*box, current) : std::nullopt;
  }
}

std::optional<std::string> SecureStorage::readBox() const {
  auto box = readRegularFile(path(), maximumFileSize, SymbolicLink::refuse);
  if (box) return box;
  const int error = errno;
  if (error == ENOENT) {
    logDebug({sourceFile, "loadData()"}, "File {} doesn't exist", path());
    return std::nullopt;
  }
  const std::string text = fmt::format("{}: {}", path(), systemErrorText(error));
  // What is no file of ours won't become one; else the content may be there another time.
  if (error == EFBIG || error == EINVAL || error == ELOOP) throw StorageError(text);
  throw StorageUnavailable(text);
}

void SecureStorage::storeData(std::string_view bytes) {
  constexpr std::string_view function = "storeData(_:)";
  logDebug({sourceFile, function}, "Write to {}", path());
  const SecretBytes key = keyForWriting();
  setSeen(file_.replace(SealedBox(key).seal(byteView(bytes)), function,
                        isDamaged() ? AtomicFile::Old::setAside : AtomicFile::Old::replaced));
}

/// The key in memory goes with the file that it opened or sealed. A new one is made only when there
/// is none: one that is merely out of reach still opens the file.
SecretBytes SecureStorage::keyForWriting() {
  const bool isOfFile = seen() && !isOutdated() && !isDamaged();
  SecretResult key = isOfFile ? storageKey_->read() : storageKey_->readAgain();
  if (key.status == errSecItemNotFound) key = makeKey();
  if (key.status != errSecSuccess) throwKeyUnavailable(key.status);
  return std::move(key.data);
}

/// What counts is the key that is kept in the end: somebody who knows nothing of the turn may have
/// been first, or last.
SecretResult SecureStorage::makeKey() {
  bool isStored = false;
  SecretResult kept;
  {
    const DeferredLog log;
    const KeyTurn turn(path());
    kept = storageKey_->readAgain();
    if (kept.status != errSecItemNotFound) return kept;
    isStored = storageKey_->store(SealedBox::newKey());
    kept = storageKey_->readAgain();
  }
  if (isStored || kept.status == errSecSuccess) return kept;
  const std::string text =
      "Failed to store the key for " + std::filesystem::path(path()).stem().string();
  logError({sourceFile, "storeData(_:)"}, "{}", text);
  throw StorageError(text);
}

bool SecureStorage::isOutdated() const {
  const auto known = seen();
  return known && FileStamp::ofPath(path()) != known;
}

std::optional<FileStamp> SecureStorage::seen() const {
  const std::lock_guard guard(lock_);
  return seen_;
}

/// What can't be seen is another one than the last.
void SecureStorage::setSeen(std::optional<FileStamp> stamp) {
  const std::lock_guard guard(lock_);
  if (stamp) seen_ = stamp;
}

void SecureStorage::deleteData() {
  if (::unlink(path().c_str()) != 0 && errno != ENOENT) {
    logError({sourceFile, "deleteData()"}, "Failed to delete {}: {}", path(),
             systemErrorText(errno));
  }
}

}  // namespace velum
