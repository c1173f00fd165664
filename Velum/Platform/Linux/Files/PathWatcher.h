#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Velum/Platform/Linux/Files/FileWatcher.h"
#include "Velum/Platform/Linux/Files/PathWay.h"

namespace velum {

/// Watches a path: what stands there, and what becomes of the way to it. All under the registry's
/// lock.
class PathWatcher final : public FileWatcher {
 public:
  PathWatcher(PathWays& ways, std::string path, std::shared_ptr<DispatchQueue> queue,
              FileEvents::Handler handler);

  FileEvent translated(std::uint32_t mask) override;
  FileEvent wanted() const noexcept override;
  bool isStillThere() override;
  void leave() override;

  /// Takes the way, and watches what stands at the path. False with errno; then `leave`.
  bool watch();
  /// The name it waits for came or went where its way ends, as the inotify event says.
  void nameChanged(std::uint32_t mask, FileDeliveries& deliveries);
  /// Its way may lead elsewhere.
  void wayChanged(FileDeliveries& deliveries);

 private:
  using Identity = std::optional<std::pair<dev_t, ino_t>>;

  std::shared_ptr<PathWatcher> self();
  // The path without slashes at its end, but for the root's.
  std::string_view path() const noexcept { return {path_.data(), size_}; }
  Identity identity() const;
  bool takeFolderWay();
  void takeWay();
  void enter(const std::shared_ptr<PathWay>& way);

  PathWays& ways_;
  std::string path_;
  std::size_t size_;  // of the path without slashes at its end
  std::shared_ptr<PathWay> way_;
  std::string_view name_;  // waited for where the way ends; empty where nothing can come there
  Identity seen_;          // what stood there when it was last looked for
};

}  // namespace velum
