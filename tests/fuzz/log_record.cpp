// Both readers of log files, the one that saves parts of them and the one that shows them, take
// anything for a log, lose no byte of it and write nowhere but into the folder they were given.

#include <filesystem>
#include <fstream>

#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/LogSearch.h"
#include "Velum/Logger/LogSplitter.h"
#include "Velum/Logger/Logger.h"
#include "tests/fuzz/FuzzTarget.h"
#include "tests/support/TemporaryFolder.h"
#include "velumctl/LogRecords.h"

namespace {

using velum::fuzz::require;

// Puts together again what the parser took apart.
class Joiner final : public velumctl::RecordSink {
 public:
  void begin(const velumctl::RecordHead& head) override {
    require(!isOpen_);
    isOpen_ = true;
    if (head.prefix.empty()) return;
    joined_ += velum::recordSeparator;
    joined_ += head.prefix;
  }
  void text(std::string_view bytes) override {
    require(isOpen_);
    joined_ += bytes;
  }
  void end() override { isOpen_ = false; }

  const std::string& joined() const { return joined_; }

 private:
  std::string joined_;
  bool isOpen_ = false;
};

// In two pieces, as a file that grows.
void parse(const std::string& bytes) {
  Joiner joiner;
  velumctl::RecordParser parser(joiner);
  const std::string_view all = bytes;
  const std::size_t done = parser.add(all.substr(0, all.size() / 2), false);
  require(parser.add(all.substr(done), true) == all.size() - done);
  parser.finish();
  require(joiner.joined() == bytes);
}

void split(velum::LogReader& reader, velum::LogRange range, const std::string& folder) {
  const auto selector = velum::LogSubsystemSelector::all();
  velum::LogSplitter splitter(folder, selector, "fuzz");
  splitter.add(reader, range);
  std::uintmax_t saved = 0;
  for (const std::string& file : splitter.finish()) {
    require(std::filesystem::path(file).parent_path() == folder);
    saved += std::filesystem::file_size(file);
    std::filesystem::remove(file);
  }
  require(saved <= static_cast<std::uintmax_t>(range.end - range.begin));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(data, data + size);
  parse(bytes);
  const auto subsystem = velum::recordSubsystem(bytes);
  require(!subsystem ||
          subsystem->data() + subsystem->size() < bytes.data() + velum::mostPrefixSize);

  static const velum::test::TemporaryFolder folder;
  static const std::string out = folder / "out";
  velum::Logger::shared().setHandlers({});
  velum::test::writeFile(folder / "fuzz.log", bytes);
  std::filesystem::create_directories(out);
  velum::LogReader reader(folder / "fuzz.log", "fuzz");
  using namespace std::chrono_literals;
  const velum::LogDate noon = std::chrono::sys_days{std::chrono::year{2026} / 11 / 20} + 12h;
  const auto range = velum::LogSearch(reader).range(noon - 1h, noon + 1h);
  require(range.begin >= 0 && range.end <= static_cast<std::int64_t>(size));
  split(reader, {.begin = 0, .end = reader.size()}, out);
  require(std::filesystem::is_empty(out));
  return 0;
}
