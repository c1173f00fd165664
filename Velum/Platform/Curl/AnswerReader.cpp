#include "Velum/Platform/Curl/AnswerReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "Velum/Base/String.h"

namespace velum {
namespace {

constexpr int maxAnswers = 100;
constexpr std::size_t maxHeaderBytes = std::size_t{1} << 20U;
constexpr int notModified = 304;

template <class Number>
std::optional<Number> numberAt(std::string_view text) {
  Number number = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  return parsed.ec == std::errc{} ? std::optional(number) : std::nullopt;
}

}  // namespace

void AnswerReader::takeLine(std::string_view line) {
  headerBytes_ += line.size();
  if (headerBytes_ > maxHeaderBytes) throw BadAnswer(hugeHeader);
  if (line.starts_with("HTTP/")) {
    begin(line);
  } else if (trimmed(line).empty()) {
    checkLength();
  } else {
    takeField(line);
  }
}

void AnswerReader::begin(std::string_view statusLine) {
  if (++answers_ > maxAnswers) throw BadAnswer("the server answers again and again");
  headers_.clear();
  const std::size_t space = std::min(statusLine.find(' '), statusLine.size() - 1);
  status_ = numberAt<int>(statusLine.substr(space + 1)).value_or(0);
}

void AnswerReader::takeField(std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return;
  const std::string_view name = trimmed(line.substr(0, colon));
  const std::string_view value = trimmed(line.substr(colon + 1));
  // libcurl would hand out what it can't decode.
  if (equalsIgnoringCase(name, "Transfer-Encoding") && !equalsIgnoringCase(value, "chunked") &&
      !equalsIgnoringCase(value, "identity")) {
    throw ContentUndecodable("the answer is sent in a coding that was not asked for");
  }
  headers_.add(std::string(name), std::string(value));
}

// A body that is announced too large is not waited for. How large a compressed one is, nobody
// knows.
void AnswerReader::checkLength() const {
  const bool isRedirect = status_ / 100 == 3 && headers_.value("Location");
  if (isHead_ || status_ == notModified || isRedirect) return;
  if (headers_.value("Content-Encoding") || headers_.value("Transfer-Encoding")) return;
  const auto length = numberAt<std::size_t>(headers_.value("Content-Length").value_or(""));
  checkSize(length.value_or(0));
}

void AnswerReader::checkSize(std::size_t size) const {
  if (!largestBody_ || size <= *largestBody_) return;
  throw BodyTooLarge(fmt::format("the answer is larger than {} bytes", *largestBody_));
}

void AnswerReader::takeData(std::string_view bytes) {
  if (!decoder_) {
    decoder_ = std::make_unique<ContentDecoder>(headers_.value("Content-Encoding").value_or(""));
  }
  decoder_->decode(bytes, [this](std::string_view plain) {
    checkSize(data_.size() + plain.size());
    data_ += plain;
  });
}

void AnswerReader::finish() const {
  if (decoder_) decoder_->finish();
}

void AnswerReader::drop() noexcept {
  decoder_.reset();
  data_ = {};
}

}  // namespace velum
