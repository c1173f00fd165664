#include "Velum/CertUtils.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/CapturedLog.h"
#include "tests/support/TestCertificates.h"

namespace velum {
namespace {

using test::CapturedLog;

/// A store with the keychain "common" only, whose every operation ends with `status`.
class FakeCertificateStore final : public CertificateStore {
 public:
  SecKeychainList searchList(SecPreferencesDomain domain) override {
    if (domain == SecPreferencesDomain::user) return {errSecNotAvailable, {}};
    if (domain != SecPreferencesDomain::common) return {};
    return {errSecSuccess, {{"common"}, {"other"}}};
  }
  CertificateStatus add(const SecCertificate& /*certificate*/, const std::string& label,
                        const SecKeychain& keychain) override {
    calls.push_back("add " + label + " to " + keychain.name);
    return status;
  }
  CertificateStatus remove(const std::string& label, const SecKeychain& keychain) override {
    calls.push_back("remove " + label + " from " + keychain.name);
    return status;
  }
  CertificateList list(const SecKeychain& /*keychain*/) override { return {status, {}}; }
  TrustSettings copyTrustSettings(const SecCertificate& /*certificate*/,
                                  SecPreferencesDomain /*domain*/) override {
    return {status, settings};
  }
  CertificateStatus setTrustSettings(const SecCertificate& /*certificate*/,
                                     SecPreferencesDomain /*domain*/,
                                     const std::optional<PropertyList>& changed) override {
    if (status.isSuccess() && changed) settings = *changed;
    return status;
  }

  CertificateStatus status;
  PropertyList settings{std::string("unset")};
  std::vector<std::string> calls;
};

class CertUtilsTest : public testing::Test {
 protected:
  using Texts = std::vector<std::string>;

  /// The records since the last call.
  Texts records() {
    Texts texts = log_.texts();
    texts.erase(texts.begin(), texts.begin() + static_cast<std::ptrdiff_t>(seen_));
    seen_ += texts.size();
    return texts;
  }

  static const SecCertificate& certificate() {
    static const SecCertificate& made =
        *new SecCertificate(test::TestCertificates().authority("a", "/O=Acme/CN=Acme Root"));
    return made;
  }

  static constexpr auto common = SecPreferencesDomain::common;
  FakeCertificateStore store_;

 private:
  CapturedLog log_;
  std::size_t seen_ = 0;
};

TEST_F(CertUtilsTest, TouchesNoKeychainWhenTheDomainHasNone) {
  for (const auto domain : {SecPreferencesDomain::dynamic, SecPreferencesDomain::user}) {
    const std::string number = domain == SecPreferencesDomain::user ? "0" : "3";
    const std::string reason =
        "There is no keychain for domain SecPreferencesDomain(rawValue: " + number + ")";
    EXPECT_EQ(CertUtils::addCertificate(certificate(), "n", domain, store_).number,
              errSecNoSuchKeychain);
    EXPECT_EQ(records().back(), "E: (CertUtils: addCertificate(_:named:toDomain:)) " + reason);
    EXPECT_EQ(CertUtils::removeCertificate("n", domain, store_).number, errSecNoSuchKeychain);
    const Texts texts = records();
    EXPECT_EQ(texts.back(), "E: (CertUtils: removeCertificate(named:fromDomain:)) " + reason);
    // A search that failed is reported as such, too.
    EXPECT_EQ(texts.size(), domain == SecPreferencesDomain::user ? 2U : 1U);
  }
  EXPECT_EQ(store_.calls, Texts());
}

TEST_F(CertUtilsTest, AddsToAndRemovesFromTheDomainsFirstKeychain) {
  EXPECT_TRUE(CertUtils::addCertificate(certificate(), "n", common, store_).isSuccess());
  EXPECT_EQ(records(), Texts());
  EXPECT_TRUE(CertUtils::removeCertificate("n", common, store_).isSuccess());
  const std::string begin = "I: (CertUtils) Deleting certs from system keychain by name: n";
  EXPECT_EQ(records(), Texts{begin});

  store_.status = {errSecDuplicateItem};
  EXPECT_EQ(CertUtils::addCertificate(certificate(), "n", SecKeychain{"k"}, store_).number,
            errSecDuplicateItem);
  EXPECT_EQ(records(), Texts{"E: (CertUtils: addCertificate(_:named:toKeychain:)) Failed to add "
                             "certificate \"n\". The specified item already exists in the "
                             "keychain."});
  store_.status = {errSecIO, "the tool's own words"};
  EXPECT_EQ(CertUtils::removeCertificate("n", SecKeychain{"k"}, store_).number, errSecIO);
  EXPECT_EQ(records(), (Texts{begin,
                              "E: (CertUtils: removeCertificate(named:fromKeychain:)) "
                              "Failed to delete certificate \"n\". the tool's own words"}));
  EXPECT_EQ(store_.calls,
            (Texts{"add n to common", "remove n from common", "add n to k", "remove n from k"}));
}

TEST_F(CertUtilsTest, SaysWhyTrustSettingsCantBeCopied) {
  const std::string tag = "E: (CertUtils: copyTrustSettings(for:inDomain:)) ";
  const std::string untrusted =
      "E: (CertUtils: isCertificateTrusted(_:inDomain:)) Failed to get trust settings for Acme "
      "Root";
  store_.status = {errSecNoTrustSettings};
  EXPECT_FALSE(CertUtils::isCertificateTrusted(certificate(), common, store_));
  EXPECT_EQ(records(), (Texts{tag + "SecTrustSettingsCopyTrustSettings failed: No trust settings "
                                    "were found.",
                              untrusted}));
  store_.status = {};
  EXPECT_FALSE(CertUtils::isCertificateTrusted(certificate(), common, store_));
  EXPECT_EQ(records(), (Texts{tag + "Failed to coerce unset to [[String:AnyObject]]", untrusted}));
  PropertyList::Array mixed{PropertyList(std::int64_t{1}), PropertyList()};
  store_.settings = PropertyList(std::move(mixed));
  EXPECT_EQ(CertUtils::copyTrustSettings(certificate(), common, store_), std::nullopt);
  EXPECT_EQ(records(), Texts{tag + "Failed to coerce [1, []] to [[String:AnyObject]]"});
}

TEST_F(CertUtilsTest, TrustsWhatEverySettingTrustsAsRoot) {
  using Dictionary = PropertyList::Dictionary;
  const auto isTrusted = [this](const std::vector<Dictionary>& settings) {
    PropertyList::Array list;
    for (const Dictionary& setting : settings) list.emplace_back(setting);
    store_.settings = PropertyList(std::move(list));
    EXPECT_EQ(CertUtils::copyTrustSettings(certificate(), common, store_), settings);
    return CertUtils::isCertificateTrusted(certificate(), common, store_);
  };
  const auto result = [](auto value) {
    Dictionary setting;
    setting.emplace("kSecTrustSettingsResult", PropertyList(value));
    return setting;
  };
  const Dictionary root = result(std::int64_t{1});
  EXPECT_TRUE(isTrusted({}));
  EXPECT_TRUE(isTrusted({root, root}));
  EXPECT_FALSE(isTrusted({root, {}}));
  EXPECT_FALSE(isTrusted({root, result(std::int64_t{2})}));
  EXPECT_FALSE(isTrusted({result((std::int64_t{1} << 32) + 1)}));
  EXPECT_FALSE(isTrusted({result(std::string("1"))}));
  EXPECT_FALSE(isTrusted({result(true)}));
  EXPECT_EQ(records(), Texts());
}

TEST_F(CertUtilsTest, SetsToAlwaysTrusted) {
  EXPECT_EQ(CertUtils::setTrustSettings(certificate(), common, store_).number, errSecSuccess);
  EXPECT_TRUE(CertUtils::isCertificateTrusted(certificate(), common, store_));
  EXPECT_EQ(records(), Texts());
  store_.status = {-1};
  EXPECT_EQ(CertUtils::setTrustSettings(certificate(), common, store_).number, -1);
  EXPECT_EQ(records(), Texts{"I: (CertUtils) Error set trust settings: -1"});
}

}  // namespace
}  // namespace velum
