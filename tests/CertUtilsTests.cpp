#include "Velum/CertUtils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/CapturedLog.h"
#include "tests/support/TestCertificates.h"

namespace velum {
namespace {

using test::CapturedLog;
using testing::ElementsAre;
using testing::HasSubstr;

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

  static const SecCertificate& certificate() {
    static const SecCertificate& made =
        *new SecCertificate(test::TestCertificates().authority("a", "/O=Acme/CN=Acme Root"));
    return made;
  }

  static constexpr auto common = SecPreferencesDomain::common;
  FakeCertificateStore store_;
  const CapturedLog log_;
};

TEST_F(CertUtilsTest, ChangesTheDomainsFirstKeychainAndSaysWhyItCouldNot) {
  const auto add = [&](const auto& place) {
    return CertUtils::addCertificate(certificate(), "n", place, store_).number;
  };
  const auto remove = [&](const auto& place) {
    return CertUtils::removeCertificate("n", place, store_).number;
  };
  EXPECT_EQ(add(common), errSecSuccess);
  EXPECT_EQ(remove(common), errSecSuccess);
  store_.status = {errSecDuplicateItem};
  EXPECT_EQ(add(SecKeychain{"k"}), errSecDuplicateItem);
  store_.status = {errSecIO, "the tool's own words"};
  EXPECT_EQ(remove(SecKeychain{"k"}), errSecIO);
  EXPECT_EQ(add(SecPreferencesDomain::dynamic), errSecNoSuchKeychain);
  EXPECT_EQ(remove(SecPreferencesDomain::user), errSecNoSuchKeychain);  // whose search fails
  EXPECT_EQ(store_.calls,
            (Texts{"add n to common", "remove n from common", "add n to k", "remove n from k"}));
  const std::string begin = "I: (CertUtils) Deleting certs from system keychain by name: n";
  const std::string none = "There is no keychain for domain SecPreferencesDomain(rawValue: ";
  EXPECT_THAT(log_.texts(),
              ElementsAre(begin,
                          "E: (CertUtils: addCertificate(_:named:toKeychain:)) Failed to add "
                          "certificate \"n\". The specified item already exists in the keychain.",
                          begin,
                          "E: (CertUtils: removeCertificate(named:fromKeychain:)) Failed to delete "
                          "certificate \"n\". the tool's own words",
                          "E: (CertUtils: addCertificate(_:named:toDomain:)) " + none + "3)",
                          HasSubstr("Failed searching for keychain in SecPref"),
                          "E: (CertUtils: removeCertificate(named:fromDomain:)) " + none + "0)"));
}

TEST_F(CertUtilsTest, SaysWhyTrustSettingsCantBeCopied) {
  const auto isTrusted = [&] {
    return CertUtils::isCertificateTrusted(certificate(), common, store_);
  };
  store_.status = {errSecNoTrustSettings};
  EXPECT_FALSE(isTrusted());
  store_.status = {};
  EXPECT_FALSE(isTrusted());
  PropertyList::Array mixed{PropertyList(std::int64_t{1}), PropertyList()};
  store_.settings = PropertyList(std::move(mixed));
  EXPECT_FALSE(isTrusted());
  const std::string tag = "E: (CertUtils: copyTrustSettings(for:inDomain:)) ";
  const std::string untrusted =
      "E: (CertUtils: isCertificateTrusted(_:inDomain:)) Failed to get trust settings for Acme "
      "Root";
  EXPECT_THAT(
      log_.texts(),
      ElementsAre(tag + "SecTrustSettingsCopyTrustSettings failed: No trust settings were "
                        "found.",
                  untrusted, tag + "Failed to coerce unset to [[String:AnyObject]]", untrusted,
                  tag + "Failed to coerce [1, []] to [[String:AnyObject]]", untrusted));
}

TEST_F(CertUtilsTest, TrustsWhatEverySettingTrustsAsRoot) {
  using Dictionary = PropertyList::Dictionary;
  const auto result = [](auto value) {
    Dictionary setting;
    setting.emplace("kSecTrustSettingsResult", PropertyList(value));
    return setting;
  };
  const Dictionary root = result(std::int64_t{1});
  for (const auto& [settings, isTrusted] : {std::pair(std::vector<Dictionary>{}, true),
                                            {{root, root}, true},
                                            {{root, {}}, false},
                                            {{root, result(std::int64_t{2})}, false},
                                            {{result((std::int64_t{1} << 32) + 1)}, false},
                                            {{result(std::string("1"))}, false},
                                            {{result(true)}, false}}) {
    store_.settings = PropertyList(PropertyList::Array(settings.begin(), settings.end()));
    EXPECT_EQ(CertUtils::copyTrustSettings(certificate(), common, store_), settings);
    EXPECT_EQ(CertUtils::isCertificateTrusted(certificate(), common, store_), isTrusted);
  }
  EXPECT_EQ(CertUtils::setTrustSettings(certificate(), common, store_).number, errSecSuccess);
  EXPECT_TRUE(CertUtils::isCertificateTrusted(certificate(), common, store_));
  store_.status = {-1};
  EXPECT_EQ(CertUtils::setTrustSettings(certificate(), common, store_).number, -1);
  EXPECT_THAT(log_.texts(), ElementsAre("I: (CertUtils) Error set trust settings: -1"));
}

}  // namespace
}  // namespace velum
