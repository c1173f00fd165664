#include "Velum/HTTP/MultipartBody.h"

#include <array>
#include <cstring>
#include <random>

#include "Velum/Base/String.h"

namespace velum {
namespace {

// What stands between the quotes of a part's header, or behind "Content-Type: ".
std::string headerText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "%22";
        break;
      case '\r':
        out += "%0D";
        break;
      case '\n':
        out += "%0A";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string partBegin(std::string_view boundary, std::string_view name) {
  std::string out("\r\n--");
  out.append(boundary).append("\r\nContent-Disposition: form-data; name=\"");
  return out.append(headerText(name)).append("\"");
}

std::string fieldHead(std::string_view boundary, std::string_view name) {
  return partBegin(boundary, name).append("\r\n\r\n");
}

std::string fileHead(std::string_view boundary, std::string_view name, std::string_view fileName,
                     std::string_view mimeType) {
  std::string out = partBegin(boundary, name);
  out.append("; filename=\"").append(headerText(fileName)).append("\"\r\n");
  return out.append("Content-Type: ").append(headerText(mimeType)).append("\r\n\r\n");
}

std::string closing(std::string_view boundary, PartPosition position) {
  if (position == PartPosition::inside) return {};
  return std::string("\r\n--").append(boundary).append("--\r\n");
}

}  // namespace

void appendMultipartField(std::string& body, std::string_view boundary, std::string_view name,
                          std::string_view value, PartPosition position) {
  body.append(fieldHead(boundary, name)).append(value).append(closing(boundary, position));
}

void appendMultipartFile(std::string& body, std::string_view boundary, std::string_view name,
                         std::string_view fileName, std::string_view mimeType,
                         std::string_view bytes, PartPosition position) {
  body.append(fileHead(boundary, name, fileName, mimeType)).append(bytes);
  body.append(closing(boundary, position));
}

std::string makeMultipartBoundary() {
  std::random_device device;
  std::array<std::random_device::result_type, 4> words{};
  for (auto& word : words) word = device();
  std::array<char, sizeof words> bytes{};
  std::memcpy(bytes.data(), words.data(), sizeof words);
  return "Boundary-" + hexText({bytes.data(), bytes.size()});
}

MultipartBody::MultipartBody(std::string boundary) : boundary_(std::move(boundary)) {}

void MultipartBody::appendField(std::string_view name, std::string_view value,
                                PartPosition position) {
  parts_.append(fieldHead(boundary_, name));
  parts_.append(value);
  parts_.append(closing(boundary_, position));
}

void MultipartBody::appendFile(std::string_view name, std::string_view fileName,
                               std::string_view mimeType, const std::string& path,
                               PartPosition position) {
  parts_.append(fileHead(boundary_, name, fileName, mimeType));
  parts_.appendFile(path);
  parts_.append(closing(boundary_, position));
}

}  // namespace velum
