#include "Velum/Platform/Linux/MachineCertificates.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <utility>

#include "Velum/AtomicFile.h"
#include "Velum/FileUtils.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Linux/CertificatePlaceLinux.h"
#include "Velum/Platform/Posix/LockedFile.h"
#include "Velum/Platform/Posix/ReadFile.h"
#include "Velum/Process.h"
#include "Velum/String.h"
#include "Velum/SystemError.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view suffix = ".crt";  // the tool takes no others
constexpr char labelSeparator = '.';
constexpr std::size_t largestName = 220;  // bytes; leaves room for names of temporary files
constexpr std::size_t largestFile = std::size_t{16} << 20U;
constexpr mode_t everybodyReads = 0644;
constexpr mode_t everybodyLists = 0755;

std::vector<SecCertificate> certificatesIn(const std::string& path) {
  const auto content = readRegularFile(path, largestFile);
  if (!content) throw lastSystemError(fmt::format("read ({})", path));
  return SecCertificate::fromFile(byteView(*content));
}

/// Labels may hold what file names can't.
std::string fileName(const std::string& label, const SecCertificate& certificate) {
  std::string name = uniqueName(escapedUrlQueryParam(label), labelSeparator, certificate);
  name += suffix;
  if (name.size() > largestName) {
    throw CertificateFailure(errSecParam, "The name is too long to be a file's.");
  }
  return name;
}

std::string unescaped(std::string_view text) {
  const auto digit = [](char c) {
    return static_cast<unsigned>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
  };
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool isEscape = text[at] == '%' && text.size() - at > 2;
    result +=
        isEscape ? static_cast<char>(digit(text[at + 1]) << 4U | digit(text[at + 2])) : text[at];
    if (isEscape) at += 2;
  }
  return result;
}

/// `name` is the path below the folder.
std::string labelOfFile(std::string_view name, const SecCertificate& first) {
  name.remove_suffix(suffix.size());
  const std::string_view label = labelOf(name, labelSeparator, first);
  if (label.size() == name.size()) return std::string(name);
  return unescaped(label);
}

/// What the tool says on its error stream until it ends.
std::string errorsOf(const Process& tool, const Pipe& errors) {
  const UniqueFd ended = exitDescriptor(tool.processIdentifier());
  std::string text;
  for (bool isRunning = true; isRunning;) {
    std::array<pollfd, 2> ready{{{errors.readEnd(), POLLIN, 0}, {ended.get(), POLLIN, 0}}};
    retryInterrupted([&] { return ::poll(ready.data(), ready.size(), -1); });
    // Others may hold the stream for ever, so that what is there now is all.
    isRunning = ready[1].revents == 0;
    const std::size_t size = availableBytes(errors.readEnd());
    if (size == 0 && ready[0].revents != 0) break;
    std::string part(size, '\0');
    part.resize(checked::read(errors.readEnd(), part.data(), size, "errorsOf(_:)"));
    text += part;
  }
  return text;
}

/// The end of it, on one line.
std::string shortened(std::string text) {
  constexpr std::size_t most = 500;
  while (text.ends_with('\n')) text.pop_back();
  if (text.size() > most) text.replace(0, text.size() - most, "... ");
  std::ranges::replace(text, '\n', ' ');
  return repairedUtf8(text);
}

/// A file that was renamed so that the tool does not see it.
class Hidden {
 public:
  static constexpr std::string_view mark = ".removed";

  explicit Hidden(std::string path) : path_(std::move(path)), away_(path_ + std::string(mark)) {
    if (::rename(path_.c_str(), away_.c_str()) != 0) {
      throw lastSystemError(fmt::format("rename ({}, {})", path_, away_));
    }
  }
  Hidden(Hidden&& other) noexcept
      : path_(std::exchange(other.path_, {})), away_(std::exchange(other.away_, {})) {}
  Hidden& operator=(Hidden&&) = delete;
  Hidden(const Hidden&) = delete;
  Hidden& operator=(const Hidden&) = delete;
  ~Hidden() {
    if (away_.empty() || ::rename(away_.c_str(), path_.c_str()) == 0) return;
    logError({"MachineCertificates", "remove(_:)"}, "{} could not be brought back as {}: {}", away_,
             path_, systemErrorText(errno));
  }

  /// Brings back what killed processes hid below `folder`. Failures don't matter.
  static void restoreAll(const std::string& folder) {
    std::error_code error;
    fs::recursive_directory_iterator entry(folder, fs::directory_options::follow_directory_symlink,
                                           error);
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
      const std::string path = entry->path().string();
      const std::string before = path.substr(0, path.size() - std::min(path.size(), mark.size()));
      if (path.ends_with(mark) && before.ends_with(suffix)) {
        ::rename(path.c_str(), before.c_str());
      }
    }
  }

  void removeForGood() {
    if (::unlink(away_.c_str()) != 0) throw lastSystemError(fmt::format("unlink ({})", away_));
    away_.clear();
  }

 private:
  std::string path_;
  std::string away_;  // empty once there is nothing to bring back
};

/// Device and inode; nothing where there is no such file.
std::optional<std::pair<dev_t, ino_t>> identity(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0) return std::pair(status.st_dev, status.st_ino);
  if (errno == ENOENT) return std::nullopt;
  throw lastSystemError(fmt::format("stat ({})", path));
}

/// Held while the folder changes.
class FolderLock {
 public:
  explicit FolderLock(const std::string& folder)
      : lock_([&] { return checked::open(folder, O_RDONLY | O_DIRECTORY, 0, "FolderLock()"); }) {}

 private:
  LockedFile lock_;
};

}  // namespace

struct MachineCertificates::File {
  std::string path;
  std::string label;
  std::vector<SecCertificate> certificates;
};

MachineCertificates::MachineCertificates(std::string root, std::string updater)
    : root_(std::move(root)), updater_(std::move(updater)) {
  // The tool works in another folder.
  if (!root_.empty()) root_ = fs::absolute(root_).string();
  while (root_.ends_with('/')) root_.pop_back();
  folder_ = root_ + "/usr/local/share/ca-certificates";
  distributed_ = root_ + "/usr/share/ca-certificates";
  lists_ = root_ + "/etc/ssl/certs";
  bundle_ = lists_ + "/ca-certificates.crt";
}

std::vector<MachineCertificates::File> MachineCertificates::files() const {
  std::vector<File> files;
  std::error_code error;
  fs::recursive_directory_iterator entry;
  do {
    entry = fs::recursive_directory_iterator(
        folder_, fs::directory_options::follow_directory_symlink, error);
  } while (error == std::errc::interrupted);
  if (error.value() == ENOENT) return files;
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    const std::string path = entry->path().string();
    std::error_code ignored;
    if (!path.ends_with(suffix) || !entry->is_regular_file(ignored)) continue;
    auto certificates = certificatesIn(path);
    if (certificates.empty()) continue;
    std::string label = labelOfFile(path.substr(folder_.size() + 1), certificates.front());
    files.push_back({path, std::move(label), std::move(certificates)});
  }
  if (error) throw SystemError(error.value(), fmt::format("readdir ({})", folder_));
  std::ranges::sort(files, {}, &File::path);
  return files;
}

std::vector<CertificateItem> MachineCertificates::certificates() const {
  std::vector<CertificateItem> items;
  for (const File& file : files()) {
    for (const SecCertificate& one : file.certificates) items.push_back({file.label, one});
  }
  return items;
}

void MachineCertificates::add(const SecCertificate& certificate, const std::string& label) const {
  constexpr std::string_view caller = "addCertificate(_:named:toKeychain:)";
  const std::string path = folder_ + '/' + fileName(label, certificate);
  ::mkdir(folder_.c_str(), everybodyLists);  // what fails shows when it is opened
  const FolderLock lock(folder_);
  for (const CertificateItem& item : certificates()) {
    // With its file and without its place in the list, it is what a killed process began to add.
    const bool isBegun = item.label == label && !isTrusted(certificate);
    if (item.certificate == certificate && !isBegun) throw CertificateFailure(errSecDuplicateItem);
  }
  const AtomicFile file(path, everybodyReads);
  file.removeLeftovers();
  try {
    file.replace(certificate.pem(), caller);
    update(Update::added);
    if (!isTrusted(certificate)) {
      throw CertificateFailure(
          errSecIO, fmt::format("{} ended well, but {} is damaged or lacks the certificate",
                                updater_, bundle_));
    }
  } catch (...) {
    ::unlink(path.c_str());
    throw;
  }
}

void MachineCertificates::remove(const std::string& label) const {
  const FolderLock lock(folder_);
  Hidden::restoreAll(folder_);  // the machine's programs may still trust it
  std::vector<Hidden> hidden;
  for (const File& file : files()) {
    if (file.label == label) hidden.emplace_back(file.path);
  }
  if (hidden.empty()) throw CertificateFailure(errSecItemNotFound);
  update(Update::removed);
  for (Hidden& file : hidden) file.removeForGood();
}

bool MachineCertificates::isTrusted(const SecCertificate& certificate) const {
  const auto content = readRegularFile(bundle_, largestFile);
  if (!content && errno == ENOENT) return false;
  if (!content) throw lastSystemError(fmt::format("read ({})", bundle_));
  // One damaged certificate and nothing counts: programs then refuse the list as a whole.
  const auto trusted = SecCertificate::fromFile(byteView(*content));
  return std::ranges::find(trusted, certificate) != trusted.end();
}

/// The tool's word is not enough: versions that do not know an option print their usage and end
/// with 0.
void MachineCertificates::update(Update kind) const {
  const auto before = identity(bundle_);
  run(kind);
  if (identity(bundle_) != before) return;
  if (kind == Update::removed && !listsAny()) {
    // With nothing to put into a new list it leaves the old one, which must not stay.
    if (::unlink(bundle_.c_str()) == 0 || errno == ENOENT) return;
    throw lastSystemError(fmt::format("unlink ({})", bundle_));
  }
  throw CertificateFailure(errSecIO,
                           fmt::format("{} ended well, but made no new {}; install the package "
                                       "ca-certificates again, of Debian 12 or newer",
                                       updater_, bundle_));
}

/// Whether the tool still links to a certificate, so that its list can't be empty.
bool MachineCertificates::listsAny() const {
  std::error_code error;
  fs::directory_iterator entry(lists_, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    std::error_code noLink;
    const std::string target = fs::read_symlink(*entry, noLink).string();
    if (target.starts_with(folder_ + '/') || target.starts_with(distributed_ + '/')) return true;
  }
  if (error) throw SystemError(error.value(), fmt::format("readdir ({})", lists_));
  return false;
}

void MachineCertificates::run(Update kind) const {
  RunOptions options;
  options.errpipe = std::make_shared<Pipe>();
  if (!root_.empty()) {
    // All known to every version since Debian 12, unlike one option for the root.
    options.args = {"--certsconf",     root_ + "/etc/ca-certificates.conf",
                    "--certsdir",      distributed_,
                    "--localcertsdir", folder_,
                    "--etccertsdir",   lists_,
                    "--hooksdir",      root_ + "/etc/ca-certificates/update.d"};
  }
  // Else links to files that are gone stay, and hide other certificates of the same subject.
  if (kind == Update::removed) options.args.emplace_back("--fresh");
  const auto tool = Process::run(updater_, options);
  if (!tool) {
    throw CertificateFailure(
        errSecNotAvailable,
        fmt::format("{} can't be started; install the package ca-certificates", updater_));
  }
  const std::string errors = shortened(errorsOf(*tool, *options.errpipe));
  const Termination end = tool->waitUntilExit();
  if (end == Termination{}) return;
  const char* const how = end.reason == Termination::Reason::exit ? "status" : "signal";
  throw CertificateFailure(errSecIO, fmt::format("{} failed with {} {}{}{}", updater_, how,
                                                 end.status, errors.empty() ? "" : ": ", errors));
}

}  // namespace velum
