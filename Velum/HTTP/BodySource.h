#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace velum {

/// One reading of a request's body, from its begin to its end. Used by one thread at a time.
class BodyStream {
 public:
  BodyStream() = default;
  BodyStream(const BodyStream&) = delete;
  BodyStream& operator=(const BodyStream&) = delete;
  virtual ~BodyStream() = default;

  /// Fills at most `size` bytes (not 0) and returns how many; 0 only at the end. It runs on the
  /// thread that serves all exchanges, so it may wait for a disk but not for a peer. Throws
  /// SystemError, or BodyChanged when the body is not what it was said to be.
  virtual std::size_t read(char* buffer, std::size_t size) = 0;
};

/// A body that is read while it is sent. Immutable once a request holds it: it is read anew for
/// each attempt and redirect, and from any thread.
class BodySource {
 public:
  BodySource() = default;
  BodySource(const BodySource&) = delete;
  BodySource& operator=(const BodySource&) = delete;
  virtual ~BodySource() = default;

  /// In bytes; sent ahead as the request's Content-Length.
  virtual std::int64_t size() const noexcept = 0;
  /// Throws SystemError or BodyChanged.
  virtual std::unique_ptr<BodyStream> open() const = 0;
};

/// Thrown while a body is read that has no longer the size it was announced with. The text names
/// the file and never its content.
class BodyChanged : public std::exception {
 public:
  explicit BodyChanged(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

/// A body put together from bytes and from files, which are read in pieces while they are sent and
/// never held in memory. A file's size counts from the moment it was appended; one that has grown
/// or shrunk when it is read ends the request with an error.
class BodyParts final : public BodySource {
 public:
  void append(std::string_view bytes);
  /// A regular file. Throws SystemError, with EINVAL when it is something else.
  void appendFile(const std::string& path);

  std::int64_t size() const noexcept override { return size_; }
  std::unique_ptr<BodyStream> open() const override;

  struct File {
    std::string path;
    std::int64_t size;
  };
  using Part = std::variant<std::string, File>;

 private:
  std::vector<Part> parts_;
  std::int64_t size_ = 0;
};

}  // namespace velum
