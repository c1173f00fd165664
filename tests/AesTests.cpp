#include "Velum/AES.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <set>

#include "Velum/Sealing/SealedBox.h"
#include "Velum/Sealing/StorageError.h"

namespace velum {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytes(std::string_view hex) {
  Bytes result;
  for (std::size_t at = 0; at < hex.size(); at += 2) {
    result.push_back(static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(at, 2)), {}, 16)));
  }
  return result;
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

struct Vector {
  const char* key;
  const char* ciphertext;
};

// NIST SP 800-38A, F.2.1 to F.2.6: the first block; the one after it is what the padding becomes.
constexpr const char* nistVector = "000102030405060708090a0b0c0d0e0f";
constexpr const char* nistPlain = "6bc1bee22e409f96e93d7e117393172a";
constexpr std::array<Vector, 3> nist{{
    {"2b7e151628aed2a6abf7158809cf4f3c",
     "7649abac8119b246cee98e9b12e9197d8964e0b149c10b7b682e6e39aaeb731c"},
    {"8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
     "4f021db243bc633d7178183a9fa071e8a647f1643b94812a175a13c8fa2014b2"},
    {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
     "f58c4c04d6e5f1ba779eabfb5f7bfbd6485a5c81519cf378fa36d42b8547edc0"},
}};

TEST(Aes, AgreesWithPublishedVectors) {
  for (const auto& [key, ciphertext] : nist) {
    const Bytes blob = bytes(std::string(nistVector) + ciphertext);
    EXPECT_TRUE(equal(AES::decrypted(blob, bytes(key)), bytes(nistPlain))) << key;

    const Bytes own = AES::encrypted(bytes(nistPlain), bytes(key));
    EXPECT_EQ(own.size(), blob.size());
    EXPECT_TRUE(equal(AES::decrypted(own, bytes(key)), bytes(nistPlain)));
  }
}

TEST(Aes, BringsBackEveryLength) {
  for (const std::size_t keySize : {16U, 24U, 32U}) {
    AES aes(counted(keySize));
    for (std::size_t size = 0; size <= 33; ++size) {
      const Bytes data = counted(size);
      const Bytes blob = AES::encrypted(data, counted(keySize));
      EXPECT_EQ(blob.size(), 16 + (size / 16 + 1) * 16);
      EXPECT_TRUE(equal(AES::decrypted(blob, counted(keySize)), data));

      Bytes again(AES::encryptedSize(size));
      aes.encrypt(data, again);
      Bytes inPlace(again.size());
      std::copy(data.begin(), data.end(), inPlace.begin() + 16);
      aes.encrypt(std::span(inPlace).subspan(16, size), inPlace);
      EXPECT_TRUE(equal(AES::decrypted(inPlace, counted(keySize)), data));
      Bytes plain(again.size() - 16);
      plain.resize(aes.decrypt(blob, plain));
      EXPECT_EQ(plain, data);
      EXPECT_TRUE(equal(AES::decrypted(again, counted(keySize)), data));
    }
    for (const std::size_t size : {4095U, 4096U, 4097U, 5000U, 100'000U}) {
      EXPECT_TRUE(
          equal(AES::decrypted(AES::encrypted(counted(size), counted(keySize)), counted(keySize)),
                counted(size)));
    }
  }
}

TEST(Aes, NeverUsesAVectorTwice) {
  AES aes(counted(32));
  std::set<Bytes> blobs;
  for (int round = 0; round < 1000; ++round) {
    Bytes blob(AES::encryptedSize(16));
    aes.encrypt(Bytes(16), blob);
    blobs.emplace(blob.begin(), blob.begin() + 16);
    blob = AES::encrypted(Bytes(16), counted(32));
    blobs.emplace(blob.begin(), blob.begin() + 16);
  }
  EXPECT_EQ(blobs.size(), 2000U);
}

TEST(Aes, TakesKeysOfThreeLengthsOnly) {
  for (const std::size_t size : {0U, 15U, 17U, 31U, 33U}) {
    const std::string expected = "Invalid key length " + std::to_string(size);
    EXPECT_EQ(errorOf([&] { AES::encrypted(counted(5), counted(size)); }), expected);
    // The key is looked at first.
    EXPECT_EQ(errorOf([&] { AES::decrypted({}, counted(size)); }), expected);
  }
}

TEST(Aes, RefusesBlobsOfWrongLengths) {
  const Bytes key = counted(32);
  const Bytes blob = AES::encrypted(counted(40), key);
  for (const auto& one :
       {std::pair(0U, -4300), {15U, -4300}, {16U, -4304}, {17U, -4303}, {63U, -4303}}) {
    EXPECT_EQ(errorOf([&] { AES::decrypted(ByteView(blob).first(one.first), key); }),
              "Decryption failed " + std::to_string(one.second))
        << one.first;
  }
  EXPECT_EQ(errorOf([&] {
              Bytes small(blob.size() - 17);
              AES(key).decrypt(blob, small);
            }),
            "Decryption failed -4300");
  EXPECT_EQ(errorOf([&] {
              Bytes small(AES::encryptedSize(40) - 1);
              AES(key).encrypt(counted(40), small);
            }),
            "Encryption failed -4300");
}

TEST(Aes, LeavesNothingBehindWhenItFails) {
  const Bytes key = counted(32);
  Bytes blob = AES::encrypted(counted(100), key);
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
