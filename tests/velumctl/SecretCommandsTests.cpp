#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "Velum/Base/ByteView.h"
#include "Velum/PropertyList/PropertyList.h"
#include "Velum/Sealing/SealedBox.h"
#include "tests/support/Environment.h"
#include "tests/support/SecretEnvironment.h"
#include "tests/velumctl/VelumctlTest.h"

namespace velum::test {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using Entries = PropertyList::Dictionary;

constexpr std::string_view secret = "s\xFF\0cret\n";
const std::string service = "com.example.velumctl-tests";

std::string secretText() {
  return {secret.data(), 8};
}

class VelumctlKeychain : public VelumctlTest {
 protected:
  Result keychain(const std::string& command, const Strings& options,
                  const std::string& input = {}) const {
    return run(Strings{"keychain", command} + options, input);
  }
  static void expectMissing(const Result& result) {
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, AllOf(StartsWith("velumctl: "), HasSubstr("(-25300);")));
    EXPECT_EQ(std::ranges::count(result.errors, '\n'), 1);
    EXPECT_THAT(result.output, IsEmpty());
  }
};

TEST_F(VelumctlKeychain, SetsListsGetsAndDeletes) {
  const SecretEnvironment environment;
  const Strings item{"token", "--service", service};
  const Strings ofGroup = item + Strings{"--group", "te\x1B\tam"};
  expectMissing(keychain("get", item));
  EXPECT_EQ(keychain("set", item + Strings{"--stdin"}, secretText()).status, 0);
  EXPECT_EQ(keychain("set", ofGroup + Strings{"--stdin"}, "other").status, 0);
  EXPECT_EQ(keychain("get", item).output, secretText());
  EXPECT_EQ(keychain("get", ofGroup).output, "other");

  const Result listed = keychain("list", {"--service", service, "--json"});
  auto items = nlohmann::json::parse(listed.output).get<std::vector<nlohmann::json>>();
  std::ranges::sort(items);
  ASSERT_EQ(items.size(), 2U);
  EXPECT_EQ(items[0].at("group"), nullptr);
  EXPECT_EQ(items[1].at("group"), "te\x1B\tam");
  EXPECT_THAT(keychain("list", {}).output, HasSubstr(service + "\ttoken\tte^[^Iam\n"));
  EXPECT_THAT(keychain("list", {"--service", "other"}).output, IsEmpty());

  EXPECT_EQ(keychain("delete", item + Strings{"--yes"}).status, 0);
  expectMissing(keychain("get", item));
  EXPECT_EQ(keychain("get", ofGroup).output, "other");

  // A library without the cipher can't tell whether the vault is damaged.
  writeFile(environment.folder() + "/openssl.cnf",
            "openssl_conf = a\n[a]\nproviders = b\n[b]\nlegacy = c\n[c]\nactivate = 1\n");
  const ScopedVariable configuration("OPENSSL_CONF", environment.folder() + "/openssl.cnf");
  const Result unavailable = keychain("get", ofGroup);
  EXPECT_EQ(unavailable.status, 1);
  EXPECT_THAT(unavailable.errors, HasSubstr("(-25291)"));
}

TEST_F(VelumctlKeychain, DoesNotShowWhatIsTypedAndAsksBeforeItShowsOrDeletes) {
  const SecretEnvironment environment;
  const Strings item{"token", "--service", service};
  const auto type = [&](const std::string& first, const std::string& again) {
    auto program = onTerminal(Strings{"keychain", "set"} + item);
    program.readUntil("Secret: ");
    program.type(first);
    if (!again.empty()) {
      program.readUntil("again: ");
      program.type(again);
    }
    EXPECT_THAT(program.readToEnd(), Not(HasSubstr("gem")));
    return WEXITSTATUS(program.wait());
  };
  EXPECT_EQ(type("hidden gem\n", "hidden gems\n"), 1);
  EXPECT_EQ(type("hidden gem\x03", ""), 1);
  EXPECT_EQ(type("\x04", ""), 1);
  expectMissing(keychain("get", item));
  EXPECT_EQ(type("hidden gem\n", "hidden gem\n"), 0);
  EXPECT_EQ(keychain("get", item).output, "hidden gem");

  for (const std::string command : {"get", "delete"}) {
    for (const std::string answer : {"n\n", "\n", "y\n"}) {
      const Result result = answered(Strings{"keychain", command} + item, answer);
      EXPECT_EQ(result.output.find("hidden gem") != std::string::npos,
                command == "get" && answer == "y\n");
      EXPECT_EQ(result.status, answer == "y\n" ? 0 : 1);
    }
  }
  expectMissing(keychain("get", item));
  // Bytes that are no text are not sent to a terminal, whatever the answer.
  EXPECT_EQ(keychain("set", item + Strings{"--stdin"}, "\x1B[2J gem").status, 0);
  auto program = onTerminal(Strings{"keychain", "get", "--yes"} + item);
  EXPECT_THAT(program.readToEnd(), AllOf(HasSubstr("is not text"), Not(HasSubstr("gem"))));
}

class VelumctlDefaults : public VelumctlTest {
 protected:
  SecretEnvironment environment_;
  ScopedVariable configuration_{"XDG_CONFIG_HOME", folder_ / "config"};
  std::string domainFile_ = folder_ / "config/com.example/defaults.plist";
  std::string sealedFile_ = folder_ / "settings.sealed";

  /// Makes a sealed file whose key is in the keychain, as the library does.
  void seal(const Entries& entries) const {
    const SecretBytes key = SealedBox::newKey();
    const std::string content = PropertyList(entries).binary();
    writeFile(sealedFile_, SealedBox(key).seal(byteView(content)));
    EXPECT_EQ(
        run({"keychain", "set", "key", "--service", service, "--stdin"}, std::string(textView(key)))
            .status,
        0);
  }
  Result withSealedFile(const Strings& arguments, const std::string& item = "key") const {
    return run(arguments + Strings{"--key-item", item, "--service", service});
  }
};

TEST_F(VelumctlDefaults, WritesAndReadsEveryType) {
  const auto write = [this](const std::string& key, const Strings& rest,
                            const std::string& input = {}) {
    const Result result = run(Strings{"defaults", "write", "com.example", key} + rest, input);
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output, IsEmpty());
  };
  write("bool", {"YES", "--type", "bool"});
  write("integer", {"--type", "integer", "--", "-5"});
  write("double", {"0.5", "--type", "double"});
  write("string", {"(a", "--type", "string"});
  write("data", {"--type", "data", "--stdin"}, secretText());
  write("list", {"(one)"});
  write("text", {"--stdin"}, "\xE2\x82\xAC \"x\"\n");
  write("xml", {"<plist><date>2026-11-21T09:00:00Z</date></plist>", "--type", "plist"});
  EXPECT_THAT(run({"defaults", "read", "com.example"}).output,
              AllOf(StartsWith("{\n    bool = 1;\n    data = <73ff00637265740a>;\n"),
                    HasSubstr("    integer = -5;\n    list = (\n        one,\n    );\n"
                              "    string = \"(a\";\n    text = \"\u20AC \\\"x\\\"\";\n"),
                    EndsWith("    xml = \"2026-11-21 09:00:00 +0000\";\n}\n")));
  EXPECT_EQ(run({"defaults", "read", "com.example", "text"}).output, "\u20AC \"x\"\n");
  const auto json =
      nlohmann::json::parse(run({"defaults", "read", "com.example", "--json"}).output);
  EXPECT_EQ(json, nlohmann::json::parse(R"({"bool":true,"data":"c/8AY3JldAo=","double":0.5,
    "integer":-5,"list":["one"],"string":"(a","text":"\u20ac \"x\"",
    "xml":"2026-11-21T09:00:00Z"})"));
  EXPECT_EQ(run({"defaults", "read", "com.example", "absent"}).status, 1);
  for (const std::string type : {"bool", "integer", "double"}) {
    const Result refused =
        run({"defaults", "write", "com.example", "bool", "--type", type, "--stdin"}, "hidden gem");
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.errors, AllOf(HasSubstr("the value is no"), Not(HasSubstr("gem"))));
  }
  writeFile(domainFile_, "garbage");
  EXPECT_THAT(run({"defaults", "read", "com.example"}).errors, HasSubstr("damaged"));
}

TEST_F(VelumctlDefaults, VerifiesAndDumpsWithoutChangingAnything) {
  const PropertyList noNumber(std::nan(""));
  const Entries original{{"a", PropertyList(std::int64_t{1})},
                         {"b", PropertyList(std::string("x"))},
                         {"c", noNumber},
                         {"d", PropertyList(true)}};
  seal(original);
  writeFile(domainFile_, PropertyList(original).binary());
  const Strings verify{"defaults", "verify", "com.example", "--storage", sealedFile_};
  Result result = withSealedFile(verify);
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output + result.errors, IsEmpty());

  const std::string changed = PropertyList(Entries{{"a", PropertyList(true)},
                                                   {"c", noNumber},
                                                   {"d", PropertyList(true)},
                                                   {"e", PropertyList(false)}})
                                  .binary();
  writeFile(domainFile_, changed);
  const std::string sealed = readFile(sealedFile_);
  result = withSealedFile(verify);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "changed\ta\nremoved\tb\nadded\te\n");
  EXPECT_EQ(std::ranges::count(result.errors, '\n'), 1);
  EXPECT_EQ(nlohmann::json::parse(withSealedFile(verify + Strings{"--json"}).output).size(), 3U);
  EXPECT_EQ(withSealedFile(verify, "no such key").status, 1);
  EXPECT_EQ(readFile(domainFile_), changed);
  EXPECT_EQ(readFile(sealedFile_), sealed);

  seal({{"token", PropertyList(std::string("hidden gem"))}});
  const Strings dump{"storage", "dump", sealedFile_};
  EXPECT_EQ(withSealedFile(dump).output, "{\n    token = \"hidden gem\";\n}\n");
  EXPECT_EQ(withSealedFile(dump + Strings{"--json"}).output, "{\"token\":\"hidden gem\"}\n");
  const Result refused = answered(dump + Strings{"--key-item", "key", "--service", service}, "n\n");
  EXPECT_THAT(refused.output, Not(HasSubstr("gem")));
  EXPECT_EQ(refused.status, 1);
  const std::string damaged = readFile(sealedFile_).substr(1);
  writeFile(sealedFile_, damaged);
  EXPECT_THAT(withSealedFile(dump).errors, HasSubstr("check --key-item"));
  EXPECT_EQ(readFile(sealedFile_), damaged) << "kept for inspection";
}

using VelumctlEncryption = VelumctlTest;

TEST_F(VelumctlEncryption, RoundTripsFilesAndStreamsOrFailsWithoutOutput) {
  const std::string plain = folder_ / "plain";
  const std::string blob = folder_ / "blob";
  const Strings key{"--key-file", folder_ / "key"};
  const std::string keyBytes(32, '\xA5');
  const std::string text(300'000, 'x');
  writeFile(key[1], keyBytes);
  writeFile(plain, text);
  ASSERT_EQ(run(Strings{"encrypt", plain, "--output", blob} + key).status, 0);
  EXPECT_EQ(std::filesystem::status(blob).permissions(), std::filesystem::perms(0600));
  EXPECT_EQ(run({"decrypt", blob, "--key-fd", "0"}, keyBytes).output, text);
  // Standard output is a pipe here, and stays one.
  const std::string streamed =
      run(Strings{"encrypt", "--output", "/dev/stdout"} + key, text).output;
  EXPECT_EQ(run(Strings{"decrypt", "-"} + key, streamed).output, text);
  EXPECT_THAT(answered(Strings{"decrypt", blob} + key, "n\n").output, Not(HasSubstr("xxx")));
  auto program = onTerminal(Strings{"encrypt", plain} + key);
  EXPECT_THAT(program.readToEnd(), HasSubstr("--output"));
  EXPECT_EQ(WEXITSTATUS(program.wait()), 2);

  writeFile(blob, streamed.substr(0, 31));
  const Result result = run(Strings{"decrypt", blob, "--output", plain} + key);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("damaged"));
  EXPECT_EQ(readFile(plain), text);
  writeFile(key[1], keyBytes + '\n');
  EXPECT_THAT(run(Strings{"encrypt", plain} + key).errors, HasSubstr("the key has 33 bytes"));
}

}  // namespace
}  // namespace velum::test
