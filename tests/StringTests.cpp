#include "Velum/String.h"

#include <gtest/gtest.h>
#include <re2/re2.h>

#include <random>
#include <string>
#include <vector>

namespace velum {
namespace {

// The same by a library of regular expressions, byte by byte so that it takes any text.
std::string strippedByExpression(std::string text) {
  static const RE2 expression("((set-)?cookie|authorization): ([^\\n]+)", [] {
    RE2::Options options;
    options.set_case_sensitive(false);
    options.set_encoding(RE2::Options::EncodingLatin1);
    return options;
  }());
  RE2::GlobalReplace(&text, expression, "\\1: stripped");
  return text;
}

TEST(StrippedHeaders, KeepsNamesAndTakesValuesToTheEndOfTheLine) {
  EXPECT_EQ(strippedHeaders("Cookie: abc\nAuthorization: Bearer x"),
            "Cookie: stripped\nAuthorization: stripped");
  EXPECT_EQ(strippedHeaders("xSET-cookie: a: b\r\nend"), "xSET-cookie: stripped\nend");
  EXPECT_EQ(strippedHeaders("\xFF cookie: \xFE secret"), "\xFF cookie: stripped");
  EXPECT_EQ(strippedHeaders("cookie:x, cookie : x, cookie: \ncookie:"),
            "cookie:x, cookie : x, cookie: \ncookie:");
  EXPECT_EQ(strippedHeaders(""), "");
}

TEST(StrippedHeaders, AgreesWithTheExpressionOnGeneratedTexts) {
  const std::vector<std::string> pieces{"cookie",
                                        "Set-",
                                        "set-cookie",
                                        "AUTHORIZATION",
                                        "authorization: ",
                                        ": ",
                                        ":",
                                        " ",
                                        "\n",
                                        "\r",
                                        "x",
                                        "cookie: ",
                                        "\xC3\xBC",
                                        "\xFF",
                                        "coo",
                                        "kie: ",
                                        "set\rcookie: ",
                                        "SET-COOKIE: ",
                                        "-",
                                        "cookie:",
                                        "s\xC5\xBF\x65t-",
                                        "\xE2\x84\xAA",
                                        std::string(1, '\0'),
                                        "Cookie: a"};
  std::mt19937 random(11);  // NOLINT(cert-msc*): the same texts in every run
  std::uniform_int_distribution<std::size_t> piece(0, pieces.size() - 1);
  for (int i = 0; i < 50'000; ++i) {
    std::string text;
    for (std::size_t length = random() % 12; length > 0; --length) text += pieces[piece(random)];
    ASSERT_EQ(strippedHeaders(text), strippedByExpression(text)) << ::testing::PrintToString(text);
  }
}

TEST(StrippedHeaders, AgreesWithTheExpressionOnRandomBytesAroundNames) {
  std::mt19937 random(12);  // NOLINT(cert-msc*)
  for (int i = 0; i < 50'000; ++i) {
    std::string text = i % 2 == 0 ? "a\nset-cookie: b\nc" : "Authorization: b";
    for (int change = 0; change < 2; ++change) {
      text[random() % text.size()] = static_cast<char>(random() % 256);
    }
    ASSERT_EQ(strippedHeaders(text), strippedByExpression(text)) << ::testing::PrintToString(text);
  }
}

TEST(StrippedHeaders, BearsLongValuesAndManyColons) {
  EXPECT_EQ(strippedHeaders("Cookie: " + std::string(30'000, 'c')), "Cookie: stripped");
  const std::string colons(1'000'000, ':');
  EXPECT_EQ(strippedHeaders(colons), colons);
  std::string many;
  for (int i = 0; i < 50'000; ++i) many += "cookie:: ";
  EXPECT_EQ(strippedHeaders(many), many);
}

TEST(StrippedHeaders, AppendsToWhatIsThere) {
  std::string out = "cookie";
  appendStrippedHeaders(out, ": x\ncookie: y");
  EXPECT_EQ(out, "cookie: x\ncookie: stripped");
}

const std::string replaced = "\xEF\xBF\xBD";

struct Utf8Case {
  std::string text;
  std::string repaired;
};

TEST(Utf8, RepairsEachIllFormedSequenceOnce) {
  const std::vector<Utf8Case> cases{
      {"\x80", replaced},
      {"\xC0\xAF", replaced + replaced},                                // overlong
      {"\xE0\x80\xBF", replaced + replaced + replaced},                 // overlong
      {"\xED\xA0\x80", replaced + replaced + replaced},                 // surrogate
      {"\xF4\x90\x80\x80", replaced + replaced + replaced + replaced},  // above U+10FFFF
      {"\xF1\x80\x80", replaced},                                       // cut off: one sequence
      {"\xE1\x80\xE2\xF0\x91\x92\xF1\xBF"
       "A",
       replaced + replaced + replaced + replaced + "A"},
      {"a\xF8z", "a" + replaced + "z"},
      {"\xC3", replaced},
      {"12345678\xFF"
       "2345678",
       "12345678" + replaced + "2345678"},
  };
  for (const auto& [text, repaired] : cases) {
    EXPECT_FALSE(isValidUtf8(text)) << ::testing::PrintToString(text);
    EXPECT_EQ(repairedUtf8(text), repaired) << ::testing::PrintToString(text);
    EXPECT_TRUE(isValidUtf8(repaired));
  }
}

TEST(Utf8, LeavesWellFormedTextAlone) {
  const std::vector<std::string> texts{"",
                                       "ASCII only, longer than a word",
                                       std::string("a\0b", 3),
                                       "\xC2\x80\xDF\xBF",
                                       "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF",
                                       "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
                                       "1234567\xC3\xBC\x31 2345678"};
  for (const auto& text : texts) {
    EXPECT_TRUE(isValidUtf8(text)) << ::testing::PrintToString(text);
    EXPECT_EQ(repairedUtf8(text), text);
  }
}

}  // namespace
}  // namespace velum
