#pragma once

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/FileEvents.h"
#include "velumctl/LogFile.h"

namespace velumctl {

/// Goes on reading a log as it grows, is rotated, emptied, deleted, renamed and made anew. Sleeps
/// between the events of the file and of its folder.
///
/// After a deletion the old file is read on beside the new one: writers notice it one by one.
class LogFollower : public std::enable_shared_from_this<LogFollower> {
 public:
  /// `live` is the log's live file where there is one, with the range to begin with. `flush` is
  /// called when everything that is there was handed to the parser. Both are used on another thread
  /// until this object and its watches are gone.
  LogFollower(std::string path, std::optional<LogFile> live, RecordParser& parser,
              std::function<void()> flush);

  /// Follows until something fails; throws what it was, SystemError EPIPE from `flush` included.
  [[noreturn]] void run();

 private:
  struct Followed {
    LogFile file;
    std::unique_ptr<velum::FileEvents::Watch> watch;
  };

  void start();
  void lookSafely();
  void look();
  void readNew(Followed& followed);
  bool adopt(LogFile& file);
  velum::FileEvents::Handler handler();

  std::string path_;
  RecordParser& parser_;
  std::function<void()> flush_;
  std::vector<char> buffer_;
  std::shared_ptr<velum::DispatchQueue> queue_;
  std::unique_ptr<velum::FileEvents::Watch> folderWatch_;
  std::unique_ptr<Followed> live_;
  std::unique_ptr<Followed> previous_;
  std::optional<LogFile> first_;  // until `start`
  std::promise<void> failure_;
  bool hasFailed_ = false;
};

}  // namespace velumctl
