#include "Velum/Platform/Linux/Certificates/MachineCertificates.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>

#include "Velum/Base/Deadline.h"
#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Base/Termination.h"
#include "Velum/Files/AbsolutePath.h"
#include "Velum/Files/AtomicFile.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Files/FileIdentity.h"
#include "Velum/Files/LockedFile.h"
#include "Velum/Files/ReadFile.h"
#include "Velum/Logger/DeferredLog.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/ChildIo.h"
#include "Velum/Platform/Linux/Certificates/CertificatePlace.h"
#include "Velum/Platform/Tool.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view suffix = ".crt";  // the tool takes no others
constexpr char labelSeparator = '.';
constexpr std::size_t largestName = 220;  // bytes; leaves room for names of temporary files
constexpr std::size_t largestFile = std::size_t{16} << 20U;
constexpr mode_t everybodyReads = 0644;
constexpr mode_t everybodyLists = 0755;
constexpr const char* lockFolder = "/run";

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

/// The end of it, on one line.
std::string shortened(std::string text) {
  constexpr std::size_t most = 500;
  while (text.ends_with('\n')) text.pop_back();
  if (text.size() > most) text.replace(0, text.size() - most, "... ");
  std::ranges::replace(text, '\n', ' ');
  return repairedUtf8(text);
}

/// What the tool says until it ends, on both streams: the end of it.
class ToolOutput {
 public:
  ToolOutput() : pipe_(makePipe()) {}

  int writer() const noexcept { return pipe_.writer.get(); }
  void closeWriter() noexcept { pipe_.writer.reset(); }
  int descriptor() const noexcept { return pipe_.reader.get(); }
  /// Reads once; see ReadOutput.
  std::size_t read(std::size_t limit) {
    constexpr std::size_t most = 4096;
    std::string part(std::min(limit, most), '\0');
    const ssize_t size =
        retryInterrupted([&] { return ::read(descriptor(), part.data(), part.size()); });
    if (size <= 0) return 0;
    part.resize(static_cast<std::size_t>(size));
    text_ += part;
    if (text_.size() > 2 * most) text_.erase(0, text_.size() - most);
    return part.size();
  }
  const std::string& text() const noexcept { return text_; }

 private:
  PipeEnds pipe_;
  std::string text_;
};

std::unique_ptr<Tool> start(const std::string& path, const std::vector<std::string>& arguments,
                            ToolOutput& output) {
  SpawnOptions options = toolOptions(path, arguments, std::nullopt);
  options.standardStreams = {SpawnOptions::nullDevice, output.writer(), output.writer()};
  try {
    auto tool = std::make_unique<Tool>(options);
    output.closeWriter();
    return tool;
  } catch (const SystemError& error) {
    throw CertificateFailure(errSecNotAvailable,
                             fmt::format("{} can't be started ({}); install the package "
                                         "ca-certificates",
                                         path, systemErrorText(error.code())));
  }
}

/// Nothing where there is no such file.
std::optional<FileIdentity> identity(const std::string& path) {
  const auto file = FileIdentity::ofPath(path);
  if (!file && errno != ENOENT) throw lastSystemError(fmt::format("stat ({})", path));
  return file;
}

/// Adds the paths of the regular files below a folder. Links to folders are not followed: what is
/// in this folder has a path without them, what is elsewhere is somebody else's.
void addFilesBelow(const std::string& folder, std::vector<std::string>& paths) {
  std::error_code error;
  fs::directory_iterator entry;
  do {
    entry = fs::directory_iterator(folder, error);
  } while (error == std::errc::interrupted);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    std::error_code leadsNowhere;
    const auto kind = entry->status(leadsNowhere).type();
    if (kind == fs::file_type::regular) paths.push_back(entry->path().string());
    const bool isOurs = kind == fs::file_type::directory && !entry->is_symlink(leadsNowhere);
    if (isOurs) addFilesBelow(entry->path().string(), paths);
  }
  if (error) throw SystemError(error.value(), fmt::format("readdir ({})", folder));
}

std::vector<std::string> filesBelow(const std::string& folder) {
  std::vector<std::string> paths;
  if (identity(folder)) addFilesBelow(folder, paths);
  return paths;
}

/// A file that was renamed so that the tool does not see it.
class SetAsideFile {
 public:
  static constexpr std::string_view mark = ".removed";

  explicit SetAsideFile(std::string path)
      : path_(std::move(path)), away_(path_ + std::string(mark)) {
    if (::rename(path_.c_str(), away_.c_str()) != 0) {
      throw lastSystemError(fmt::format("rename ({}, {})", path_, away_));
    }
  }
  SetAsideFile(SetAsideFile&& other) noexcept
      : path_(std::exchange(other.path_, {})), away_(std::exchange(other.away_, {})) {}
  SetAsideFile& operator=(SetAsideFile&&) = delete;
  SetAsideFile(const SetAsideFile&) = delete;
  SetAsideFile& operator=(const SetAsideFile&) = delete;
  ~SetAsideFile() {
    if (away_.empty() || ::rename(away_.c_str(), path_.c_str()) == 0) return;
    logError({"MachineCertificates", "remove(_:)"}, "{} could not be brought back as {}: {}", away_,
             path_, systemErrorText(errno));
  }

  /// Brings back what killed processes hid below `folder`.
  static void restoreAll(const std::string& folder) {
    for (const std::string& path : filesBelow(folder)) {
      const std::string before = path.substr(0, path.size() - std::min(path.size(), mark.size()));
      if (path.ends_with(mark) && before.ends_with(suffix)) {
        std::error_code remains;  // where that fails, it may be trusted still
        fs::rename(path, before, remains);
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

/// Held while the folder and the lists change. Its file is root's own: whoever may open a file can
/// lock it, and everybody may open the folder.
class ChangeLock {
 public:
  ChangeLock(const std::string& folder, std::chrono::nanoseconds limit)
      : path_(folder + "/velum-certificates.lock"), lock_([&] { return open(folder); }, limit) {
    if (!lock_) throw heldElsewhere("The machine's certificates are", path_);
  }

 private:
  UniqueFd open(const std::string& folder) const {
    constexpr mode_t ownersOnly = 0600;
    ::mkdir(folder.c_str(), everybodyLists);  // what fails shows when the file is opened
    return checked::open(path_, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK, ownersOnly,
                         "ChangeLock()");
  }

  std::string path_;
  LockedFile lock_;
};

}  // namespace

struct MachineCertificates::File {
  std::string path;
  std::string label;
  std::vector<SecCertificate> certificates;
};

MachineCertificates::MachineCertificates(std::string root, std::string updater,
                                         const Limits& limits)
    : root_(std::move(root)), updater_(std::move(updater)), limits_(limits) {
  // The tool works in another folder.
  root_ = absolutePath(root_);
  while (root_.ends_with('/')) root_.pop_back();
  folder_ = root_ + "/usr/local/share/ca-certificates";
  distributed_ = root_ + "/usr/share/ca-certificates";
  lists_ = root_ + "/etc/ssl/certs";
  bundle_ = lists_ + "/ca-certificates.crt";
}

std::vector<MachineCertificates::File> MachineCertificates::files() const {
  std::vector<File> files;
  for (const std::string& path : filesBelow(folder_)) {
    if (!path.ends_with(suffix)) continue;
    auto certificates = certificatesIn(path);
    if (certificates.empty()) continue;
    std::string label = labelOfFile(path.substr(folder_.size() + 1), certificates.front());
    files.push_back({path, std::move(label), std::move(certificates)});
  }
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
  const DeferredLog records;
  const std::string path = folder_ + '/' + fileName(label, certificate);
  const ChangeLock lock(root_ + lockFolder, limits_.lock);
  ::mkdir(folder_.c_str(), everybodyLists);  // what fails shows when it is read
  for (const CertificateItem& item : certificates()) {
    // With its file and without its place in the list, it is what a killed process began to add.
    const bool isBegun = item.label == label && !isTrusted(certificate);
    if (item.certificate == certificate && !isBegun) throw CertificateFailure(errSecDuplicateItem);
  }
  const CertificateStatus status = statusOf([&] {
    AtomicFile(path, everybodyReads).replace(certificate.pem(), caller);
    update(Update::added);
    if (!isTrusted(certificate)) {
      throw CertificateFailure(
          errSecIO, fmt::format("{} ended well, but {} is damaged or lacks the certificate",
                                updater_, bundle_));
    }
  });
  if (status.isSuccess()) return;
  ::unlink(path.c_str());  // where that fails, it is trusted still
  failTakenBack(status, Update::removed, {certificate});
}

void MachineCertificates::remove(const std::string& label) const {
  const DeferredLog records;
  const ChangeLock lock(root_ + lockFolder, limits_.lock);
  SetAsideFile::restoreAll(folder_);  // the machine's programs may still trust it
  std::vector<SetAsideFile> setAside;
  std::vector<SecCertificate> removed;
  for (const File& file : files()) {
    if (file.label != label) continue;
    setAside.emplace_back(file.path);
    removed.insert(removed.end(), file.certificates.begin(), file.certificates.end());
  }
  if (setAside.empty()) throw CertificateFailure(errSecItemNotFound);
  const CertificateStatus status = statusOf([&] {
    update(Update::removed);
    for (SetAsideFile& file : setAside) file.removeForGood();
  });
  setAside.clear();
  if (status.isSuccess()) return;
  failTakenBack(status, Update::added, removed);
}

/// The files are as before, but a tool that failed may have made new lists, or half of them.
void MachineCertificates::failTakenBack(const CertificateStatus& why, Update back,
                                        const std::vector<SecCertificate>& certificates) const {
  const auto areBack = [&] {
    return std::ranges::all_of(certificates, [&](const SecCertificate& one) {
      return isTrusted(one) == (back == Update::added);
    });
  };
  const CertificateStatus status = statusOf([&] {
    // One that can't be started did nothing; one that can't be watched is killed, perhaps too late.
    if (why.number == errSecNotAvailable && areBack()) return;
    update(back);
    if (areBack()) return;
    throw CertificateFailure(errSecIO, fmt::format("{} was not made as it was", bundle_));
  });
  if (status.isSuccess()) throw CertificateFailure(why.number, why.detail);
  throw CertificateFailure(
      why.number, fmt::format("{}; taking the change back failed as well, so that the machine's "
                              "programs may {} trust the certificate; find the cause and run {} "
                              "--fresh: {}",
                              why.text(), back == Update::added ? "no longer" : "still", updater_,
                              status.text()));
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

std::vector<std::string> MachineCertificates::arguments(Update kind) const {
  std::vector<std::string> arguments;
  if (!root_.empty()) {
    // All known to every version since Debian 12, unlike one option for the root.
    arguments = {"--certsconf",     root_ + "/etc/ca-certificates.conf",
                 "--certsdir",      distributed_,
                 "--localcertsdir", folder_,
                 "--etccertsdir",   lists_,
                 "--hooksdir",      root_ + "/etc/ca-certificates/update.d"};
  }
  // Else links to files that are gone stay, and hide other certificates of the same subject.
  if (kind == Update::removed) arguments.emplace_back("--fresh");
  return arguments;
}

void MachineCertificates::run(Update kind) const {
  const auto deadline = deadlineAfter(limits_.tool);
  ToolOutput output;
  const auto tool = start(updater_, arguments(kind), output);
  bool isLate = false;
  const int waitStatus = tool->wait(
      output.descriptor(), [&](std::size_t limit) { return output.read(limit); },
      [&](pid_t /*tool*/) {
        isLate = std::chrono::steady_clock::now() >= deadline;
        return !isLate;
      });
  const std::string text = shortened(output.text());
  logInfo({"MachineCertificates", "run(_:)"}, "{}: {}", updater_, text);
  const Termination end = Termination::ofWaitStatus(waitStatus);
  if (end == Termination{}) return;
  const bool isSignal = end.reason == Termination::Reason::uncaughtSignal;
  throw CertificateFailure(
      errSecIO,
      fmt::format(
          "{} {}{}{}", updater_,
          isLate ? fmt::format("did not end within {} s",
                               std::chrono::ceil<std::chrono::seconds>(limits_.tool).count())
                 : fmt::format("failed with {} {}", isSignal ? "signal" : "status", end.status),
          text.empty() ? "" : ": ", text));
}

}  // namespace velum
