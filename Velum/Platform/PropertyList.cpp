#include "Velum/Platform/PropertyList.h"

#include "Velum/Platform/PropertyListFormats.h"

namespace velum {

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
