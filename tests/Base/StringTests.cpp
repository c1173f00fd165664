#include "Velum/Base/String.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace velum {
namespace {

TEST(StrippedHeaders, KeepsNamesAndTakesValuesToTheEndOfTheLine) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"Cookie: abc\nAuthorization: Bearer x", "Cookie: stripped\nAuthorization: stripped"},
      {"xSET-cookie: a: b\r\nend", "xSET-cookie: stripped\nend"},
      {"\xFF cookie: \xFE secret", "\xFF cookie: stripped"},
      {"cookie: cookie: x\nCOOKIE: authorization: y", "cookie: stripped\nCOOKIE: stripped"},
      {"set-authorization: a\ncookie:  ", "set-authorization: stripped\ncookie: stripped"},
      {"set\rcookie: \r\nx", "set\rcookie: stripped\nx"},
      {std::string("cookie: \0a\nb: \0c", 16), std::string("cookie: stripped\nb: \0c", 22)},
      {"cookiecookie: a, authcookie: b", "cookiecookie: stripped"},
      {"authorizatioauthorization: a", "authorizatioauthorization: stripped"},
      {"cookie:: a\ncookie:\n: a", "cookie:: a\ncookie:\n: a"},
      {"coo\nkie: a, coo kie: b, s\xC5\xBF\x65t-: c",
       "coo\nkie: a, coo kie: b, s\xC5\xBF\x65t-: c"},
      {"coo\xE2\x84\xAAie: a, cook: b, uthorization: c",
       "coo\xE2\x84\xAAie: a, cook: b, uthorization: c"},
      {"cookie:x, cookie : x, cookie: \ncookie:", "cookie:x, cookie : x, cookie: \ncookie:"},
      {"", ""},
  };
  for (const auto& [text, stripped] : cases) {
    EXPECT_EQ(strippedHeaders(text), stripped) << ::testing::PrintToString(text);
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

TEST(Utf8, RepairsEachIllFormedSequenceOnce) {
  const std::vector<std::pair<std::string, std::string>> cases{
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
