#include "Velum/PropertyList/PropertyList.h"

#include <algorithm>
#include <bit>

#include "Velum/PropertyList/PropertyListFormats.h"

namespace velum {
namespace {

bool areIdentical(double left, double right) {
  return std::bit_cast<std::uint64_t>(left) == std::bit_cast<std::uint64_t>(right);
}
bool areIdentical(const PropertyList::Array& left, const PropertyList::Array& right) {
  return std::ranges::equal(
      left, right, [](const auto& one, const auto& other) { return one.isIdentical(other); });
}
bool areIdentical(const PropertyList::Dictionary& left, const PropertyList::Dictionary& right) {
  return std::ranges::equal(left, right, [](const auto& one, const auto& other) {
    return one.first == other.first && one.second.isIdentical(other.second);
  });
}
template <class Leaf>
bool areIdentical(const Leaf& left, const Leaf& right) {
  return left == right;
}

}  // namespace

bool PropertyList::isIdentical(const PropertyList& other) const {
  return value.index() == other.value.index() &&
         std::visit(
             [&](const auto& content) {
               return areIdentical(content, *other.get<std::remove_cvref_t<decltype(content)>>());
             },
             value);
}

std::optional<PropertyList> PropertyList::read(std::string_view bytes) {
  if (bytes.size() > detail::PropertyListLimits::size) return std::nullopt;
  if (bytes.starts_with(detail::binaryPropertyListMagic)) {
    return detail::readBinaryPropertyList(bytes);
  }
  return detail::readXmlPropertyList(bytes);
}

std::string PropertyList::binary() const {
  return detail::writeBinaryPropertyList(*this);
}

std::optional<std::string> PropertyList::readableBinary() const {
  return detail::writeReadableBinaryPropertyList(*this);
}

}  // namespace velum
