#include "Velum/Platform/CertificateStore.h"

#include <cert.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <nss.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Linux/Certificates/CertificatePlace.h"
#include "Velum/Platform/Linux/Certificates/CertificateStoreLinux.h"
#include "Velum/Platform/Linux/Certificates/LockHolder.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Environment.h"
#include "tests/support/Inspection.h"
#include "tests/support/TestCertificates.h"

namespace velum {
namespace {

using test::modeOf;
using test::shell;
using test::TemporaryFolder;

using Labels = std::multiset<std::string>;
constexpr auto user = SecPreferencesDomain::user;
constexpr auto common = SecPreferencesDomain::common;

/// Rules, each for one use or for all.
PropertyList settings(
    const std::vector<std::pair<std::optional<std::string>, std::int64_t>>& rules) {
  PropertyList::Array list;
  for (const auto& [policy, result] : rules) {
    PropertyList::Dictionary entries;
    if (policy) entries.emplace("kSecTrustSettingsPolicyName", PropertyList(*policy));
    entries.emplace("kSecTrustSettingsResult", PropertyList(result));
    list.emplace_back(std::move(entries));
  }
  return PropertyList(std::move(list));
}

const PropertyList always{PropertyList::Array{}};

Labels labelsIn(CertificateStore& store, const SecKeychain& keychain) {
  const CertificateList list = store.list(keychain);
  EXPECT_EQ(list.status.text(), "No error.");
  Labels labels;
  for (const CertificateItem& item : list.items) labels.insert(item.label);
  return labels;
}

/// The user's certificates, in a home of the test's own.
class UserCertificates : public testing::Test {
 protected:
  SecKeychain keychain() { return store_.searchList(user).keychains.at(0); }
  Labels labels() { return labelsIn(store_, keychain()); }
  void add(const SecCertificate& certificate, const std::string& label) {
    EXPECT_EQ(store_.add(certificate, label, keychain()).text(), "No error.");
  }
  SecretStatus set(const SecCertificate& certificate, const std::optional<PropertyList>& value) {
    return store_.setTrustSettings(certificate, user, value).number;
  }
  std::string database() const { return home_ / ".pki/nssdb"; }
  /// The flags that NSS's own tool shows, as "CT,C,C".
  std::string shownFlags(const std::string& label = "root") const {
    return shell("certutil -L -d 'sql:" + database() + "' | awk '/^" + label + " / { print $NF }'")
        .output;
  }

  TemporaryFolder home_;
  test::ScopedVariable homeVariable_{"HOME", home_.path()};
  test::TestCertificates certificates_;
  CertificateStoreLinux store_;
};

TEST_F(UserCertificates, AreFoundByTheWholeLabelOnly) {
  EXPECT_EQ(labels(), Labels());
  EXPECT_FALSE(std::filesystem::exists(home_ / ".pki"));  // looking makes nothing
  EXPECT_EQ(store_.remove("x", keychain()).number, errSecItemNotFound);

  const auto first = certificates_.authority("first", "/CN=first");
  const auto sameSubject = certificates_.authority("same", "/CN=first");
  const auto second = certificates_.authority("second", "/CN=second");
  add(first, "Büro: 'A' [1]");
  add(second, "Büro: 'A' [1]");  // another subject
  add(sameSubject, "Büro");
  EXPECT_EQ(modeOf(database()), 0700);
  EXPECT_EQ(labels(), (Labels{"Büro: 'A' [1]", "Büro: 'A' [1]", "Büro"}));
  EXPECT_EQ(store_.add(first, "other", keychain()).number, errSecDuplicateItem);
  EXPECT_EQ(store_.add(first, std::string("a\0b", 3), keychain()).number, errSecParam);

  EXPECT_TRUE(store_.remove("Büro: 'A' [1]", keychain()).isSuccess());
  EXPECT_EQ(labels(), Labels{"Büro"});
  EXPECT_EQ(store_.list(keychain()).items.at(0).certificate, sameSubject);
  EXPECT_EQ(store_.remove("Büro: 'A' [1]", keychain()).number, errSecItemNotFound);

  // What other programs added has their name as its label.
  EXPECT_EQ(shell("certutil -A -n 'by hand' -t C,, -i '" + certificates_.pem("second") +
                  "' -d 'sql:" + database() + "'")
                .status,
            0);
  EXPECT_EQ(labels(), (Labels{"Büro", "by hand"}));
  EXPECT_EQ(store_.copyTrustSettings(second, user).settings, settings({{"sslServer", 1}}));
  EXPECT_TRUE(store_.remove("by hand", keychain()).isSuccess());
  EXPECT_EQ(labels(), Labels{"Büro"});
}

TEST_F(UserCertificates, KeepTrustSettingsAsTheStoresOwnToolsShowThem) {
  const auto root = certificates_.authority("root", "/CN=root");
  const auto noSettings = [&] {
    return store_.copyTrustSettings(root, user).status.number == errSecNoTrustSettings;
  };
  EXPECT_EQ(set(root, always), errSecItemNotFound);  // it has to be added first
  add(root, "root");
  EXPECT_TRUE(noSettings());

  const std::vector<std::pair<PropertyList, std::string>> cases{
      {always, "CT,C,C\n"},
      {settings({{"sslServer", 1}}), "C,,\n"},
      {settings({{"sslServer", 3}}), "p,,\n"},
      {settings({{"sslClient", 1}}), "T,,\n"},
      {settings({{"sslServer", 1}, {"SMIME", 3}, {"CodeSigning", 2}}), "C,p,P\n"},
      // An authority, but not for what it issues.
      {settings({{"sslServer", 2}, {"sslClient", 2}, {"SMIME", 2}, {"CodeSigning", 2}}), "P,P,P\n"},
  };
  for (const auto& [rules, flags] : cases) {
    EXPECT_EQ(set(root, rules), errSecSuccess) << flags;
    EXPECT_EQ(store_.copyTrustSettings(root, user).settings, rules) << flags;
    EXPECT_EQ(shownFlags(), flags);
  }
  // What can't be kept changes nothing, for a rule that is left out would be no rule.
  PropertyList forOneHost = settings({{"sslServer", 1}});
  std::get<PropertyList::Dictionary>(std::get<PropertyList::Array>(forOneHost.value)[0].value)
      .emplace("kSecTrustSettingsPolicyString", PropertyList(std::string("example.com")));
  for (const PropertyList& bad :
       {forOneHost, settings({{"eapServer", 1}}), settings({{"SMIME", 4}}), PropertyList(),
        PropertyList(PropertyList::Array(1))}) {
    EXPECT_EQ(set(root, bad), errSecParam);
  }
  EXPECT_EQ(shownFlags(), "P,P,P\n");

  EXPECT_EQ(set(root, settings({{std::nullopt, 3}})), errSecSuccess);  // for every use
  EXPECT_EQ(shownFlags(), "p,p,p\n");
  EXPECT_EQ(set(root, std::nullopt), errSecSuccess);
  EXPECT_TRUE(noSettings());
  EXPECT_EQ(set(root, always), errSecSuccess);
  EXPECT_TRUE(store_.remove("root", keychain()).isSuccess());
  add(root, "root");
  EXPECT_TRUE(noSettings()) << "trust outlived the certificate";
  const auto alone = certificates_.server("alone");  // is no authority
  add(alone, "alone");
  EXPECT_EQ(set(alone, always), errSecSuccess);
  EXPECT_EQ(store_.copyTrustSettings(alone, user).settings, always);
  EXPECT_EQ(shownFlags("alone"), "P,P,P\n");
}

TEST_F(UserCertificates, SayWhyADatabaseCantBeUsed) {
  const auto root = certificates_.authority("root", "/CN=root");
  const auto addTo = [&](const std::string& folder) {
    return store_.add(root, "n", SecKeychain{"sql:" + folder});
  };
  EXPECT_EQ(store_.add(root, "n", SecKeychain{"/org/secrets/collection"}).number,
            errSecNoSuchKeychain);
  test::writeFile(home_ / "file", "");
  EXPECT_EQ(addTo(home_ / "file").number, errSecErrnoBase + ENOTDIR);
  test::writeFile(home_ / "damaged/cert9.db", "no database");
  EXPECT_EQ(addTo(home_ / "damaged").number, errSecIO);
  EXPECT_EQ(store_.list(SecKeychain{"sql:" + (home_ / "damaged")}).status.number, errSecIO);
  EXPECT_EQ(test::readFile(home_ / "damaged/cert9.db"), "no database");

  const std::string odd = home_ / R"(o'd\d "<>[] folder)";
  EXPECT_EQ(addTo(odd).text(), "No error.");
  EXPECT_EQ(labelsIn(store_, SecKeychain{"sql:" + odd}), Labels{"n"});

  // A database with a password: settings are sealed with it.
  std::filesystem::create_directories(database());
  test::writeFile(home_ / "password", "secret");
  shell("certutil -N -f '" + (home_ / "password") + "' -d 'sql:" + database() + "'");
  add(root, "root");
  EXPECT_EQ(set(root, always), errSecInteractionNotAllowed);
  EXPECT_EQ(store_.copyTrustSettings(root, user).status.number, errSecNoTrustSettings);
  EXPECT_EQ(labels(), Labels{"root"});

  ::chmod(database().c_str(), 0500);
  ::chmod((database() + "/cert9.db").c_str(), 0400);
  if (::geteuid() != 0) {
    EXPECT_EQ(store_.remove("root", keychain()).number, errSecErrnoBase + EACCES);
  }
  EXPECT_EQ(labels(), Labels{"root"});
  ::chmod(database().c_str(), 0700);
}

TEST_F(UserCertificates, LeaveAnotherDatabaseOfThisProcessAlone) {
  const auto root = certificates_.authority("root", "/CN=root");
  const std::string other = "sql:" + (home_ / "other");
  std::filesystem::create_directories(home_ / "other");
  shell("certutil -N --empty-password -d '" + other + "' && certutil -A -n root -t C,, -i '" +
        certificates_.pem("root") + "' -d '" + other + "'");
  test::inChild([&] {
    ASSERT_EQ(NSS_InitReadWrite(other.c_str()), SECSuccess);
    EXPECT_EQ(labels(), Labels());
    EXPECT_EQ(store_.copyTrustSettings(root, user).status.number, errSecNoTrustSettings);
    add(root, "mine");
    EXPECT_EQ(set(root, settings({{std::nullopt, 3}})), errSecSuccess);
    EXPECT_EQ(labels(), Labels{"mine"});
    EXPECT_TRUE(store_.remove("mine", keychain()).isSuccess());
    CERTCertificate* const found = CERT_FindCertByNickname(CERT_GetDefaultCertDB(), "root");
    ASSERT_NE(found, nullptr);
    CERT_DestroyCertificate(found);
    EXPECT_EQ(NSS_Shutdown(), SECSuccess);
  });
  EXPECT_EQ(shell("certutil -L -d '" + other + "' | awk '/^root / { print $2 }'").output, "C,,\n");
}

/// The machine's certificates, in a system below a folder.
class MachineCertificatesTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* folder : {"etc/ssl/certs", "usr/share/ca-certificates", "usr/local/share"}) {
      std::filesystem::create_directories(root_ / folder);
    }
    test::writeFile(root_ / "etc/ca-certificates.conf", "");
  }

  SecKeychain keychain() { return store_.searchList(common).keychains.at(0); }
  Labels labels() { return labelsIn(store_, keychain()); }
  std::string folder() const { return root_ / "usr/local/share/ca-certificates"; }
  std::string bundle() const { return root_ / "etc/ssl/certs/ca-certificates.crt"; }
  std::vector<std::string> filesInFolder() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder())) {
      names.push_back(entry.path().filename());
    }
    return names;
  }
  std::string tool(const std::string& name, const std::string& script) const {
    test::writeFile(root_ / name, "#!/bin/sh\n" + script);
    ::chmod((root_ / name).c_str(), 0755);
    return root_ / name;
  }

  TemporaryFolder root_;
  test::TestCertificates certificates_;
  test::CapturedLog log_;  // of what the tool prints
  CertificateStoreLinux store_{root_.path()};
};

TEST_F(MachineCertificatesTest, AreWhatTlsClientsTrust) {
  const auto root = certificates_.authority("root", "/CN=root");
  static_cast<void>(certificates_.server("server", "root"));
  const auto isTrusted = [&] {
    const auto isVouchedFor = [&](const std::string& options) {
      return shell("openssl verify -no-CAstore " + options + "' '" + certificates_.pem("server") +
                   "'")
                 .status == 0;
    };
    const bool byBundle = isVouchedFor("-no-CApath -CAfile '" + bundle());
    EXPECT_EQ(byBundle, isVouchedFor("-no-CAfile -CApath '" + (root_ / "etc/ssl/certs")));
    return byBundle;
  };
  EXPECT_FALSE(isTrusted());
  EXPECT_EQ(store_.copyTrustSettings(root, common).status.number, errSecNoTrustSettings);
  EXPECT_EQ(store_.setTrustSettings(root, common, always).number, errSecItemNotFound);
  const mode_t before = ::umask(077);
  EXPECT_EQ(store_.add(root, "../Büro (1)", keychain()).text(), "No error.");
  ::umask(before);
  const auto files = filesInFolder();
  ASSERT_EQ(files.size(), 1U);
  EXPECT_EQ(modeOf(folder() + '/' + files[0]), 0644);
  EXPECT_TRUE(isTrusted());
  EXPECT_EQ(store_.copyTrustSettings(root, SecPreferencesDomain::system).settings, always);
  EXPECT_TRUE(store_.setTrustSettings(root, common, always).isSuccess());
  EXPECT_EQ(store_.setTrustSettings(root, common, settings({{std::nullopt, 3}})).number,
            errSecUnimplemented);
  EXPECT_EQ(store_.add(root, "again", keychain()).number, errSecDuplicateItem);
  EXPECT_EQ(labels(), Labels{"../Büro (1)"});

  EXPECT_EQ(store_.remove("Büro (1)", keychain()).number, errSecItemNotFound);
  EXPECT_EQ(store_.remove("../Büro (1)", keychain()).text(), "No error.");
  EXPECT_FALSE(isTrusted()) << "the last one left the machine's list as it was";
  EXPECT_EQ(filesInFolder().size(), 0U);
}

TEST_F(MachineCertificatesTest, OfOneLabelGoTogetherWhoeverAddedThem) {
  const auto first = certificates_.authority("first", "/CN=same");
  const auto second = certificates_.authority("second", "/CN=same");
  const auto third = certificates_.authority("third", "/CN=third");
  for (const auto* one : {&first, &second}) {
    EXPECT_TRUE(store_.add(*one, "both", keychain()).isSuccess());
  }
  test::writeFile(folder() + "/corp/by hand.crt", "A comment\n" + third.pem() + first.pem());
  test::writeFile(folder() + "/100%.crt", third.pem());
  test::writeFile(folder() + "/no certificate.crt", "text\n");
  test::writeFile(folder() + "/readme.txt", third.pem());
  std::filesystem::create_directory_symlink("..", folder() + "/corp/loop");
  test::writeFile(root_ / "elsewhere/other.crt", third.pem());
  std::filesystem::create_directory_symlink(root_ / "elsewhere", folder() + "/elsewhere");
  std::filesystem::create_symlink("itself", folder() + "/itself");
  EXPECT_EQ(labels(), (Labels{"both", "both", "corp/by hand", "corp/by hand", "100%"}));
  EXPECT_TRUE(store_.remove("both", keychain()).isSuccess());
  EXPECT_EQ(labels(), (Labels{"corp/by hand", "corp/by hand", "100%"}));
  EXPECT_TRUE(store_.remove("corp/by hand", keychain()).isSuccess());
  EXPECT_EQ(labels(), Labels{"100%"});
  EXPECT_TRUE(store_.copyTrustSettings(third, common).status.isSuccess());
  EXPECT_EQ(store_.copyTrustSettings(first, common).status.number, errSecNoTrustSettings);
  EXPECT_EQ(store_.add(first, std::string(200, 'x'), keychain()).number, errSecParam);

  // One damaged certificate, and clients refuse the whole list.
  test::writeFile(folder() + "/damaged.crt", "-----BEGIN CERTIFICATE-----\nAAAA\n");
  EXPECT_EQ(store_.add(first, "first", keychain()).number, errSecIO);
  EXPECT_EQ(labels(), Labels{"100%"});
  EXPECT_EQ(store_.copyTrustSettings(third, common).status.number, errSecNoTrustSettings);
}

TEST_F(MachineCertificatesTest, StayAsTheyWereWhenTheToolFails) {
  const test::Family family;  // ends what the tool leaves behind
  const auto root = certificates_.authority("root", "/CN=root");
  const auto other = certificates_.authority("other", "/CN=other");
  ASSERT_TRUE(store_.add(root, "there", keychain()).isSuccess());
  const auto files = filesInFolder();
  const auto isTrusted = [&](const SecCertificate& certificate) {
    return store_.copyTrustSettings(certificate, common).status.isSuccess();
  };
  const std::string real = std::string(CertificateStoreLinux::standardUpdater) + " \"$@\"";
  const std::string once = "[ ! -e '" + (root_ / "ran") + "' ] || exit 4; : >'" + (root_ / "ran");
  struct Case {
    std::string updater;
    const char* text;
    SecretStatus number = errSecIO;
    bool isUndone = true;
    MachineCertificates::Limits limits = {};
  };
  const Case hangs{tool("hangs", "sleep 60"),
                   "did not end within 1 s",
                   errSecIO,
                   true,
                   {.tool = std::chrono::milliseconds(1)}};
  for (const Case& one : {
           hangs,
           Case{tool("leaves one with its output", "sleep 60 & echo 'disk is\nfull'; exit 3"),
                "failed with status 3: disk is full"},
           Case{root_ / "missing", "can't be started", errSecNotAvailable},
           Case{tool("knows no options", "echo usage"), "made no new"},
           Case{tool("fails at its end", real + "; exit 3"), "failed with status 3"},
           Case{tool("works no second time", once + "'; " + real + "; exit 3"), "may still trust",
                errSecIO, false},
       }) {
    CertificateStoreLinux failing(root_.path(), one.updater, one.limits);
    SCOPED_TRACE(one.updater);
    const CertificateStatus added = failing.add(other, "new", keychain());
    EXPECT_EQ(added.number, one.number);
    EXPECT_NE(added.text().find(one.text), std::string::npos) << added.text();
    EXPECT_EQ(isTrusted(other), !one.isUndone);
    EXPECT_EQ(failing.remove("there", keychain()).number, one.number);
    EXPECT_EQ(filesInFolder(), files);
    EXPECT_TRUE(!one.isUndone || isTrusted(root));
  }
  std::filesystem::remove_all(folder());
  EXPECT_EQ(store_.remove("there", keychain()).number, errSecItemNotFound);
  test::writeFile(folder(), "a file");
  EXPECT_EQ(store_.add(other, "new", keychain()).number, errSecErrnoBase + ENOTDIR);
  EXPECT_EQ(store_.list(keychain()).status.number, errSecErrnoBase + ENOTDIR);
}

TEST_F(MachineCertificatesTest, AreChangedByOneProcessAtATimeThatNobodyElseCanHoldUp) {
  const auto root = certificates_.authority("root", "/CN=root");
  std::filesystem::create_directory(folder());
  const UniqueFd open(::open(folder().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(open.get(), LOCK_EX), 0);  // as everybody may
  CertificateStoreLinux impatient(root_.path(), CertificateStoreLinux::standardUpdater,
                                  {.lock = std::chrono::nanoseconds(0)});
  EXPECT_EQ(impatient.add(root, "there", keychain()).text(), "No error.");
  const std::string lock = root_ / "run/velum-certificates.lock";
  EXPECT_EQ(modeOf(lock), 0600);
  const UniqueFd held(::open(lock.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(held.get(), LOCK_EX), 0);
  const CertificateStatus status = impatient.remove("there", keychain());
  EXPECT_EQ(status.number, errSecErrnoBase + EBUSY);
  const std::string holder = "(process " + std::to_string(::getpid()) + ")";
  EXPECT_NE(status.text().find(holder), std::string::npos) << status.text();
}

TEST_F(UserCertificates, SayWhoHoldsTheirDatabaseWhileOtherLocksComeAndGo) {
  add(certificates_.authority("root", "/CN=root"), "root");
  const UniqueFd file(::open((database() + "/cert9.db").c_str(), O_RDWR | O_CLOEXEC));
  struct flock whole {};
  whole.l_type = F_WRLCK;
  ASSERT_EQ(::fcntl(file.get(), F_OFD_SETLK, &whole), 0);
  const CertificateStatus status = store_.remove("root", keychain());
  EXPECT_EQ(status.number, errSecErrnoBase + EBUSY) << status.text();
  std::vector<std::jthread> others;
  for (const char* const name : {"first", "second"}) {
    others.emplace_back([path = home_ / name](const std::stop_token& stop) {
      const UniqueFd other(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
      while (!stop.stop_requested()) {
        ::flock(other.get(), LOCK_EX);
        ::flock(other.get(), LOCK_UN);
      }
    });
  }
  int found = 0;
  constexpr int looks = 500;
  for (int look = 0; look < looks; ++look) found += holderOfLock(database() + "/cert9.db") ? 1 : 0;
  EXPECT_EQ(found, looks);
  EXPECT_EQ(holderOfLock(home_ / "missing"), std::nullopt);
}

TEST(SecCertificate, IsOnlyWhatCanBeParsed) {
  const test::TestCertificates certificates;
  const auto root = certificates.authority("root", "/O=Acme\nInc\x7F/CN=Grüße\x1E");
  EXPECT_EQ(root.description(), "Grüße ");
  EXPECT_EQ(certificates.authority("unnamed", "/C=AT").description(), "");
  EXPECT_TRUE(root.isAuthority());
  EXPECT_FALSE(certificates.server("server", "root").isAuthority());
  EXPECT_EQ(shell("openssl x509 -noout -fingerprint -sha256 -in '" + certificates.pem("root") +
                  "' | sed 's/.*=//; s/://g' | tr -d '\\n' | tr A-F a-f")
                .output,
            root.fingerprint());

  auto der = root.der();
  der.push_back(0);
  EXPECT_FALSE(SecCertificate::fromDer(der).has_value());
  der.resize(der.size() - 2);
  EXPECT_FALSE(SecCertificate::fromDer(der).has_value());
  const auto count = [](const std::string& file) {
    return SecCertificate::fromFile(byteView(file)).size();
  };
  const std::string pem = root.pem();
  EXPECT_EQ(pem, test::readFile(certificates.pem("root")));
  EXPECT_EQ(labelOf(uniqueName("x y", ' ', root), ' ', root), "x y");
  EXPECT_EQ(count(pem + "text\n" + test::readFile(certificates.key("root")) + pem), 2U);
  EXPECT_EQ(count(std::string(root.der().begin(), root.der().end())), 1U);
  EXPECT_EQ(count(pem + pem.substr(0, pem.size() / 2)), 0U);
  EXPECT_EQ(count("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n" + pem), 0U);
}

}  // namespace
}  // namespace velum
