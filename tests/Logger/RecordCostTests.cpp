// What a record costs in allocations; its system calls are listed in tests/faults. A program of its
// own, because it counts every allocation it makes.

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "Velum/Logger/Handlers/FileLogHandler.h"
#include "Velum/Logger/Logger.h"
#include "tests/support/TemporaryFolder.h"

namespace {
thread_local long allocations = 0;

void* counted(std::size_t size) {
  ++allocations;
  void* const memory = std::malloc(size);  // NOLINT(*-no-malloc)
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
}  // namespace

void* operator new(std::size_t size) {
  return counted(size);
}
void* operator new[](std::size_t size) {
  return counted(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}  // NOLINT(*-no-malloc)
void operator delete[](void* memory) noexcept {
  std::free(memory);
}  // NOLINT(*-no-malloc)
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}  // NOLINT
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}  // NOLINT

namespace velum {
namespace {

using namespace std::chrono_literals;

class RecordCostTest : public ::testing::Test {
 protected:
  test::TemporaryFolder folder;
  std::shared_ptr<FileLogHandler> handler =
      FileLogHandler::create("com.example.vpn", folder / "name.log", true, {.firstCheck = 1h}, {});
  std::string message = "I: (main) Cookie: secret " + std::string(100, 'x');
};

TEST_F(RecordCostTest, AFilteredOutCallAllocatesNothing) {
  Logger logger;
  logger.setHandlers({handler});
  const long before = allocations;
  for (int i = 0; i < 1000; ++i) {
    logger.log(
        LogLevel::debug, [&] { return message + message; }, "file", "function", 1);
    logDebug({"function"}, "{} {}", i, message);
  }
  EXPECT_EQ(allocations, before);
}

TEST_F(RecordCostTest, ARecordAllocatesNothingOnceTheThreadIsWarm) {
  const LogDate date = std::chrono::system_clock::now();
  handler->logWithLevel(LogLevel::info, date, message);
  const long before = allocations;
  for (int i = 0; i < 1000; ++i) {
    handler->logWithLevel(LogLevel::info, date + i * 10ms, message);
  }
  EXPECT_EQ(allocations, before);
}

}  // namespace
}  // namespace velum
