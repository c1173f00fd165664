#include "Velum/AES.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <numeric>

#include "Velum/SealedBox.h"
#include "Velum/StorageError.h"

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

// NIST SP 800-38A, F.2.1 to F.2.6; the block after the four is what the padding becomes.
constexpr const char* nistVector = "000102030405060708090a0b0c0d0e0f";
constexpr const char* nistPlain =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
constexpr std::array<Vector, 3> nist{{
    // NOLINT(modernize-avoid-c-arrays)
    {"2b7e151628aed2a6abf7158809cf4f3c",
     "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
     "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"
     "8cb82807230e1321d3fae00d18cc2012"},
    {"8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
     "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
     "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd"
     "612ccd79224b350935d45dd6a98f8176"},
    {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
     "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
     "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"
     "3f461796d6b0d6b2e0c2a72b4d80e644"},
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
  std::vector<Bytes> blobs;
  for (int round = 0; round < 1000; ++round) {
    Bytes& blob = blobs.emplace_back(AES::encryptedSize(16));
    aes.encrypt(Bytes(16), blob);
    blobs.push_back(AES::encrypted(Bytes(16), counted(32)));
  }
  const auto countOf = [&](std::size_t begin) {
    std::vector<Bytes> parts;
    for (const auto& blob : blobs) {
      const auto from = blob.begin() + static_cast<std::ptrdiff_t>(begin);
      parts.emplace_back(from, from + 16);
    }
    std::sort(parts.begin(), parts.end());
    return std::unique(parts.begin(), parts.end()) - parts.begin();
  };
  EXPECT_EQ(countOf(0), 2000);
  EXPECT_EQ(countOf(16), 2000);
}

TEST(Aes, TakesKeysOfThreeLengthsOnly) {
  for (std::size_t size = 0; size <= 40; ++size) {
    const Bytes key = counted(size);
    const std::string expected = size == 16 || size == 24 || size == 32
                                     ? "none"
                                     : "Invalid key length " + std::to_string(size);
    EXPECT_EQ(errorOf([&] { AES::encrypted(counted(5), key); }), expected);
    const Bytes blob = AES::encrypted(counted(5), counted(expected == "none" ? size : 16));
    EXPECT_EQ(errorOf([&] { AES::decrypted(blob, key); }), expected);
    // The key is looked at first.
    const std::string first = expected == "none" ? "Decryption failed -4300" : expected;
    EXPECT_EQ(errorOf([&] { AES::decrypted({}, key); }), first);
  }
}

TEST(Aes, RefusesBlobsOfWrongLengths) {
  const Bytes key = counted(32);
  const Bytes blob = AES::encrypted(counted(40), key);
  for (std::size_t size = 0; size <= blob.size(); ++size) {
    const auto error = errorOf([&] { AES::decrypted(ByteView(blob).first(size), key); });
    if (size < 16) {
      EXPECT_EQ(error, "Decryption failed -4300");
    } else if (size % 16 != 0) {
      EXPECT_EQ(error, "Decryption failed -4303");
    } else if (size == 16) {
      EXPECT_EQ(error, "Decryption failed -4304");
    } else if (size == blob.size()) {
      EXPECT_EQ(error, "none");
    }
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

TEST(Aes, SurvivesWrongKeysAndEveryFlippedBit) {
  const Bytes key = counted(32);
  const Bytes data = counted(33);
  const Bytes blob = AES::encrypted(data, key);
  const auto isRefusedOrOther = [&](ByteView damaged, ByteView withKey) {
    const auto error = errorOf([&] {
      // One time in 256 the padding happens to be right.
      EXPECT_FALSE(equal(AES::decrypted(damaged, withKey), data));
    });
    return error == "none" || error == "Decryption failed -4304";
  };
  for (std::size_t bit = 0; bit < blob.size() * 8; ++bit) {
    Bytes damaged = blob;
    damaged[bit / 8] ^= static_cast<std::uint8_t>(1U << (bit % 8));
    EXPECT_TRUE(isRefusedOrOther(damaged, key)) << bit;
  }
  for (std::uint8_t other = 0; other < 255; ++other) {
    Bytes wrong = key;
    wrong[other % wrong.size()] ^= static_cast<std::uint8_t>(other + 1);
    EXPECT_TRUE(isRefusedOrOther(blob, wrong));
  }
}

// The test cases 13 and 15 of the mode's designers.
TEST(SealedBox, AgreesWithPublishedVectors) {
  EXPECT_EQ(SealedBox(Bytes(32)).open(bytes("000000000000000000000000"
                                            "530f8afbc74536b9a963b4f1c4cb738b")),
            SecretBytes{});
  SealedBox box(bytes("feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308"));
  const SecretBytes plain =
      box.open(bytes("cafebabefacedbaddecaf888"
                     "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
                     "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662898015ad"
                     "b094dac5d93471bdec1a502270e3cc6c"));
  EXPECT_TRUE(
      equal(plain, bytes("d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
                         "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255")));
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
