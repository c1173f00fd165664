#include "Velum/HTTP/BodySource.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {
namespace {

constexpr const char* caller = "BodyParts";

// Opening never waits, not even for the writer of a FIFO that has taken the file's place.
UniqueFd openRegular(const std::string& path, std::int64_t& size) {
  UniqueFd file = checked::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY, 0, caller);
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) {
    throw lastSystemError(std::string(caller) + ": fstat (" + path + ")");
  }
  if (!S_ISREG(status.st_mode)) {
    throw SystemError(EINVAL, std::string(caller) + ": " + path + " is not a regular file");
  }
  size = status.st_size;
  return file;
}

/// Reads exactly the announced bytes of a file. The last of them are given out only when nothing
/// follows them.
class FileReader {
 public:
  explicit FileReader(const BodyParts::File& file) : path_(file.path), left_(file.size) {
    std::int64_t size = 0;
    descriptor_ = openRegular(path_, size);
    if (size != file.size) changed();
    expectEnd();
  }

  std::size_t read(char* buffer, std::size_t size) {
    if (left_ == 0) return 0;
    const auto wanted = std::min(static_cast<std::int64_t>(size), left_);
    const std::size_t got =
        checked::read(descriptor_.get(), buffer, static_cast<std::size_t>(wanted), caller);
    if (got == 0) changed();
    left_ -= static_cast<std::int64_t>(got);
    expectEnd();
    return got;
  }

 private:
  [[noreturn]] void changed() const {
    throw BodyChanged(path_ + " changed its size while it was sent");
  }
  void expectEnd() {
    char next = 0;
    if (left_ == 0 && checked::read(descriptor_.get(), &next, 1, caller) != 0) changed();
  }

  std::string path_;
  std::int64_t left_;
  UniqueFd descriptor_;
};

class PartsStream final : public BodyStream {
 public:
  explicit PartsStream(std::vector<BodyParts::Part> parts) : parts_(std::move(parts)) {
    beginPart();
  }

  std::size_t read(char* buffer, std::size_t size) override {
    std::size_t filled = 0;
    while (filled < size && index_ < parts_.size()) {
      const std::size_t got = readPart(buffer + filled, size - filled);
      filled += got;
      if (got == 0) {
        ++index_;
        beginPart();
      }
    }
    return filled;
  }

 private:
  void beginPart() {
    offset_ = 0;
    file_.reset();
    if (index_ == parts_.size()) return;
    if (const auto* file = std::get_if<BodyParts::File>(&parts_[index_])) {
      file_ = std::make_unique<FileReader>(*file);
    }
  }
  std::size_t readPart(char* buffer, std::size_t size) {
    if (file_) return file_->read(buffer, size);
    const std::string& bytes = std::get<std::string>(parts_[index_]);
    const std::size_t got = bytes.copy(buffer, size, offset_);
    offset_ += got;
    return got;
  }

  std::vector<BodyParts::Part> parts_;  // of its own: it may outlive what it was made from
  std::size_t index_ = 0;
  std::size_t offset_ = 0;
  std::unique_ptr<FileReader> file_;
};

}  // namespace

void BodyParts::append(std::string_view bytes) {
  if (parts_.empty() || !std::holds_alternative<std::string>(parts_.back())) {
    parts_.emplace_back(std::string());
  }
  std::get<std::string>(parts_.back()) += bytes;
  size_ += static_cast<std::int64_t>(bytes.size());
}

void BodyParts::appendFile(const std::string& path) {
  File file{path, 0};
  openRegular(path, file.size);
  size_ += file.size;
  parts_.emplace_back(std::move(file));
}

std::unique_ptr<BodyStream> BodyParts::open() const {
  return std::make_unique<PartsStream>(parts_);
}

}  // namespace velum
