#include "Velum/SupportUtils.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <type_traits>

#include "Velum/Base/Fatal.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Concurrency/SyncAsync.h"
#include "Velum/Files/AbsolutePath.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Files/TemporaryFolder.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/ChildIo.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/FileClone.h"
#include "Velum/SystemUtils.h"

namespace velum {
namespace {

namespace fs = std::filesystem;
using Case = SupportLogArchivingError::Case;

constexpr LogSite site(std::string_view function, CallPlace where = CallPlace::current()) {
  return {"Velum/SupportUtils", function, where};
}

constexpr std::string_view createArchiveName =
    "createArchive(at:includeItems:for:startDate:showInFinder:completion:)";
constexpr std::string_view createFolderName = "createArchiveFolderUrl(named:)";
constexpr std::string_view saveItemName = "saveItem(value:relativePath:archiveFolderUrl:)";

}  // namespace

SupportLogsPurpose supportLogsPurpose(int rawValue) {
  if (rawValue != 0 && rawValue != 1) {
    fatal(fmt::format("SupportLogsPurpose: raw value out of range: {}", rawValue));
  }
  return static_cast<SupportLogsPurpose>(rawValue);
}

LogSavingOpts logSavingOpts(SupportLogsPurpose purpose, std::optional<LogDate> startDate,
                            LogDate now) {
  constexpr std::chrono::seconds margin(60);
  constexpr std::int64_t reportSize = 31'457'280;
  const LogDate end = now + margin;
  if (purpose == SupportLogsPurpose::report) {
    return {startDate.value_or(end - std::chrono::seconds(172'800)), end, reportSize};
  }
  return {startDate.value_or(end - std::chrono::seconds(86'400)), end, std::nullopt};
}

namespace {

/// Copies files and folders into an archive's folder.
class ItemCopier {
 public:
  ItemCopier(const std::string& archiveFolder, const Progress* progress)
      : archiveFolder_(archiveFolder), progress_(progress) {}

  void copy(const fs::path& source, const fs::path& target) const {
    const fs::path original = fs::canonical(source);
    if (fs::is_regular_file(original)) return copyFile(original, target);
    const fs::path archive = fs::canonical(archiveFolder_);
    const bool holdsArchive = std::ranges::mismatch(original, archive).in1 == original.end();
    if (!fs::is_directory(original) || holdsArchive) {
      throw SystemError(EINVAL, fmt::format("{}: copy ({})", saveItemName, source.string()));
    }
    copyFolder(original, target);
  }

 private:
  /// Files and folders alone: a link may lead anywhere, and reading a pipe may never end.
  void copyFolder(const fs::path& source, const fs::path& target) const {
    fs::create_directory(target);
    for (const auto& entry : fs::directory_iterator(source)) {
      if (progress_ != nullptr && progress_->isCancelled()) {
        throw SystemError(ECANCELED, fmt::format("{}: copy ({})", saveItemName, source.string()));
      }
      const fs::path place = target / entry.path().filename();
      const fs::file_type type = entry.symlink_status().type();
      if (type == fs::file_type::directory) copyFolder(entry.path(), place);
      if (type == fs::file_type::regular) copyFile(entry.path(), place);
    }
  }

  void copyFile(const fs::path& source, const fs::path& target) const {
    std::error_code error;
    if (fs::exists(fs::symlink_status(target, error))) {
      throw SystemError(
          EEXIST, fmt::format("{}: '{}' is in the archive already; choose another name",
                              saveItemName, target.lexically_relative(archiveFolder_).string()));
    }
    cloneFile(source, target, progress_);
  }

  const std::string& archiveFolder_;
  const Progress* progress_;
};

/// Where an item is to lie. What stands there already may be a link, which is not followed.
fs::path targetIn(const std::string& archiveFolder, const std::string& relativePath) {
  const fs::path relative(relativePath);
  fs::path target(archiveFolder);
  bool leaves = relative.is_absolute() || relativePath.find('\0') != std::string::npos;
  for (const fs::path& component : relative) {
    if (component.empty() || component == ".") continue;  // "folder/" is "folder"
    target /= component;
    std::error_code error;
    leaves = leaves || component == ".." || fs::is_symlink(target, error);
  }
  if (leaves) throw SystemError(EPERM, fmt::format("{}: path ({})", saveItemName, relativePath));
  return target;
}

void writeItem(std::string_view bytes, const fs::path& target) {
  const UniqueFd file =
      checked::open(target.string(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600, saveItemName);
  checked::write(file.get(), bytes.data(), bytes.size(), saveItemName);
}

void logSaved(std::string_view how, const fs::path& target) {
  logInfo(site(saveItemName), "File for archive output {} to: {}", how, target.string());
}

/// The alternatives of an item, each with what becomes of it.
struct ItemSaver {
  const fs::path& target;
  const ItemCopier& copier;

  void operator()(const std::string& text) const {
    writeItem(text, target);
    logSaved("written", target);
  }
  void operator()(const std::vector<std::uint8_t>& data) const {
    // Bytes may be looked at as characters.
    writeItem({reinterpret_cast<const char*>(data.data()), data.size()}, target);  // NOLINT
    logSaved("written", target);
  }
  void operator()(const FileUrl& file) const {
    copier.copy(file.path, target);
    logSaved("copied", target);
  }
  void operator()(const UnsupportedItem& item) const {
    const std::string text = "Unexpected value for save: " + item.description;
    logError(site(saveItemName), "{}", text);
    throw SupportLogArchivingError(Case::invalidItemType, text);
  }
};

/// Runs `work`; errors of the file-system library become the ones of this library.
template <class Work>
auto withSystemErrors(std::string_view routine, Work work) try {
  return work();
} catch (const fs::filesystem_error& error) {
  throw SystemError(error.code().value(), fmt::format("{}: {}", routine, error.path1().string()));
}

}  // namespace

void SupportUtils::saveItem(const SupportItem& value, const std::string& relativePath,
                            const std::string& archiveFolderUrl, const Progress* progress) {
  if (relativePath.empty()) {
    logError(site(saveItemName), "Relative path is empty");
    throw SupportLogArchivingError(Case::emptyItemName, "Relative path is empty");
  }
  try {
    withSystemErrors(saveItemName, [&] {
      const fs::path target = targetIn(archiveFolderUrl, relativePath);
      fs::create_directories(target.parent_path());
      std::visit(ItemSaver{target, ItemCopier(archiveFolderUrl, progress)}, value);
    });
  } catch (const SystemError& error) {
    if (error.code() == ECANCELED) throw;
    logError(site(saveItemName), "Can't write/copy file to \"{}/{}\"{}", archiveFolderUrl,
             relativePath, error.what());
    throw;
  }
}

namespace {

/// Where an archive is put together. Private to this user, as what lies in it is; removed with all
/// of it in the end.
class ArchiveFolder {
 public:
  explicit ArchiveFolder(const fs::path& destination)
      : root_(fileName(destination), fs::temp_directory_path().string(), createFolderName),
        content_(fs::path(root_.path()) / destination.stem()) {
    fs::create_directory(content_);
  }
  ArchiveFolder(const ArchiveFolder&) = delete;
  ArchiveFolder& operator=(const ArchiveFolder&) = delete;
  ~ArchiveFolder() {
    if (const std::error_code error = root_.remove()) {
      logError(site(createArchiveName), "Can't remove {}: {}", root_.path(), error.message());
    }
  }

  /// What is to be packed; it gives the archive's one top folder its name.
  std::string content() const { return content_.string(); }

 private:
  static std::string fileName(const fs::path& destination) {
    std::string name = destination.filename().string();
    // As in "...zip", whose content would lie above the folder made for it.
    const fs::path stem = destination.stem();
    if (stem.empty() || stem == "." || stem == "..") {
      throw SystemError(EINVAL, fmt::format("{}: '{}'", createFolderName, destination.string()));
    }
    return name;
  }

  TemporaryFolder root_;
  fs::path content_;
};

/// The bytes of the files in a folder.
std::uintmax_t sizeOfContent(const fs::path& folder) {
  std::uintmax_t size = 0;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) size += entry.file_size();
  }
  return size;
}

/// One archive in the making, in the order of its steps.
class ArchiveJob {
 public:
  ArchiveJob(const std::string& destination, SupportItems items, LogSavingOpts logOptions,
             bool showInFinder, SupportUtils::Services services)
      : destination_(absolutePath(destination)),
        items_(std::move(items)),
        logOptions_(logOptions),
        showInFinder_(showInFinder),
        services_(services),
        progress_(
            std::make_shared<Progress>(static_cast<std::int64_t>(items_.size()) + otherSteps)) {}

  const std::shared_ptr<Progress>& progress() const noexcept { return progress_; }

  std::exception_ptr run() const try {
    withSystemErrors(createArchiveName, [this] { perform(); });
    return nullptr;
  } catch (...) {
    return std::current_exception();
  }

 private:
  static constexpr std::int64_t otherSteps = 2;  // the logs and the packing

  void perform() const {
    stopIfCancelled();
    const std::unique_ptr<ArchiveFolder> folder = makeFolder();
    checkDestination();
    stopIfCancelled();
    unlessCancelled([&] { saveLogs(folder->content()); });
    progress_->completeUnit();
    for (const auto& item : items_) {
      stopIfCancelled();
      unlessCancelled([&] {
        SupportUtils::saveItem(item.second, item.first, folder->content(), progress_.get());
      });
      progress_->completeUnit();
    }
    stopIfCancelled();
    finish(folder->content());
    progress_->complete();
  }

  void stopIfCancelled() const {
    if (!progress_->isCancelled()) return;
    constexpr const char* text = "Log archiving cancelled";
    logInfo(site(createArchiveName), "{}", text);
    throw SupportLogArchivingError(Case::cancelled, text);
  }

  /// A step that fails because it was cancelled fails with that.
  template <class Step>
  void unlessCancelled(Step step) const try {
    step();
  } catch (const SystemError&) {
    stopIfCancelled();
    throw;
  }

  void saveLogs(const std::string& folder) const {
    const auto saved = services_.logManager->saveLogs(LogSubsystemSelector::all(), folder,
                                                      logOptions_, progress_.get());
    if (saved.empty()) {
      logWarning(site(createArchiveName),
                 "No record of the log is of the time that was asked for: {} holds none",
                 destination_.string());
    }
  }

  /// What would fail in the end should not take the time until then.
  void checkDestination() const {
    if (services_.logManager->holds(destination_.string())) {
      throw SystemError(EEXIST, fmt::format("{}: {} is a file of the log itself; name another one",
                                            createArchiveName, destination_.string()));
    }
    fs::path folder = destination_.parent_path();
    // Throws where it can't look, which does not mean that nothing is there.
    while (!fs::exists(folder) && folder.has_relative_path()) folder = folder.parent_path();
    const bool isFolder = fs::is_directory(folder);
    if (!isFolder) errno = ENOTDIR;
    if (isFolder && ::faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0) return;
    throw lastSystemError(fmt::format("{}: {}", createArchiveName, folder.string()));
  }

  std::unique_ptr<ArchiveFolder> makeFolder() const try {
    return withSystemErrors(createFolderName,
                            [this] { return std::make_unique<ArchiveFolder>(destination_); });
  } catch (const SystemError& error) {
    const std::string text =
        fmt::format("Failed to create temporary archive folder. {}", error.what());
    logError(site(createArchiveName), "{}", text);
    throw SupportLogArchivingError(Case::createTempFolderFailed, text);
  }

  void finish(const std::string& content) const {
    const auto size = static_cast<double>(sizeOfContent(content));
    const std::optional<std::string> archive =
        SystemUtil::compressFolder(content, "zip", false, [this, size](pid_t tool) {
          progress_->setPartOfUnit(static_cast<double>(bytesReadBy(tool)) / std::max(size, 1.0));
          return !progress_->isCancelled();
        });
    stopIfCancelled();
    if (!archive) {
      throw SupportLogArchivingError(Case::compressLogFolder, "The log folder can't be packed");
    }
    // Logs that only their owner may read shall not be everybody's in the archive.
    fs::permissions(*archive, fs::perms::owner_read | fs::perms::owner_write);
    fs::create_directories(destination_.parent_path());
    // A file is replaced by the copy itself. Nobody means a folder that holds something.
    if (fs::is_directory(fs::symlink_status(destination_))) fs::remove(destination_);
    unlessCancelled([&] { cloneFile(*archive, destination_, progress_.get()); });
    logInfo(site(createArchiveName), "Log archive was written to: {}", destination_.string());
    if (showInFinder_) reveal();
  }

  /// The archive is complete, and should not seem to hang because a file viewer does.
  void reveal() const {
    Workspace* const workspace =
        services_.workspace != nullptr ? services_.workspace : &Workspace::shared();
    const SyncAsync::SerialJob<void> job(
        [workspace, path = destination_.string()] { workspace->activateFileViewer({path}); });
    if (job.run(services_.revealTimeout).timedOut()) {
      const std::chrono::duration<double> seconds = services_.revealTimeout;
      logWarning(site(createArchiveName), "{} timed out for {:g} secs.",
                 "Showing the archive in the file viewer", seconds.count());
    }
  }

  fs::path destination_;
  SupportItems items_;
  LogSavingOpts logOptions_;
  bool showInFinder_;
  SupportUtils::Services services_;
  std::shared_ptr<Progress> progress_;
};

}  // namespace

std::shared_ptr<Progress> SupportUtils::createArchive(const std::string& destination,
                                                      SupportItems includeItems,
                                                      SupportLogsPurpose purpose,
                                                      std::optional<LogDate> startDate,
                                                      bool showInFinder, Completion completion) {
  return createArchive(destination, std::move(includeItems), purpose, startDate, showInFinder,
                       std::move(completion), Services{});
}

std::shared_ptr<Progress> SupportUtils::createArchive(
    const std::string& destination, SupportItems includeItems, SupportLogsPurpose purpose,
    std::optional<LogDate> startDate, bool showInFinder, Completion completion, Services services) {
  logInfo(site(createArchiveName), "Generating logs archive started");
  const auto job = std::make_shared<ArchiveJob>(
      destination, std::move(includeItems),
      logSavingOpts(purpose, startDate, std::chrono::system_clock::now()), showInFinder, services);
  DispatchQueue::global().async(
      [job, completion = std::move(completion)] { completion(job->run()); });
  return job->progress();
}

}  // namespace velum
