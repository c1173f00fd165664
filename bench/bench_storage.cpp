// What the storage services cost: encryption, look-ups, changes and writes of 10,000 settings.

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <plist/plist.h>
#include <unistd.h>

#include <QSettings>
#include <QString>
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Velum/AES.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Sealing/SealedBox.h"
#include "Velum/Sealing/StorageError.h"
#include "Velum/SecureStorage.h"
#include "Velum/SystemUtils.h"
#include "bench/support/Table.h"
#include "bench/support/TemporaryFolder.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int keyCount = 10'000;
constexpr double never = 100'000;  // seconds

// The tool's own time for one operation on so many bytes, in nanoseconds.
double opensslSpeed(const std::string& cipher, std::size_t size) {
  const velum::CliResult result = velum::SystemUtil::cliUtil(
      "/usr/bin/openssl",
      {"speed", "-seconds", "1", "-evp", cipher, "-bytes", std::to_string(size)}, {}, true);
  const std::string text(result.output ? result.output->view() : std::string_view());
  const auto number = text.rfind(' ');  // the last line is "AES-256-CBC  1032666.27k"
  if (number == std::string::npos) throw velum::SystemError(EIO, "openssl speed");
  const double bytesPerSecond = std::strtod(text.c_str() + number, nullptr) * 1000;
  return static_cast<double>(size) / bytesPerSecond * 1e9;
}

// Of the processor, which is also what the tool counts, so that other programs don't matter.
double processorTime() {
  timespec now{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// The same for `work`, repeated for a similar time.
template <class Work>
double timePerCall(Work work) {
  constexpr double enough = 5e8;
  std::int64_t calls = 1;
  for (;;) {
    const double start = processorTime();
    for (std::int64_t call = 0; call < calls; ++call) work();
    const double time = processorTime() - start;
    if (time > enough) return time / static_cast<double>(calls);
    calls *= time > enough / 100 ? static_cast<std::int64_t>(enough / time * 1.2) + 1 : 10;
  }
}

void benchCiphers() {
  constexpr int rounds = 5;
  constexpr double goal = 1 / 0.95;
  velum::AES aes(Bytes(32, 1));
  velum::SealedBox box(Bytes(32, 1));
  struct Size {
    std::size_t bytes;
    const char* name;
  };
  for (const Size size :
       {Size{16, "16 B"}, Size{std::size_t{1} << 10U, "1 KiB"},
        Size{std::size_t{1} << 20U, "1 MiB"}, Size{std::size_t{64} << 20U, "64 MiB"}}) {
    // In place, as the peer.
    Bytes blob(velum::AES::encryptedSize(size.bytes));
    const auto data = std::span(blob).subspan(velum::AES::blockSize, size.bytes);
    Bytes sealed(size.bytes + velum::SealedBox::overhead);
    const auto content = std::span(sealed).subspan(velum::SealedBox::nonceSize, size.bytes);
    const auto times =
        bench::interleaved(rounds, {[&] { return timePerCall([&] { aes.encrypt(data, blob); }); },
                                    [&] { return opensslSpeed("aes-256-cbc", size.bytes); },
                                    [&] { return timePerCall([&] { box.seal(content, sealed); }); },
                                    [&] { return opensslSpeed("aes-256-gcm", size.bytes); }});
    const bench::Goal limit{size.bytes < 1024 ? 0 : goal};
    bench::report(fmt::format("AES-CBC, {}", size.name), times[0], "openssl speed", times[1],
                  limit);
    bench::report(fmt::format("AES-GCM, {}", size.name), times[2], "openssl speed", times[3],
                  limit);
  }
}

std::string keyName(int index) {
  return fmt::format("com.quillon.example.setting.{}", index);
}
std::string valueText(int index) {
  return fmt::format("the value of setting {}", index);
}
velum::PropertyList value(int index) {
  return velum::PropertyList(valueText(index));
}

// Counts the writes and keeps none.
class CountingStorage final : public velum::KeyStorageBase {
 public:
  explicit CountingStorage(double writeDelay) : KeyStorageBase("bench", writeDelay) {}
  CountingStorage(const CountingStorage&) = delete;
  CountingStorage& operator=(const CountingStorage&) = delete;
  ~CountingStorage() override { finish(); }

  std::atomic<int> writes{0};

 protected:
  void storeData(std::string_view /*bytes*/) override { ++writes; }
};

// Keeps the key of the storage file.
class FixedKey final : public velum::KeyChainDataProtocol {
 public:
  velum::SecretResult read() override { return {.status = 0, .data = key_}; }
  bool store(const std::optional<velum::SecretBytes>& /*value*/) override { return false; }

 private:
  velum::SecretBytes key_ = velum::SealedBox::newKey();
};

void benchLookUp() {
  CountingStorage storage(never);
  std::unordered_map<std::string, velum::PropertyList> map;
  std::mutex mutex;
  std::vector<std::string> keys;
  for (int index = 0; index < keyCount; ++index) {
    keys.push_back(keyName(index));
    storage.setObject(value(index), keys.back());
    map.emplace(keys.back(), value(index));
  }
  std::shuffle(keys.begin(), keys.end(), std::mt19937(1));  // NOLINT: the same order every time

  std::size_t found = 0;
  const bench::Run ours = [&] {
    return bench::timed([&] {
      for (const auto& key : keys) found += storage.object(key).has_value() ? 1 : 0;
    });
  };
  const bench::Run peer = [&] {
    return bench::timed([&] {
      for (const auto& key : keys) {
        const std::lock_guard guard(mutex);
        const auto entry = map.find(key);
        const std::optional<velum::PropertyList> copy =
            entry == map.end() ? std::nullopt : std::optional(entry->second);
        found += copy.has_value() ? 1 : 0;
      }
    });
  };
  const auto times = bench::interleaved(51, {ours, peer});
  if (found != keys.size() * 2 * 52) throw velum::StorageError("a key was not found");
  bench::report("object(forKey:), 10,000 keys", times[0], "unordered_map under a mutex", times[1],
                {1.5}, keyCount);
}

void benchChanges(const bench::TemporaryFolder& folder) {
  const auto key = std::make_shared<FixedKey>();
  const bench::Run ours = [&] {
    velum::SecureStorage storage(key, folder / "settings", never);
    return bench::timed([&] {
      for (int index = 0; index < keyCount; ++index)
        storage.setObject(value(index), keyName(index));
      storage.store();
    });
  };
  const bench::Run qt = [&] {
    const std::string path = folder / "settings.conf";
    ::unlink(path.c_str());
    QSettings settings(QString::fromStdString(path), QSettings::NativeFormat);
    return bench::timed([&] {
      for (int index = 0; index < keyCount; ++index) {
        settings.setValue(QString::fromStdString(keyName(index)),
                          QString::fromStdString(valueText(index)));
      }
      settings.sync();
    });
  };
  const auto times = bench::interleaved(21, {ours, qt});
  bench::report("setObject of 10,000 keys, sealed and stored", times[0], "QSettings, set and sync",
                times[1], {1});
}

void countWrites() {
  constexpr double delay = 0.05;
  CountingStorage storage(delay);
  const double time = bench::timed([&] {
    for (int index = 0; index < keyCount; ++index) {
      storage.setObject(value(index), keyName(index));
      if (index % 100 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  const int writes = storage.writes;
  const double periods = time / 1e9 / delay;
  bench::report("writes of 10,000 delayed changes", std::to_string(writes),
                fmt::format("{:.1f} delays of 50 ms", periods), "one each",
                writes >= 1 && writes <= periods + 1);
}

using Plist = std::unique_ptr<void, void (*)(plist_t)>;
using PlistBytes = std::unique_ptr<char, void (*)(void*)>;

Plist settingsAsPlist() {
  Plist root(plist_new_dict(), plist_free);
  for (int index = 0; index < keyCount; ++index) {
    plist_dict_set_item(root.get(), keyName(index).c_str(),
                        plist_new_string(valueText(index).c_str()));
  }
  return root;
}

// libplist and OpenSSL used directly, with no more than it takes.
Bytes bareSeal(plist_t root) {
  char* raw = nullptr;
  std::uint32_t size = 0;
  plist_to_bin(root, &raw, &size);
  const PlistBytes plain(raw, std::free);  // what its releases name differently
  const std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> context(EVP_CIPHER_CTX_new(),
                                                                           EVP_CIPHER_CTX_free);
  static constexpr std::array<std::uint8_t, 32> key{1};
  Bytes box(12 + size + 16);
  int written = 0;
  RAND_bytes(box.data(), 12);
  EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.data(), box.data());
  EVP_EncryptUpdate(context.get(), box.data() + 12, &written,
                    reinterpret_cast<const unsigned char*>(raw),  // NOLINT: bytes
                    static_cast<int>(size));
  EVP_EncryptFinal_ex(context.get(), box.data() + 12 + size, &written);
  EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, 16, box.data() + 12 + size);
  return box;
}

void bareWrite(const std::string& path, const Bytes& content) {
  const velum::UniqueFd file =
      velum::checked::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600, "bench");
  velum::checked::write(file.get(), content.data(), content.size(), "bench");
  if (::fsync(file.get()) != 0) throw velum::lastSystemError("fsync");
}

// Seals as the file's storage does, and writes nowhere.
class SealingStorage final : public velum::KeyStorageBase {
 public:
  SealingStorage() : KeyStorageBase("bench", never) {}
  SealingStorage(const SealingStorage&) = delete;
  SealingStorage& operator=(const SealingStorage&) = delete;
  ~SealingStorage() override { finish(); }

 protected:
  void storeData(std::string_view bytes) override {
    velum::SealedBox(Bytes(32, 1)).seal(velum::byteView(bytes));
  }
};

void benchStore(const bench::TemporaryFolder& folder) {
  const auto key = std::make_shared<FixedKey>();
  velum::SecureStorage storage(key, folder / "sealed", never);
  SealingStorage unwritten;
  for (int index = 0; index < keyCount; ++index) {
    storage.setObject(value(index), keyName(index));
    unwritten.setObject(value(index), keyName(index));
  }
  const Plist plist = settingsAsPlist();
  const auto stored = [](velum::KeyStorageBase& what) {
    what.setObject(value(0), keyName(0));
    return bench::timed([&] { what.store(); });
  };
  const auto times = bench::interleaved(
      41, {[&] { return stored(storage); },
           [&] { return bench::timed([&] { bareWrite(folder / "bare", bareSeal(plist.get())); }); },
           [&] { return stored(unwritten); },
           [&] { return bench::timed([&] { bareSeal(plist.get()); }); }});
  bench::report("store() of 10,000 keys to a sealed file", times[0], "libplist, EVP, write, fsync",
                times[1], {1.15});
  bench::report("the same without the write", times[2], "libplist, EVP", times[3], {1.15});
}

}  // namespace

int main() {  // NOLINT(bugprone-exception-escape): a benchmark that fails says why and ends
  const bench::TemporaryFolder folder;
  benchCiphers();
  benchLookUp();
  benchChanges(folder);
  countWrites();
  benchStore(folder);
}
