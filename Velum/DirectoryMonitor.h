#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Velum/Base/ProcessFlag.h"
#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Platform/FileEvents.h"

namespace velum {

class IDirectoryMonitor;

/// Hears of changes. Called on threads of the library, on several at once for several monitors.
class DirectoryMonitorDelegate {
 public:
  DirectoryMonitorDelegate() = default;
  DirectoryMonitorDelegate(const DirectoryMonitorDelegate&) = delete;
  DirectoryMonitorDelegate& operator=(const DirectoryMonitorDelegate&) = delete;
  virtual ~DirectoryMonitorDelegate() = default;

  /// Something changed; changes that come close together are told at once. `monitor` lives until
  /// this returns. May start and stop it, and give up the last reference to it. Must not throw.
  virtual void directoryMonitorDidObserveChange(IDirectoryMonitor& monitor) = 0;
};

/// Watches one path. Any thread may call any operation.
class IDirectoryMonitor {
 public:
  IDirectoryMonitor() = default;
  IDirectoryMonitor(const IDirectoryMonitor&) = delete;
  IDirectoryMonitor& operator=(const IDirectoryMonitor&) = delete;
  virtual ~IDirectoryMonitor() = default;

  /// Not owned; null when there is none any more.
  virtual std::shared_ptr<DirectoryMonitorDelegate> delegate() const = 0;
  virtual void setDelegate(std::weak_ptr<DirectoryMonitorDelegate> delegate) = 0;

  /// True when the path is being watched, already or from now on. Else, with one logged error "Open
  /// <path> for file notifications", false: when nothing is there, for instance.
  virtual bool startMonitoring() = 0;
  /// No call of the delegate begins for a change that comes after this.
  virtual void stopMonitoring() = 0;
};

/// Tells its delegate of every change to a folder (its entries and its attributes, not what is in
/// its files) or a file.
///
/// It also tells when the path comes to lead elsewhere: what it watches was deleted, renamed,
/// replaced (the way editors save a file), unmounted or mounted over, or any folder or link on the
/// way there was; and whenever something is made at the path again. It does not watch what was
/// made; the next start does, with or without a stop before it. A start also notices by itself what
/// no event told: of a folder on the way that this user may not read, for instance.
///
/// A delegate is never called twice at once for the same monitor. While it is busy, changes wait
/// and are told by one call afterwards; the last change is always followed by a call. A forked
/// child inherits no watch: start again there.
class DirectoryMonitor final : public IDirectoryMonitor,
                               public std::enable_shared_from_this<DirectoryMonitor> {
  struct Private {};  // keeps construction to `create`

 public:
  /// Watches nothing until it is started. A relative path is looked up at each start.
  static std::shared_ptr<DirectoryMonitor> create(std::string path,
                                                  FileEvents& fileEvents = FileEvents::shared());

  DirectoryMonitor(Private, std::string path, FileEvents& fileEvents);
  DirectoryMonitor(const DirectoryMonitor&) = delete;
  DirectoryMonitor& operator=(const DirectoryMonitor&) = delete;
  /// Stops.
  ~DirectoryMonitor() override = default;

  std::shared_ptr<DirectoryMonitorDelegate> delegate() const override;
  void setDelegate(std::weak_ptr<DirectoryMonitorDelegate> delegate) override;
  bool startMonitoring() override;
  void stopMonitoring() override;

 private:
  void openLk();
  void handleEvent(std::int32_t descriptor);

  std::weak_ptr<DirectoryMonitorDelegate> delegate_;
  // Tells one start's source from another's; -1 when not monitoring. The system may know its
  // watches by no descriptor, or share one, so the starts are counted.
  std::int32_t descriptor_ = -1;
  std::int32_t lastDescriptor_ = -1;
  std::unique_ptr<FileEvents::Watch> dispatchSource_;
  ProcessFlag isStarted_;  // in a forked child, the source is the parent's
  // Guards all of these. Before the services: it is held while the file events' own is taken.
  mutable ForkSafeLock lock_{ForkSafeLock::Stage::handler};
  const std::string path_;
  FileEvents& fileEvents_;
};

}  // namespace velum
