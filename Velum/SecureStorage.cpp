#include "Velum/SecureStorage.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "Velum/ByteView.h"
#include "Velum/KeyChain.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Posix/ReadFile.h"
#include "Velum/Platform/PropertyListFormats.h"
#include "Velum/SealedBox.h"
#include "Velum/StorageError.h"
#include "Velum/SystemError.h"

namespace velum {
namespace {

constexpr std::string_view sourceFile = "Velum/SecureStorage";
constexpr std::size_t maximumFileSize = detail::PropertyListLimits::size + SealedBox::overhead;

[[noreturn]] void throwKeyUnavailable(SecretStatus status) {
  throw StorageUnavailable("The key can't be read: " + KeyChain::statusText(status));
}

}  // namespace

SecureStorage::SecureStorage(std::shared_ptr<KeyChainDataProtocol> storageKey, std::string path,
                             double writeDelay)
    : KeyStorageBase("SecureStorage:" + path, writeDelay),
      storageKey_(std::move(storageKey)),
      file_(std::move(path)) {
  file_.removeLeftovers();
  if (storageKey_->read().status != errSecItemNotFound) return;
  logDebug({sourceFile, "init(storageKey:url:writeDelay:)"}, "Storage Key doesn't exist.");
  ::unlink(file_.path().c_str());
}

SecureStorage::~SecureStorage() {
  finish();
}

std::optional<SecretBytes> SecureStorage::loadData() {
  constexpr std::string_view function = "loadData()";
  logDebug({sourceFile, function}, "Load from {}", path());
  const auto box = readRegularFile(path(), maximumFileSize, SymbolicLink::refuse);
  if (!box) {
    const int error = errno;
    if (error == ENOENT) {
      logDebug({sourceFile, function}, "File {} doesn't exist", path());
      return std::nullopt;
    }
    const std::string text = fmt::format("{}: {}", path(), systemErrorText(error));
    // What is no file of ours won't become one; else the content may be there another time.
    if (error == EFBIG || error == EINVAL || error == ELOOP) throw StorageError(text);
    throw StorageUnavailable(text);
  }
  const SecretResult key = storageKey_->read();
  if (key.status != errSecSuccess) {
    logWarning({sourceFile, function}, "No secure key found");
    if (key.status != errSecItemNotFound) throwKeyUnavailable(key.status);
    return std::nullopt;
  }
  return SealedBox(key.data).open(byteView(*box));
}

void SecureStorage::storeData(std::string_view bytes) {
  constexpr std::string_view function = "storeData(_:)";
  logDebug({sourceFile, function}, "Write to {}", path());
  const SecretBytes key = keyForWriting();
  file_.replace(SealedBox(key).seal(byteView(bytes)), function);
}

/// A new key is made only when there is none: one that is merely out of reach still opens the file.
SecretBytes SecureStorage::keyForWriting() {
  SecretResult key = storageKey_->read();
  if (key.status == errSecSuccess) return std::move(key.data);
  if (key.status != errSecItemNotFound) throwKeyUnavailable(key.status);
  SecretBytes fresh = SealedBox::newKey();
  if (!storageKey_->store(fresh)) {
    const std::string text =
        "Failed to store the key for " + std::filesystem::path(path()).stem().string();
    logError({sourceFile, "storeData(_:)"}, "{}", text);
    throw StorageError(text);
  }
  return fresh;
}

void SecureStorage::deleteData() {
  if (::unlink(path().c_str()) != 0 && errno != ENOENT) {
    logError({sourceFile, "deleteData()"}, "Failed to delete {}: {}", path(),
             systemErrorText(errno));
  }
}

}  // namespace velum
