// What is secret is wiped before its memory goes back. A program of its own, because it looks at
// every block it frees.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/AES.h"
#include "Velum/Base/ByteView.h"
#include "Velum/KeyChain.h"
#include "Velum/Sealing/SealedBox.h"
#include "Velum/Sealing/StorageError.h"
#include "Velum/SecureStorage.h"
#include "tests/support/MemoryKey.h"
#include "tests/support/SecretEnvironment.h"

namespace {

// Words of every secret here: one that a std::string keeps inside of itself, and one in two bytes
// a letter, as property lists hold text that is not ASCII.
constexpr std::string_view shortWord = "hidden gem 12";
constexpr std::string_view wideWord = "\u6709\u70B9\u6709\u70B9";
// What a moved string leaves behind lacks the beginning.
constexpr std::string_view shortPart = shortWord.substr(1);
constexpr std::string_view widePart = wideWord.substr(3);
constexpr std::string_view encodedPart("\x70\xB9\x67\x09\x70\xB9", 6);

std::atomic<int> findings{0};

// Before each block, as long as alignment asks.
union BlockSize {
  std::size_t value;
  std::max_align_t alignment;
};

void release(void* memory) noexcept {
  if (memory == nullptr) return;
  auto* const size = static_cast<BlockSize*>(memory) - 1;  // NOLINT(*-pointer-arithmetic)
  const std::string_view block(static_cast<const char*>(memory), size->value);
  for (const std::string_view word : {shortPart, widePart, encodedPart}) {
    if (block.find(word) != std::string_view::npos) ++findings;
  }
  std::free(size);  // NOLINT(*-no-malloc)
}

void* allocate(std::size_t size) {
  // Cleared, so that nothing is found but what was written to it.
  auto* const block =
      static_cast<BlockSize*>(std::calloc(1, sizeof(BlockSize) + size));  // NOLINT(*-no-malloc)
  if (block == nullptr) throw std::bad_alloc();
  block->value = size;
  return block + 1;  // NOLINT(*-pointer-arithmetic)
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new[](std::size_t size) {
  return allocate(size);
}
void operator delete(void* memory) noexcept {
  release(memory);
}
void operator delete[](void* memory) noexcept {
  release(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  release(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
  release(memory);
}

namespace velum {
namespace {

class SecretMemory : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(findings.exchange(0), 0) << "freed with a secret in it"; }

  /// A secret of `words` words.
  static SecretBytes secret(std::size_t words = 1) {
    SecretBytes bytes;
    for (std::size_t word = 0; word < words; ++word) {
      bytes.insert(bytes.end(), shortWord.begin(), shortWord.end());
    }
    return bytes;
  }
  static PropertyList text(std::string word) { return PropertyList(std::move(word)); }
  static PropertyList text(std::string_view word) { return text(std::string(word)); }
  /// A value with a secret in each place that can hold one.
  static PropertyList nested() {
    PropertyList::Array list;
    list.reserve(9);
    for (int index = 0; index < 4; ++index) {
      list.push_back(text(shortWord));
      list.push_back(text(wideWord));
    }
    PropertyList::Data data(shortWord.begin(), shortWord.end());
    list.emplace_back(std::move(data));
    PropertyList::Dictionary entries;
    entries.emplace("list", std::move(list));
    entries.emplace("text", text(shortWord));
    entries.emplace("long", text(secretText(40)));
    entries.emplace("wide", text(secretText(40, wideWord)));
    return PropertyList(std::move(entries));
  }
  static std::string secretText(std::size_t words, std::string_view word = shortWord) {
    std::string result;
    result.reserve(words * word.size());
    for (std::size_t count = 0; count < words; ++count) result += word;
    return result;
  }

  test::SecretEnvironment environment;
  SecretStore& store = SecretStore::shared();
};

TEST_F(SecretMemory, TheSearchFindsWhatIsNotWiped) {
  EXPECT_FALSE(text(secretText(3)).binary().empty());
  EXPECT_GT(findings.exchange(0), 0);
}

TEST_F(SecretMemory, IsWipedByTheCiphers) {
  const SecretBytes key = secret(3);
  const ByteView aesKey = ByteView(key).first(32);
  for (const std::size_t words : {1U, 10U, 1000U}) {
    const SecretBytes data = secret(words);
    auto blob = AES::encrypted(data, aesKey);
    EXPECT_EQ(AES::decrypted(blob, aesKey), data);
    blob[blob.size() - 17] ^= 1U;
    EXPECT_THROW(AES::decrypted(blob, aesKey), AESError);
    std::string box = SealedBox(aesKey).seal(data);
    EXPECT_EQ(SealedBox(aesKey).open(byteView(box)), data);
    box.back() = static_cast<char>(box.back() ^ 1);
    EXPECT_THROW(SealedBox(aesKey).open(byteView(box)), StorageError);
  }
}

TEST_F(SecretMemory, IsWipedByTheKeychain) {
  for (const std::size_t words : {1U, 1000U}) {
    EXPECT_EQ(KeyChain::save("key", secret(words), "service", {}, store), 0);
    EXPECT_EQ(KeyChain::load("key", "service", {}, store), secret(words));
  }
  {
    std::vector<std::string> object;
    object.push_back(secretText(2));
    EXPECT_EQ(KeyChain::saveObject(object, "object", "service", {}, store), 0);
    std::ranges::for_each(object, [](std::string& each) { wipe(each); });
  }
  EXPECT_EQ(KeyChain::remove("key", "service", {}, store), 0);
}

TEST_F(SecretMemory, IsWipedByStorages) {
  const auto key = std::make_shared<test::MemoryKey>();
  const std::string path = environment.folder() + "/sealed";
  {
    SecureStorage storage(key, path, 0);
    storage.setObject(nested(), "nested");
    storage.setObject(nested(), "nested");
    storage.setObject(text(shortWord), "text");
    storage.setObject(text(secretText(5)), "text");
    storage.setObject(std::nullopt, "text");
    storage.setObject(text(wideWord), "text");
    storage.setObject(PropertyList(true), "flag");
  }
  {
    SecureStorage storage(key, path, 1000);
    storage.load();
    EXPECT_FALSE(storage.isEmpty());
    storage.load();
    storage.setObject(text(secretText(5)), "text");
  }
  {
    SecureStorage storage(key, path, 0);
    key->status = errSecInteractionNotAllowed;
    storage.load();
    storage.setObject(text(shortWord), "text");
    key->status = errSecSuccess;
    storage.setObject(text(shortWord), "more");  // reads what was out of reach
    EXPECT_EQ(storage.object("flag"), PropertyList(true));
  }
  SecureStorage storage(key, path, 0);
  storage.load();
  storage.reset(std::nullopt);
}

}  // namespace
}  // namespace velum
