#include "Velum/Platform/Curl/ContentDecoder.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>

#include "Velum/Base/String.h"

namespace velum {
namespace {

constexpr int gzipOnly = 16 + MAX_WBITS;
constexpr unsigned char gzipMark = 0x1f;

bool isAny(std::string_view coding, std::initializer_list<std::string_view> names) {
  return std::ranges::any_of(names, [&](auto name) { return equalsIgnoringCase(coding, name); });
}

}  // namespace

ContentDecoder::ContentDecoder(std::string_view coding) {
  if (isAny(coding, {"", "identity"})) return;
  isDeflate_ = isAny(coding, {"deflate"});
  if (!isDeflate_ && !isAny(coding, {"gzip", "x-gzip"})) {
    throw ContentUndecodable("the answer is compressed in a way that was not asked for");
  }
  begin(isDeflate_ ? MAX_WBITS : gzipOnly);
}

void ContentDecoder::begin(int windowBits) {
  auto stream = std::make_unique<z_stream>();
  if (::inflateInit2(stream.get(), windowBits) != Z_OK) throw std::bad_alloc();
  stream_.reset(stream.release());
}

void ContentDecoder::decode(std::string_view bytes, const Sink& sink) {
  if (!stream_) {
    sink(bytes);
    return;
  }
  // "deflate" is meant to have a header, and with some servers has none.
  const bool isBare = isDeflate_ && !hasBegun_ && !bytes.empty() && (bytes.front() & 0x0F) != 8;
  if (isBare) begin(-MAX_WBITS);
  hasBegun_ = hasBegun_ || !bytes.empty();
  // zlib reads its input through a pointer that is not const.
  stream_->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));  // NOLINT
  stream_->avail_in = static_cast<uInt>(bytes.size());
  while (stream_->avail_in > 0) {
    if (isAtEnd_) {
      // A content may be made of several; what else comes behind it is none of it.
      if (isDeflate_ || *stream_->next_in != gzipMark) return;
      ::inflateReset(stream_.get());
    }
    isAtEnd_ = inflate(sink) == Z_STREAM_END;
  }
}

int ContentDecoder::inflate(const Sink& sink) {
  std::array<char, 16384> piece;  // NOLINT(*-member-init): filled by inflate
  int result = Z_OK;
  do {
    stream_->next_out = reinterpret_cast<Bytef*>(piece.data());  // NOLINT: as zlib wants it
    stream_->avail_out = static_cast<uInt>(piece.size());
    result = ::inflate(stream_.get(), Z_NO_FLUSH);
    if (result == Z_MEM_ERROR) throw std::bad_alloc();
    const bool isGood = result == Z_OK || result == Z_STREAM_END || result == Z_BUF_ERROR;
    if (!isGood) throw ContentUndecodable("the answer is not compressed as it says");
    sink({piece.data(), piece.size() - stream_->avail_out});
  } while (result != Z_STREAM_END && stream_->avail_out == 0);
  return result;
}

void ContentDecoder::finish() const {
  if (stream_ && hasBegun_ && !isAtEnd_) {
    throw ContentUndecodable("the compressed answer ended too early");
  }
}

}  // namespace velum
