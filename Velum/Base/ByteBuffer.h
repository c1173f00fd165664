#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace velum {

/// Bytes that arrive in pieces, without their number being known before. Large contents grow by
/// moving pages, not bytes, and fresh room is not cleared first: for a gigabyte of a tool's output
/// that is half the time that std::string takes.
class ByteBuffer {
 public:
  ByteBuffer() noexcept = default;
  ByteBuffer(ByteBuffer&& other) noexcept
      : bytes_(std::move(other.bytes_)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  ByteBuffer& operator=(ByteBuffer&& other) noexcept {
    std::swap(bytes_, other.bytes_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
    return *this;
  }
  ByteBuffer(const ByteBuffer&) = delete;
  ByteBuffer& operator=(const ByteBuffer&) = delete;
  ~ByteBuffer() = default;

  /// Valid until the next change.
  std::string_view view() const noexcept { return {bytes_.get(), size_}; }
  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }

  /// Uninitialised room for `size` bytes behind the content. Throws std::bad_alloc.
  char* room(std::size_t size) {
    if (capacity_ - size_ < size) enlarge(size);
    return bytes_.get() + size_;
  }
  /// Makes the first `size` bytes of that room part of the content.
  void extend(std::size_t size) noexcept { size_ += size; }

 private:
  struct Free {
    void operator()(char* bytes) const noexcept { std::free(bytes); }  // NOLINT(*-no-malloc)
  };

  void enlarge(std::size_t size) {
    const std::size_t capacity = size_ + (size > capacity_ ? size : capacity_);
    void* const bytes = std::realloc(bytes_.get(), capacity);  // NOLINT(*-no-malloc)
    if (bytes == nullptr) throw std::bad_alloc();
    static_cast<void>(bytes_.release());  // realloc has freed it
    bytes_.reset(static_cast<char*>(bytes));
    capacity_ = capacity;
  }

  std::unique_ptr<char, Free> bytes_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace velum
