#include "Velum/AES.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <set>
#include <utility>

#include "Velum/Sealing/SealedBox.h"
#include "Velum/Sealing/StorageError.h"
#include "tests/support/Hex.h"

namespace velum {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytes(std::string_view hex) {
  const std::string text = test::bytesOfHex(hex);
  return {text.begin(), text.end()};
}

Bytes counted(std::size_t size) {
  Bytes result(size);
  std::iota(result.begin(), result.end(), std::uint8_t{1});
  return result;
}

bool equal(ByteView one, ByteView other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end());
}

/// The error of `work` as "message detail"; "none" when it throws nothing.
template <class Work>
std::string errorOf(Work work) {
  try {
    work();
  } catch (const AESError& error) {
    return error.what() + (' ' + std::to_string(error.detail()));
  } catch (const StorageError& error) {
    return error.what();
  }
  return "none";
}

TEST(Aes, AgreesWithPublishedVectors) {
  // NIST SP 800-38A, F.2.1 to F.2.6: the first block; the one after it is what the padding becomes.
  const std::string vector = "000102030405060708090a0b0c0d0e0f";
  const Bytes plain = bytes("6bc1bee22e409f96e93d7e117393172a");
  for (const auto& [key, ciphertext] :
       {std::pair("2b7e151628aed2a6abf7158809cf4f3c",
                  "7649abac8119b246cee98e9b12e9197d8964e0b149c10b7b682e6e39aaeb731c"),
        {"8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
         "4f021db243bc633d7178183a9fa071e8a647f1643b94812a175a13c8fa2014b2"},
        {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
         "f58c4c04d6e5f1ba779eabfb5f7bfbd6485a5c81519cf378fa36d42b8547edc0"}}) {
    EXPECT_TRUE(equal(AES::decrypted(bytes(vector + ciphertext), bytes(key)), plain)) << key;
  }
}

TEST(Aes, BringsBackEveryLength) {
  std::vector<std::size_t> sizes(34);
  std::iota(sizes.begin(), sizes.end(), 0U);
  sizes.insert(sizes.end(), {4095U, 4096U, 4097U, 5000U, 100'000U});
  for (const std::size_t keySize : {16U, 24U, 32U}) {
    AES aes(counted(keySize));
    for (const std::size_t size : sizes) {
      const Bytes data = counted(size);
      const Bytes blob = AES::encrypted(data, counted(keySize));
      EXPECT_EQ(blob.size(), 16 + (size / 16 + 1) * 16);
      EXPECT_TRUE(equal(AES::decrypted(blob, counted(keySize)), data));

      Bytes inPlace(blob.size());
      std::copy(data.begin(), data.end(), inPlace.begin() + 16);
      aes.encrypt(std::span(inPlace).subspan(16, size), inPlace);
      EXPECT_FALSE(equal(ByteView(inPlace).first(16), ByteView(blob).first(16)));
      Bytes plain(blob.size() - 16);
      plain.resize(aes.decrypt(inPlace, plain));
      EXPECT_EQ(plain, data);
    }
  }
}

TEST(Aes, NeverUsesAVectorTwice) {
  AES aes(counted(32));
  std::set<Bytes> vectors;
  for (int round = 0; round < 1000; ++round) {
    Bytes blob(AES::encryptedSize(0));
    aes.encrypt({}, blob);
    vectors.emplace(blob.begin(), blob.begin() + 16);
  }
  EXPECT_EQ(vectors.size(), 1000U);
}

TEST(Aes, RefusesKeysAndBlobsOfWrongLengthsAndLeavesNothingBehind) {
  for (const std::size_t size : {0U, 15U, 17U, 31U, 33U}) {
    const std::string expected = "Invalid key length " + std::to_string(size);
    EXPECT_EQ(errorOf([&] { AES::encrypted(counted(5), counted(size)); }), expected);
    // The key is looked at first.
    EXPECT_EQ(errorOf([&] { AES::decrypted({}, counted(size)); }), expected);
  }
  const Bytes key = counted(32);
  Bytes blob = AES::encrypted(counted(40), key);
  for (const auto& [size, number] :
       {std::pair(0U, -4300), {15U, -4300}, {16U, -4304}, {17U, -4303}, {63U, -4303}}) {
    EXPECT_EQ(errorOf([&, size = size] { AES::decrypted(ByteView(blob).first(size), key); }),
              "Decryption failed " + std::to_string(number));
  }
  Bytes small(blob.size() - 17);
  EXPECT_EQ(errorOf([&] { AES(key).decrypt(blob, small); }), "Decryption failed -4300");
  EXPECT_EQ(errorOf([&] { AES(key).encrypt(counted(40), small); }), "Encryption failed -4300");
  blob[blob.size() - 17] ^= 1U;  // the last byte of the padding becomes another
  Bytes plain(blob.size() - 16, 7);
  EXPECT_EQ(errorOf([&] { AES(key).decrypt(blob, plain); }), "Decryption failed -4304");
  EXPECT_EQ(plain, Bytes(plain.size(), 0));
}

// The test case 14 of the mode's designers.
TEST(SealedBox, AgreesWithPublishedVectors) {
  EXPECT_TRUE(equal(SealedBox(Bytes(32)).open(bytes("000000000000000000000000"
                                                    "cea7403d4d606b6e074ec5d3baf39d18"
                                                    "d0d1c8a799996bf0265b98b5d48ab919")),
                    Bytes(16)));
}

TEST(SealedBox, RefusesEveryChangeAndTruncation) {
  const SecretBytes key = SealedBox::newKey();
  SealedBox box(key);
  for (const std::size_t size : {0U, 1U, 16U, 50U}) {
    const std::string sealed = box.seal(counted(size));
    ASSERT_EQ(sealed.size(), size + 28);
    EXPECT_TRUE(equal(SealedBox(key).open(byteView(sealed)), counted(size)));
    EXPECT_NE(box.seal(counted(size)), sealed);  // another nonce
    for (std::size_t length = 0; length < sealed.size(); ++length) {
      EXPECT_EQ(errorOf([&] { box.open(byteView(sealed.substr(0, length))); }),
                length < 28 ? "incorrectParameterSize" : "authenticationFailure");
    }
    for (std::size_t bit = 0; bit < sealed.size() * 8; ++bit) {
      std::string damaged = sealed;
      damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ static_cast<char>(1U << (bit % 8)));
      EXPECT_EQ(errorOf([&] { box.open(byteView(damaged)); }), "authenticationFailure");
    }
    EXPECT_EQ(errorOf([&] { SealedBox(SealedBox::newKey()).open(byteView(sealed)); }),
              "authenticationFailure");
  }
  EXPECT_EQ(errorOf([] { SealedBox(counted(16)); }), "incorrectKeySize");
}

TEST(SealedBox, WorksInPlace) {
  SealedBox box(counted(32));
  Bytes buffer(1000 + SealedBox::overhead);
  const auto content = std::span(buffer).subspan(SealedBox::nonceSize, 1000);
  std::copy_n(counted(1000).begin(), 1000, content.begin());
  box.seal(content, buffer);
  EXPECT_TRUE(equal(SealedBox(counted(32)).open(buffer), counted(1000)));
  buffer.back() ^= 1U;
  EXPECT_EQ(errorOf([&] { box.open(buffer, content); }), "authenticationFailure");
  EXPECT_TRUE(equal(content, Bytes(1000, 0)));
}

}  // namespace
}  // namespace velum
