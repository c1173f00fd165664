// Which signatures count.

#include <tuple>
#include <utility>
#include <vector>

#include "tests/Platform/Linux/CodeIdentityTest.h"

namespace velum::test {
namespace {

using namespace std::string_literals;

TEST_F(CodeIdentityTest, PrefersTheSignatureThatGoesWithTheFile) {
  const Running process(program_);
  if (!signInAttribute(signatureBy(maker()))) GTEST_SKIP() << "no extended attributes here";
  signBeside("nonsense");
  EXPECT_EQ(verdict(process.pid()), "valid");
  fs::create_directory(folder_ / "moved");
  fs::rename(program_, folder_ / "moved/program");
  EXPECT_EQ(verdict(process.pid()), "valid");
  fs::rename(folder_ / "moved/program", program_);

  // A damaged one is not made up for by another.
  signBeside(signatureBy(maker()));
  ASSERT_TRUE(signInAttribute(""));
  expectReason(verdict(process.pid()), "damaged");
  ASSERT_TRUE(signInAttribute("nonsense"));
  expectReason(verdict(process.pid()), "damaged");
}

TEST_F(CodeIdentityTest, ComparesTheTeamByteForByte) {
  const Running process(program_);
  signBeside(signatureBy(maker()));
  const std::string name = team;
  for (const std::string& other : {name + " ", " " + name, name.substr(1), name + name,
                                   "r8k2zp5wqn"s, "*"s, "\"" + name + "\"", name + "\" or true",
                                   name + '\0', name + std::string("\0x", 2), "X\nOU="s}) {
    expectReason(verdict(process.pid(), other), "another team", other);
  }
  expectReason(verdict(process.pid(), ""), "no team");

  using Units = std::vector<std::string>;
  const std::vector<std::tuple<Units, int, const char*>> cases{
      {Units{"X" + name}, V_ASN1_UTF8STRING, "another team"},
      {Units{name, name}, V_ASN1_UTF8STRING, "more than one"},
      {Units{"Other", name}, V_ASN1_UTF8STRING, "more than one"},
      {Units{}, V_ASN1_UTF8STRING, "no organisational unit"},
      {Units{""}, V_ASN1_UTF8STRING, "another team"},
      {Units{name + std::string("\0.example", 9)}, V_ASN1_UTF8STRING, "another team"},
      {Units{name}, V_ASN1_PRINTABLESTRING, "valid"},
      {Units{name}, V_ASN1_BMPSTRING, "another team"},  // other characters altogether
      {Units{"\0R\0008\0K\0002\0Z\0P\0005\0W\0Q\0N"s}, V_ASN1_BMPSTRING, "valid"},
  };
  for (const auto& [units, type, expected] : cases) {
    const auto signer = makerWith({.units = units, .unitType = type});
    expectReason(verdictOn(process, signatureBy(signer)), expected);
  }
  signBeside(signatureBy(makerWith({.units = {name + std::string(1, '\0')}})));
  expectReason(verdict(process.pid(), name + std::string(1, '\0')), "another team");
  signBeside(signatureBy(makerWith({.units = {"Zoë"}})));
  EXPECT_EQ(verdict(process.pid(), "Zoë"), "valid");
}

TEST_F(CodeIdentityTest, RefusesWhatIsNoSoundSignatureOfThisContent) {
  const Running process(program_);
  const std::string content = readFile(program_);
  const std::string sound = signatureBy(maker());
  const auto signedWith = [&](const EVP_MD* digest, unsigned flags) {
    return makeSignature(content, {&maker()}, digest, flags);
  };
  const auto second = makerWith({.name = "Second", .units = {team}, .rsaBits = 2048});
  for (const auto& [signature, expected] :
       {std::pair(""s, "damaged"),
        {sound.substr(0, sound.size() - 1), "damaged"},
        {sound + '\0', "bytes follow"},
        {makeSignature(content + "x", {&maker()}), "content differs"},
        {signedWith(EVP_sha384(), CMS_DETACHED), "valid"},
        {signedWith(EVP_sha512(), CMS_DETACHED), "valid"},
        {signedWith(EVP_sha256(), 0), "not detached"},
        {signedWith(EVP_sha1(), CMS_DETACHED), "digest"},
        {signedWith(EVP_sha256(), CMS_DETACHED | CMS_NOATTR), "not made with the key"},
        {signedWith(EVP_sha256(), CMS_DETACHED | CMS_NOCERTS), "lacks the signer's certificate"},
        {makeSignature(content, {&maker(), &second}), "exactly one signer"},
        {std::string((1U << 20U) + 1, '0'), "File too large"}}) {
    expectReason(verdictOn(process, signature), expected);
  }
  // The last byte is one of the key's signature over everything else.
  std::string flipped = sound;
  flipped.back() = static_cast<char>(flipped.back() ^ 1);
  EXPECT_NE(verdictOn(process, flipped), "valid");
  // Another key, in the maker's name and with the maker's certificate.
  SigningIdentity thief{second.key, {X509_dup(maker().certificate.get()), X509_free}, {}};
  ASSERT_EQ(X509_set_pubkey(thief.certificate.get(), thief.key.get()), 1);
  thief.chain.push_back(maker().certificate);
  expectReason(verdictOn(process, makeSignature(content, {&thief}, EVP_sha256(),
                                                CMS_DETACHED | CMS_NOCERTS)),
               "not made with the key");
  EXPECT_EQ(verdictOn(process, sound), "valid");
}

TEST_F(CodeIdentityTest, TrustsOnlyChainsForCodeSigningThatEndInTheRoots) {
  const Running process(program_);
  const auto stranger = makeIdentity({.name = "Authority", .isAuthority = true});
  const auto selfSigned = makeIdentity({.units = {team}});
  addRoot("self-signed.pem", selfSigned.pem());
  const auto step = [](CertificateOptions options) {
    options.name = "Step";
    return makeIdentity(options, &root());
  };
  const auto below = [](const SigningIdentity& issuer) {
    return makeIdentity({.name = "Below", .units = {team}}, &issuer);
  };
  SigningIdentity withoutStep = below(step({.isAuthority = true}));
  withoutStep.chain.clear();
  SigningIdentity deep = root();
  for (int level = 0; level < 7; ++level) {
    deep = makeIdentity({.name = "Level " + std::to_string(level), .isAuthority = true}, &deep);
  }

  const std::vector<std::pair<SigningIdentity, const char*>> cases{
      {maker(), "valid"},
      {makerWith({.units = {team}, .rsaBits = 2048}), "valid"},
      {below(step({.isAuthority = true})), "valid"},
      {below(step({.isAuthority = true, .extendedKeyUsage = "codeSigning"})), "valid"},
      {below(step({.isAuthority = true, .extendedKeyUsage = "serverAuth"})), "not one for signing"},
      {below(step({.units = {team}})), "not trusted: invalid CA"},
      {below(maker()), "not trusted: invalid CA"},
      {withoutStep, "not trusted"},
      {makeIdentity({.units = {team}}, &deep), "chain too long"},
      {makeIdentity({.units = {team}}, &stranger), "not trusted"},
      {makeIdentity({.name = "Stranger", .units = {team}}), "not trusted: self"},
      {selfSigned, "certificate is self-signed"},
      {makerWith({.units = {team}, .extendedKeyUsage = ""}), "not for signing code"},
      {makerWith({.units = {team}, .extendedKeyUsage = "emailProtection"}), "not for signing code"},
      {makerWith({.units = {team}, .extendedKeyUsage = "anyExtendedKeyUsage"}), "not for signing"},
      {makerWith({.units = {team}, .keyUsage = "keyEncipherment"}), "not for signatures"},
      {makerWith({.units = {team},
                  .isAuthority = true,
                  .keyUsage = "digitalSignature,keyCertSign",
                  .extendedKeyUsage = "codeSigning"}),
       "an authority's"},
      {makerWith({.units = {team}, .rsaBits = 1024}), "not trusted: EE certificate key too weak"},
      {makerWith({.units = {team}, .digest = EVP_sha1()}),
       "not trusted: CA signature digest algorithm too weak"},
  };
  for (const auto& [signer, expected] : cases) {
    expectReason(verdictOn(process, signatureBy(signer)), expected, expected);
  }
}

TEST_F(CodeIdentityTest, LooksAtDatesOnlyWhenStrict) {
  const Running process(program_);
  constexpr long day = 86400;
  const auto oldRoot =
      makeIdentity({.name = "Old", .isAuthority = true, .begin = -2 * day, .end = -day});
  addRoot("old.pem", oldRoot.pem());
  for (const auto& [signer, strictly] :
       {std::pair(maker(), "valid"),
        {makerWith({.units = {team}, .begin = -2 * day, .end = -day}), "has expired"},
        {makerWith({.units = {team}, .begin = day, .end = 2 * day}), "not yet valid"},
        {makeIdentity({.units = {team}}, &oldRoot), "has expired"}}) {
    EXPECT_EQ(verdictOn(process, signatureBy(signer)), "valid") << strictly;
    expectReason(verdict(process.pid(), team, {.strictValidity = true}), strictly);
  }
}

}  // namespace
}  // namespace velum::test
