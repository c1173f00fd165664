#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Velum/Platform/Dispatch.h"

namespace velum {

/// What can happen to a watched file or folder. A set of bits.
enum class FileEvent : std::uint8_t {
  none = 0,
  deleted = 1U << 0U,  ///< Its last name is gone.
  /// Content changed; for a folder: an entry came, went or was renamed. What is in a folder's files
  /// is nothing to the folder.
  written = 1U << 1U,
  extended = 1U << 2U,  ///< It grew. Systems that can't tell report `written` only.
  attribute = 1U << 3U,
  link = 1U << 4U,     ///< Its number of names changed.
  renamed = 1U << 5U,  ///< It was moved away from its path.
  revoked = 1U << 6U,  ///< Its file system was unmounted.
  created = 1U << 7U,  ///< `watchPath` only: something else stands at the path now.
};

constexpr FileEvent operator|(FileEvent a, FileEvent b) noexcept {
  return static_cast<FileEvent>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
constexpr FileEvent operator&(FileEvent a, FileEvent b) noexcept {
  return static_cast<FileEvent>(static_cast<unsigned>(a) & static_cast<unsigned>(b));
}

/// Watches files and folders for changes. A watch follows the file that was at the path when it
/// began, not the path.
///
/// A handler is never called twice at once; what happens until it returns is merged into its next
/// call, so that a slow handler falls behind by one call, whatever the number of changes. The last
/// change is always followed by a call.
class FileEvents {
 public:
  /// Ends when destroyed, also inside its own handler; see DispatchSource for the details.
  class Watch {
   public:
    Watch() = default;
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    virtual ~Watch() = default;

    /// Of `watchPath`: what was watched no longer stands at its path. Looks there, for what no
    /// event has told (yet). Any thread.
    virtual bool isOutdated() const { return false; }
  };
  using Handler = std::function<void(FileEvent)>;

  FileEvents() = default;
  FileEvents(const FileEvents&) = delete;
  FileEvents& operator=(const FileEvents&) = delete;
  virtual ~FileEvents() = default;

  static FileEvents& shared();

  /// Calls `handler` on `queue` for those `events` that happen; events may arrive merged. When the
  /// system drops events (its queue overflowed), every watcher is told all it asked for: look
  /// again. Throws SystemError when the path can't be watched. A forked child inherits no watch.
  virtual std::unique_ptr<Watch> watch(const std::string& path, FileEvent events,
                                       std::shared_ptr<DispatchQueue> queue, Handler handler) = 0;

  /// Calls `handler` for whatever happens to the file or folder at `path`, for its loss of that
  /// path (a folder's removal is told even while somebody still uses it), and each time that
  /// something comes to stand there again. The folders and links on the way count: that one of them
  /// was moved, replaced or made is told as well. What came is not watched: begin anew for that.
  /// Does not tell a changed number of names from other attributes. Costs no descriptor for each
  /// watch, but one of the user's watches for each folder on the way; otherwise like `watch`.
  ///
  /// With a concurrent queue, this is the fastest way to hear of a change: the handler may run on
  /// the thread that learnt of it. That something was mounted or unmounted on the way is told with
  /// such a queue only, at the latest together with the next event of any file.
  virtual std::unique_ptr<Watch> watchPath(const std::string& path,
                                           std::shared_ptr<DispatchQueue> queue,
                                           Handler handler) = 0;
};

}  // namespace velum
