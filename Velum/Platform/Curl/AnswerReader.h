#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Velum/HTTP/HTTPHeaders.h"
#include "Velum/Platform/Curl/ContentDecoder.h"

namespace velum {

/// A server that does not keep to the protocol, or does not come to an end.
struct BadAnswer : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The body is larger than the caller takes.
struct BodyTooLarge : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Takes in what a server answers: any number of answers, of which the last one counts. The others
/// are redirects and interim ones, whose number and size are bounded.
class AnswerReader {
 public:
  static constexpr const char* hugeHeader = "the header of the answer is too large";

  /// `method` is that of the request: HEAD is answered with lengths of bodies that don't come.
  AnswerReader(std::string_view method, std::optional<std::size_t> largestBody)
      : isHead_(method == "HEAD"), largestBody_(largestBody) {}

  /// A line of a header or trailer. Throws BadAnswer, BodyTooLarge, ContentUndecodable, bad_alloc.
  void takeLine(std::string_view line);
  /// A piece of the body. Throws the same.
  void takeData(std::string_view bytes);
  /// The body has ended. Throws ContentUndecodable when it should not have.
  void finish() const;

  /// Of the last answer.
  HTTPHeaders& headers() noexcept { return headers_; }
  const HTTPHeaders& headers() const noexcept { return headers_; }
  std::string& data() noexcept { return data_; }
  /// Gives back the memory of what was taken in.
  void drop() noexcept;

 private:
  void begin(std::string_view statusLine);
  void takeField(std::string_view line);
  void checkLength() const;
  void checkSize(std::size_t size) const;

  const bool isHead_;
  const std::optional<std::size_t> largestBody_;
  int answers_ = 0;
  std::size_t headerBytes_ = 0;  // of all answers
  int status_ = 0;
  HTTPHeaders headers_;
  std::unique_ptr<ContentDecoder> decoder_;
  std::string data_;
};

}  // namespace velum
