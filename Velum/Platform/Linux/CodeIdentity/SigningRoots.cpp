#include "Velum/Platform/Linux/CodeIdentity/SigningRoots.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/ReadFile.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Linux/CodeIdentity/CodeRefused.h"

namespace velum {
namespace {

using Certificate = std::unique_ptr<X509, void (*)(X509*)>;

/// Adds what a PEM text holds; its error, or nothing.
const char* addCertificates(X509_STORE* store, const std::string& text) {
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(
      BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free);
  if (!bio) throw std::bad_alloc();
  for (bool isFirst = true;; isFirst = false) {
    const Certificate certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr),
                                  X509_free);
    if (!certificate) {
      const bool isEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
      return !isEnd ? "is damaged" : isFirst ? "holds no certificate" : nullptr;
    }
    if (X509_STORE_add_cert(store, certificate.get()) != 1) throw std::bad_alloc();
  }
}

}  // namespace

// With a slash or "/." behind its name, a link to a folder would be followed.
SigningRoots::SigningRoots(std::string folder) : folder_(std::move(folder)) {
  while (folder_.size() > 1 && (folder_.ends_with('/') || folder_.ends_with("/."))) {
    folder_.pop_back();
  }
}

bool SigningRoots::Entry::operator==(const Entry& other) const noexcept {
  return file == other.file && size == other.size && changed.tv_sec == other.changed.tv_sec &&
         changed.tv_nsec == other.changed.tv_nsec && name == other.name;
}

SigningRoots::Entry SigningRoots::entry(const std::string& name, const struct stat& status) {
  return {name, FileIdentity::of(status), status.st_size, status.st_ctim};
}

void SigningRoots::refuse(const std::string& name, const std::string& why) const {
  throw CodeRefused("the code-signing roots can't be used: " + folder_ + (name.empty() ? "" : "/") +
                    name + ' ' + why);
}

void SigningRoots::requireOurs(const struct stat& status, const std::string& name) const {
  const bool isOurs = status.st_uid == 0 || status.st_uid == ::geteuid();
  if (!isOurs || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    refuse(name, "may be written by other users");
  }
}

/// Without a look at the names: the folder's own entry is another one when they change.
bool SigningRoots::isUnchanged(int folder, const Listing& listing) {
  return std::all_of(listing.begin(), listing.end(), [folder](const Entry& known) {
    struct stat status {};
    return ::fstatat(folder, known.name.c_str(), &status, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH) ==
               0 &&
           entry(known.name, status) == known;
  });
}

SigningRoots::Listing SigningRoots::list(int folder) const {
  struct stat status {};
  if (::fstat(folder, &status) != 0) refuse("", "can't be read: " + systemErrorText(errno));
  requireOurs(status, "");
  Listing listing{entry("", status)};

  UniqueFd reader(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, int (*)(DIR*)> names(::fdopendir(reader.get()), ::closedir);
  if (!names) refuse("", "can't be read: " + systemErrorText(errno));
  static_cast<void>(reader.release());  // closed with the names
  for (errno = 0; const dirent* found = ::readdir(names.get()); errno = 0) {
    const std::string_view name(found->d_name);
    if (name.starts_with('.') || !name.ends_with(".pem")) continue;
    if (listing.size() > maximumFiles) refuse("", "holds more than 1000 certificate files");
    if (::fstatat(folder, found->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      refuse(std::string(name), "can't be read: " + systemErrorText(errno));
    }
    listing.push_back(entry(std::string(name), status));
  }
  if (errno != 0) refuse("", "can't be read: " + systemErrorText(errno));
  if (listing.size() == 1) refuse("", "contains no *.pem file");
  std::sort(listing.begin() + 1, listing.end(),
            [](const Entry& one, const Entry& other) { return one.name < other.name; });
  return listing;
}

std::string SigningRoots::fileText(int folder, const std::string& name) const {
  const UniqueFd file(retryInterrupted([&] {
    return ::openat(folder, name.c_str(),
                    O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  }));
  struct stat status {};
  if (!file && errno == ELOOP) refuse(name, "is a symbolic link");
  if (!file || ::fstat(file.get(), &status) != 0) {
    refuse(name, "can't be read: " + systemErrorText(errno));
  }
  requireOurs(status, name);
  auto text = readRegularFile(file.get(), maximumFileSize);
  if (!text) refuse(name, "can't be read: " + systemErrorText(errno));
  return *std::move(text);
}

std::shared_ptr<X509_STORE> SigningRoots::read(int folder, const Listing& listing) const {
  std::shared_ptr<X509_STORE> store(X509_STORE_new(), X509_STORE_free);
  if (!store) throw std::bad_alloc();
  for (const Entry& file : listing) {
    if (file.name.empty()) continue;  // the folder itself
    const char* const error = addCertificates(store.get(), fileText(folder, file.name));
    if (error != nullptr) refuse(file.name, error);
  }
  return store;
}

/// Whether a change from now on shows: the kernel's clock of files stands still for some
/// milliseconds, in which a second change looks like the first.
bool SigningRoots::isSettled(const Listing& listing) {
  constexpr std::time_t margin = 2;  // seconds
  const std::time_t now = std::time(nullptr);
  return std::all_of(listing.begin(), listing.end(),
                     [now](const Entry& file) { return file.changed.tv_sec < now - margin; });
}

std::shared_ptr<X509_STORE> SigningRoots::load() {
  const UniqueFd folder(retryInterrupted(
      [&] { return ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
  if (!folder && errno == ENOENT) refuse("", "is missing");
  if (!folder && errno == ENOTDIR) refuse("", "is not a folder, or it is a symbolic link");
  if (!folder) refuse("", "can't be read: " + systemErrorText(errno));

  const auto known = [this] {
    const std::lock_guard guard(lock_);
    return loaded_;
  }();
  // What was loaded before a fork holds locks of the parent's threads.
  if (known && known->forkGeneration == forkGeneration() &&
      isUnchanged(folder.get(), known->listing)) {
    return known->store;
  }
  Listing listing = list(folder.get());
  auto store = read(folder.get(), listing);
  auto loaded = std::make_shared<const Loaded>(Loaded{std::move(listing), store, forkGeneration()});
  if (isSettled(loaded->listing)) {
    const std::lock_guard guard(lock_);
    loaded_.swap(loaded);  // the former one is freed without the lock
  }
  return store;
}

}  // namespace velum
