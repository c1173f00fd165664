#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <string>

#include "Velum/Base/String.h"
#include "Velum/HTTP/HTTPHeaders.h"
#include "Velum/HTTP/MultipartBody.h"
#include "Velum/URLSession.h"
#include "tests/support/Errors.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

TEST(UrlQuery, EscapesEverythingThatCouldMeanSomethingThere) {
  EXPECT_EQ(escapedUrlQueryParam("a b&c=d"), "a%20b%26c%3Dd");
  EXPECT_EQ(escapedUrlQueryParam("!#$&'()*+,/:;=?@[]"),
            "%21%23%24%26%27%28%29%2A%2B%2C%2F%3A%3B%3D%3F%40%5B%5D");
  EXPECT_EQ(escapedUrlQueryParam("AZaz09-._~"), "AZaz09-._~");
  EXPECT_EQ(escapedUrlQueryParam("\xC3\xBC%\"<>\\^`{|}\x7F\n"),
            "%C3%BC%25%22%3C%3E%5C%5E%60%7B%7C%7D%7F%0A");
  EXPECT_EQ(escapedUrlQueryParam(std::string(1, '\0')), "%00");
  EXPECT_EQ(escapedUrlQueryParam(std::nullopt), "");
}

TEST(UrlQuery, EscapesItemsInOrderAndKeepsMissingValues) {
  const std::vector<URLQueryItem> escaped{{"b%20", "1%2F2"}, {"a", std::nullopt}, {"a", ""}};
  EXPECT_EQ(escapedQueryItems({{"b ", "1/2"}, {"a", std::nullopt}, {"a", ""}}), escaped);
}

TEST(HttpHeaders, FindAndReplaceNamesInAnyCase) {
  HTTPHeaders headers{{"Accept", "a"}, {"X", "1"}, {"ACCEPT", "b"}};
  EXPECT_EQ(headers.value("accept"), "a");
  headers.set("accePT", "c");
  EXPECT_EQ(headers, (HTTPHeaders{{"Accept", "c"}, {"X", "1"}}));
  headers.set("Y", "2");
  EXPECT_EQ(headers.value("y"), "2");
  // '@' and '`' differ in the bit that tells the cases of letters apart.
  headers.add("@", "3");
  EXPECT_FALSE(headers.value("`").has_value());
}

std::string allOf(BodyStream& stream, std::size_t piece) {
  std::string all;
  std::string buffer(piece, '\0');
  while (const std::size_t got = stream.read(buffer.data(), piece)) all.append(buffer, 0, got);
  return all;
}

TEST(Multipart, IsByteForByteAsAgreed) {
  std::string body;
  appendMultipartField(body, "B", "name", "v\xC3\xBC");
  EXPECT_EQ(body, "\r\n--B\r\nContent-Disposition: form-data; name=\"name\"\r\n\r\nv\xC3\xBC");
  body.clear();
  appendMultipartFile(body, "B", "n", "f.txt", "text/plain", "bytes", PartPosition::last);
  EXPECT_EQ(body,
            "\r\n--B\r\nContent-Disposition: form-data; name=\"n\"; filename=\"f.txt\"\r\n"
            "Content-Type: text/plain\r\n\r\nbytes\r\n--B--\r\n");
}

TEST(Multipart, LetsNoNameBreakOutOfItsHeader) {
  std::string body;
  appendMultipartFile(body, "B", "a\"\r\nX: y", "\r\n\r\n\"", "t\r\nX: y", "");
  EXPECT_EQ(body,
            "\r\n--B\r\nContent-Disposition: form-data; name=\"a%22%0D%0AX: y\"; "
            "filename=\"%0D%0A%0D%0A%22\"\r\nContent-Type: t%0D%0AX: y\r\n\r\n");
}

TEST(MultipartBody, StreamsTheSameBytes) {
  const TemporaryFolder folder;
  const std::string bytes = std::string(100'000, 'x') + std::string("\0\r\n--B", 6);
  writeFile(folder / "file", bytes);
  writeFile(folder / "empty", "");
  MultipartBody streamed("B");
  streamed.appendField("a", "1");
  streamed.appendFile("f", "file", "application/zip", folder / "file");
  streamed.appendFile("e", "empty", "text/plain", folder / "empty", PartPosition::last);
  std::string body;
  appendMultipartField(body, "B", "a", "1");
  appendMultipartFile(body, "B", "f", "file", "application/zip", bytes);
  appendMultipartFile(body, "B", "e", "empty", "text/plain", "", PartPosition::last);
  EXPECT_EQ(streamed.contentType(), "multipart/form-data; boundary=B");
  EXPECT_EQ(streamed.size(), static_cast<std::int64_t>(body.size()));
  for (const std::size_t piece : {1UL, 777UL, 1'000'000UL}) {  // each reading begins anew
    EXPECT_EQ(allOf(*streamed.open(), piece), body);
  }
}

TEST(MultipartBody, TakesRegularFilesOnly) {
  const TemporaryFolder folder;
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  const auto code = [](const std::string& path) {
    return errorOf([&] { MultipartBody().appendFile("f", "f", "text/plain", path); }).code();
  };
  for (const std::string& path : {folder / "fifo", folder.path(), std::string("/dev/zero")}) {
    EXPECT_EQ(code(path), EINVAL) << path;
  }
  EXPECT_EQ(code(folder / "missing"), ENOENT);
}

TEST(BodyParts, NoticesAFileOfAnotherSize) {
  const TemporaryFolder folder;
  const std::string path = folder / "file";
  writeFile(path, "12345");
  BodyParts body;
  body.appendFile(path);
  body.append("end");
  for (const std::string changed : {"1234", "123456"}) {
    writeFile(path, changed);
    EXPECT_THROW(body.open(), BodyChanged) << changed;
    writeFile(path, "12345");
    const auto stream = body.open();
    std::string buffer(3, '\0');
    EXPECT_EQ(stream->read(buffer.data(), 3), 3U);
    writeFile(path, changed);
    EXPECT_THROW(allOf(*stream, 2), BodyChanged) << changed;
  }
}

}  // namespace
}  // namespace velum::test
