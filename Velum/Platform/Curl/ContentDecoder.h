#pragma once

#include <zlib.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace velum {

/// The content is not what its coding says, or the coding is none that was asked for.
struct ContentUndecodable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Undoes the content coding of an answer while it comes in. libcurl could do that too, but takes a
/// content that ends too early for a whole one.
class ContentDecoder {
 public:
  /// What a server may use, for Accept-Encoding.
  static constexpr const char* known = "gzip, deflate";

  using Sink = std::function<void(std::string_view)>;

  /// For the value of Content-Encoding. Throws ContentUndecodable for one that is not known, and
  /// bad_alloc.
  explicit ContentDecoder(std::string_view coding);

  /// Hands `sink` what `bytes` stand for, in pieces. Throws ContentUndecodable, and what it throws.
  void decode(std::string_view bytes, const Sink& sink);
  /// Throws ContentUndecodable when the content goes on.
  void finish() const;

 private:
  struct End {
    void operator()(z_stream* stream) const noexcept {
      ::inflateEnd(stream);
      delete stream;  // NOLINT(*-owning-memory): the owner is what holds this
    }
  };

  void begin(int windowBits);
  int inflate(const Sink& sink);

  std::unique_ptr<z_stream, End> stream_;  // null where nothing is to be undone
  bool isDeflate_ = false;
  bool hasBegun_ = false;
  bool isAtEnd_ = false;
};

}  // namespace velum
