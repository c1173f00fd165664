#include "Velum/PropertyList/PropertyList.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <limits>

#include "Velum/PropertyList/PropertyListText.h"
#include "tests/support/TemporaryFolder.h"

namespace velum {
namespace {

using test::readFile;
using test::TemporaryFolder;
using test::writeFile;
using namespace std::chrono_literals;

template <class T>
PropertyList list(T value) {
  return PropertyList(std::move(value));
}
PropertyList text(const char* value) {
  return list(std::string(value));
}

constexpr PropertyList::Date start2001 = std::chrono::sys_days{std::chrono::year{2001} / 1 / 1};

/// Every type with the values at the edges of its encodings.
PropertyList everyType() {
  PropertyList::Array numbers;
  for (const std::int64_t number :
       {0L, 255L, 256L, 65535L, 65536L, 4294967295L, 4294967296L, -1L,
        std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
    numbers.push_back(list(number));
  }
  numbers.push_back(list(std::numeric_limits<std::uint64_t>::max()));
  PropertyList::Array many(300, text("shared"));  // more objects than one byte can number
  return list(PropertyList::Dictionary{
      {"array", list(std::move(numbers))},
      {"data", list(PropertyList::Data{0, 1, 254, 255})},
      {"date", list(start2001 - 3'000'000'000s)},
      {"empty", list(PropertyList::Dictionary{{"", list(PropertyList::Array{})}})},
      {"false", list(false)},
      {"long", list(std::string(70000, 'x'))},
      {"many", list(std::move(many))},
      {"real", list(-0.1)},
      {"schl\xC3\xBCssel \xF0\x9F\x98\x80", text("\xE2\x82\xAC<&>\"'\n\xF0\x9F\x98\x80")},
      {"true", list(true)},
  });
}

std::string xml(const std::string& content) {
  return R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">)" +
         content + "</plist>\n";
}

std::string repeated(const std::string& text, std::size_t times) {
  std::string result;
  for (std::size_t count = 0; count < times; ++count) result += text;
  return result;
}

std::string bigEndian(std::uint64_t number, unsigned width) {
  std::string bytes;
  for (unsigned left = width; left-- > 0;) bytes += static_cast<char>(number >> (left * 8));
  return bytes;
}

struct Trailer {
  std::uint64_t offsetWidth = 4;
  std::uint64_t referenceWidth = 4;
  std::uint64_t objects = 0;  // 0: as many as there are
  std::uint64_t root = 0;
  std::uint64_t table = 0;  // 0: where it is
};

/// A binary document of hand-made objects.
std::string document(const std::vector<std::string>& objects, Trailer trailer = {}) {
  std::string bytes = "bplist00";
  std::string table;
  for (const auto& object : objects) {
    table += bigEndian(bytes.size(), 4);
    bytes += object;
  }
  if (trailer.objects == 0) trailer.objects = objects.size();
  if (trailer.table == 0) trailer.table = bytes.size();
  return bytes + table + std::string(6, '\0') + bigEndian(trailer.offsetWidth, 1) +
         bigEndian(trailer.referenceWidth, 1) + bigEndian(trailer.objects, 8) +
         bigEndian(trailer.root, 8) + bigEndian(trailer.table, 8);
}

/// An array object of the objects with these numbers.
std::string arrayOf(const std::vector<std::uint64_t>& numbers) {
  std::string object{'\xAF', '\x11'};
  object += bigEndian(numbers.size(), 2);
  for (const auto number : numbers) object += bigEndian(number, 4);
  return object;
}

/// Arrays nested `levels` deep, the innermost empty.
std::string nested(std::uint64_t levels) {
  std::vector<std::string> objects;
  for (std::uint64_t level = 1; level < levels; ++level) objects.push_back(arrayOf({level}));
  objects.push_back(arrayOf({}));
  return document(objects);
}

TEST(PropertyList, RoundTripsEveryType) {
  const PropertyList original = everyType();
  const auto back = PropertyList::read(original.binary());
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, original);

  // Six decimals of a present-day moment survive the format's floating point.
  for (const auto date : {start2001 + 800'000'000s + 123'457us, PropertyList::Date(-500'001us)}) {
    EXPECT_EQ(PropertyList::read(list(date).binary()), list(date));
  }
  // Far dates have no place for them; what was read is exact all the same.
  // The ends of what a date can be, and a double's step or less from them.
  constexpr std::int64_t last = std::numeric_limits<std::int64_t>::max();
  std::vector<std::int64_t> dates{last, last - 1'000, last - 2'000, last - 5'000};
  for (std::int64_t date = 1; date < last / 3; date = date * 3 + 1) dates.push_back(date);
  for (const std::int64_t date : dates) {
    for (const std::int64_t each : {date, -1 - date}) {
      const auto once = PropertyList::read(list(PropertyList::Date(each * 1us)).binary());
      ASSERT_TRUE(once) << each;
      EXPECT_EQ(PropertyList::read(once->binary()), once) << each;
    }
  }
  const auto withNul = list(std::string("a\0b", 3));
  EXPECT_EQ(PropertyList::read(withNul.binary()), withNul);
}

TEST(PropertyList, ReadsXml) {
  const auto read = PropertyList::read(
      "\xEF\xBB\xBF\n" +
      xml("<!-- </dict> --><dict><key>te&amp;xt</key><string>&#x20AC;<![CDATA[<dict>&]]></string>"
          "<key>date</key><date>1900-01-01T00:00:00Z</date><key>empty</key><string/>"
          "<key>data</key><data>\n\tAAH+\n\t/w==\n</data><key>real</key><real>1.5e3</real>"
          "<key>flag</key><true/></dict>"));
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, list(PropertyList::Dictionary{
                       {"te&xt", text("\xE2\x82\xAC<dict>&")},
                       {"date", list(PropertyList::Date(-2208988800s))},
                       {"empty", text("")},
                       {"data", list(PropertyList::Data{0, 1, 254, 255})},
                       {"real", list(1500.0)},
                       {"flag", list(true)},
                   }));
  EXPECT_EQ(*read->get<bool>("flag"), true);
  EXPECT_EQ(read->get<double>("flag"), nullptr);
  EXPECT_EQ(read->get<bool>("other"), nullptr);
}

TEST(PropertyList, RefusesMalformedXml) {
  using Texts = std::vector<std::string>;
  for (const auto& [element, texts] :
       {std::pair<std::string, Texts>("dict",
                                      {"<true/>", "<key>a</key>", "<key>a</key><key>b</key>"}),
        {"array", {"a", "<key>a</key>"}},
        {"string", {"a<true/>", "\xFF", std::string(1, '\0')}},
        {"integer", {"", "12abc", "18446744073709551616", "-9223372036854775809"}},
        {"real", {"many", "1e999"}},
        {"date", {"yesterday", "2024-02-30T00:00:00Z"}},
        {"data", {"?", "AAE", "AA==AAAA", "A==="}},
        {"true", {"no"}}}) {
    for (const std::string& bad : texts) {
      const std::string content = '<' + element + '>' + bad + "</" + element + '>';
      EXPECT_FALSE(PropertyList::read(xml(content))) << content;
    }
  }
  for (const char* content :
       {"", "<dict>", "<set/>", "<dict id='1'/>", "<plist/>", "<![CDATA[<true/>]]>"}) {
    EXPECT_FALSE(PropertyList::read(xml(content))) << content;
  }
  EXPECT_FALSE(PropertyList::read(xml("<true/>") + "<plist><true/></plist>"));
  const std::string end = "]><plist><string>&b;</string></plist>";
  EXPECT_FALSE(
      PropertyList::read(R"(<!DOCTYPE plist [<!ENTITY a "aa"><!ENTITY b "&a;&a;">)" + end));
  EXPECT_FALSE(
      PropertyList::read("<!DOCTYPE plist [<!ENTITY b SYSTEM 'file:///etc/passwd'>" + end));
  for (const char* other : {"", "{\"key\": 1}", "{ key = value; }", "bplist01", "<", "\"text\""}) {
    EXPECT_FALSE(PropertyList::read(other)) << other;
  }
}

TEST(PropertyListText, MalformedContainersAreText) {
  EXPECT_EQ(propertyListFromText(" ( ) "), list(PropertyList::Array{}));
  EXPECT_EQ(propertyListFromText("{a = (b, {});}"),
            list(PropertyList::Dictionary{
                {"a", list(PropertyList::Array{text("b"), list(PropertyList::Dictionary{})})}}));
  EXPECT_EQ(propertyListFromText("\"a \\\\ b\""), text("a \\ b"));
  EXPECT_EQ(propertyListFromText("<>"), list(PropertyList::Data{}));
  for (const char* malformed :
       {"(a", "(a b)", "(,)", "{a}", "{a = b}", "{= b;}", "<0>", "<0x>", "<plist><true>", "\"a",
        "\"a\\", "\"a\" b", "(a) b", "a, b", "", " ", "-", "(\xFF)"}) {
    EXPECT_EQ(propertyListFromText(malformed), text(malformed));
  }
  const std::string deep = repeated("(", 100'000) + repeated(")", 100'000);
  EXPECT_EQ(propertyListFromText(deep), list(deep));
}

TEST(PropertyList, LimitsNesting) {
  EXPECT_TRUE(PropertyList::read(nested(512)));
  EXPECT_FALSE(PropertyList::read(nested(513)));
  for (const std::size_t levels : {513U, 100'000U}) {
    EXPECT_FALSE(
        PropertyList::read(xml(repeated("<array>", levels) + repeated("</array>", levels))));
  }
  const auto deepest =
      PropertyList::read(xml(repeated("<array>", 512) + repeated("</array>", 512)));
  ASSERT_TRUE(deepest);
  EXPECT_EQ(PropertyList::read(deepest->readableBinary().value_or("")), deepest);
  EXPECT_FALSE(list(PropertyList::Array{*deepest}).readableBinary());
}

TEST(PropertyList, LimitsWhatSharedReferencesExpandTo) {
  // Nine levels of ten references each: 10^9 objects from some 500 bytes.
  std::vector<std::string> bomb;
  for (std::uint64_t level = 1; level < 10; ++level) {
    bomb.push_back(arrayOf(std::vector<std::uint64_t>(10, level)));
  }
  bomb.emplace_back("\x09");
  EXPECT_FALSE(PropertyList::read(document(bomb)));

  // Few objects, but 64 MiB of text.
  const std::string longText = "\x5F\x12" + bigEndian(1 << 20, 4) + std::string(1 << 20, 'x');
  EXPECT_FALSE(
      PropertyList::read(document({arrayOf(std::vector<std::uint64_t>(64, 1)), longText})));
  EXPECT_TRUE(PropertyList::read(document({arrayOf(std::vector<std::uint64_t>(8, 1)), longText})));

  EXPECT_FALSE(PropertyList::read(xml("<array>" + repeated("<true/>", 600'000) + "</array>")));
  EXPECT_FALSE(PropertyList::read(std::string(17 << 20, ' ') + xml("<true/>")));
}

TEST(PropertyList, WritesNothingThatCouldNotBeReadAgain) {
  // Shared keys and text beside ASCII cost the reader as much as they cost the check.
  const auto entries = [](std::size_t count, const std::string& key) {
    PropertyList::Dictionary entry;
    entry.emplace(key, list(true));
    return list(PropertyList::Array(count, list(std::move(entry))));
  };
  constexpr std::size_t budget = (std::size_t{32} << 20U) - 64;  // beside the root
  for (const auto& [key, keySize] :
       {std::pair(std::string(64, 'k'), 64U), std::pair(std::string("\xE2\x82\xAC"), 2U),
        std::pair(std::string("\xF0\x9F\x98\x80"), 4U), std::pair(std::string("a\xFF"), 4U)}) {
    const std::size_t most = budget / (3 * 64 + keySize);
    const auto bytes = entries(most, key).readableBinary();
    ASSERT_TRUE(bytes) << key;
    EXPECT_TRUE(PropertyList::read(*bytes)) << key;
    EXPECT_FALSE(PropertyList::read(entries(most + 1, key).binary())) << key;
    EXPECT_FALSE(entries(most + 1, key).readableBinary()) << key;
  }
  EXPECT_FALSE(list(std::string(std::size_t{16} << 20U, 'x')).readableBinary());
}

TEST(PropertyList, RefusesTrailersThatPointOutside) {
  constexpr auto huge = ~std::uint64_t{0};
  const std::vector<std::string> objects{"\x09"};
  ASSERT_TRUE(PropertyList::read(document(objects)));
  for (const Trailer& trailer :
       {Trailer{.offsetWidth = 0}, Trailer{.offsetWidth = 9}, Trailer{.referenceWidth = 0},
        Trailer{.referenceWidth = 255}, Trailer{.objects = 2}, Trailer{.objects = huge},
        Trailer{.objects = huge / 4 + 2}, Trailer{.root = 1}, Trailer{.root = huge},
        Trailer{.table = 8}, Trailer{.table = 14}, Trailer{.table = 1 << 20},
        Trailer{.table = huge}}) {
    EXPECT_FALSE(PropertyList::read(document(objects, trailer)));
  }
}

// NOLINTBEGIN(modernize-raw-string-literal): bytes, not text
TEST(PropertyList, RefusesObjectsThatReachOutsideOrMakeNoSense) {
  const std::string hugeLength = '\x13' + bigEndian(~std::uint64_t{0}, 8);
  const std::string oneEntry = '\xD1' + bigEndian(1, 4) + bigEndian(1, 4);
  std::vector<std::vector<std::string>> documents{
      {arrayOf({0})},  // cycles
      {arrayOf({1, 1}), arrayOf({0, 0})},
      {arrayOf({1})},                // no such object
      {std::string("\xA1\x00", 2)},  // references cut off
      {oneEntry, "\x09"},            // keys that are no text
      {oneEntry, oneEntry},
      {'\x14' + bigEndian(1, 8) + bigEndian(0, 8)},  // more than 64 bits
      {'\x33' + bigEndian(0x7FF8ULL << 48U, 8)},     // no date
      {'\x33' + bigEndian(0x7FEULL << 52U, 8)},
      {"\x4F\x14" + bigEndian(0, 8) + bigEndian(1, 8) + "x"},
      {"\x5F\x50"},
      {"\x80\x01"},
      {"\x71x"},
      {"\x51\xFF"}};
  for (const char marker :
       std::string_view("\x13\x15\x23\x24\x33\x32\x44\x51\x61\x6F\x0F\xA1\xC0\xD1\x00", 15)) {
    documents.push_back({std::string(1, marker)});
  }
  for (const char marker : {'\x4F', '\x5F', '\x6F', '\xAF', '\xDF'}) {
    documents.push_back({marker + hugeLength});
  }
  for (const auto& objects : documents) {
    EXPECT_FALSE(PropertyList::read(document(objects))) << testing::PrintToString(objects);
  }
  EXPECT_TRUE(PropertyList::read(document({oneEntry, "\x51k"})));
  const std::string minusTwo = '\x14' + std::string(15, '\xFF') + '\xFE';
  EXPECT_EQ(PropertyList::read(document({minusTwo})), list(std::int64_t{-2}));
  // A lone surrogate is no reason to refuse a whole document.
  EXPECT_EQ(PropertyList::read(document({"\x62\xD8\x3D\x20\xAC"})),
            text("\xEF\xBF\xBD\xE2\x82\xAC"));
  EXPECT_EQ(PropertyList::read(document({std::string("\x61\xDC\x00", 3)})), text("\xEF\xBF\xBD"));
}
// NOLINTEND(modernize-raw-string-literal)

/// Runs a shell command; its exit status.
int run(const std::string& command) {
  return std::system(command.c_str());  // NOLINT(cert-env33-c): the tools come from PATH
}

TEST(PropertyList, SurvivesTheWayThroughPlistutil) {
  const TemporaryFolder folder;
  writeFile(folder / "ours", everyType().binary());
  ASSERT_EQ(run("plistutil -i " + (folder / "ours") + " -o " + (folder / "xml")), 0);
  ASSERT_EQ(run("plistutil -i " + (folder / "xml") + " -o " + (folder / "binary")), 0);
  EXPECT_EQ(PropertyList::read(readFile(folder / "xml")), everyType());
  EXPECT_EQ(PropertyList::read(readFile(folder / "binary")), everyType());
}

}  // namespace
}  // namespace velum
