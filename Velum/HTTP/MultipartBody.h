#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Velum/HTTP/BodySource.h"

namespace velum {

/// Whether the closing line of the body follows a part.
enum class PartPosition : bool { inside, last };

/// Appends the part of a form's field to a multipart/form-data body. The line break before the
/// boundary belongs to the part, the first one's included. In names, what would end the quoted
/// text or the line becomes "%22", "%0D" and "%0A", as browsers write it. The boundary has to be
/// one that no part contains; see `makeMultipartBoundary`.
void appendMultipartField(std::string& body, std::string_view boundary, std::string_view name,
                          std::string_view value, PartPosition position = PartPosition::inside);

/// The same of a file whose bytes are in memory.
void appendMultipartFile(std::string& body, std::string_view boundary, std::string_view name,
                         std::string_view fileName, std::string_view mimeType,
                         std::string_view bytes, PartPosition position = PartPosition::inside);

/// A new boundary of random letters and digits.
std::string makeMultipartBoundary();

/// The same body byte for byte, but with files that are read while they are sent. Filled by one
/// thread, then given to a request.
class MultipartBody final : public BodySource {
 public:
  explicit MultipartBody(std::string boundary = makeMultipartBoundary());

  void appendField(std::string_view name, std::string_view value,
                   PartPosition position = PartPosition::inside);
  /// The file at `path`, a regular one. Throws SystemError; the body is of no use then.
  void appendFile(std::string_view name, std::string_view fileName, std::string_view mimeType,
                  const std::string& path, PartPosition position = PartPosition::inside);

  /// The value of the request's Content-Type field.
  std::string contentType() const { return "multipart/form-data; boundary=" + boundary_; }

  std::int64_t size() const noexcept override { return parts_.size(); }
  std::unique_ptr<BodyStream> open() const override { return parts_.open(); }

 private:
  std::string boundary_;
  BodyParts parts_;
};

}  // namespace velum
