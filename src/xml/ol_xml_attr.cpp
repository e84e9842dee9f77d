#include "xml/ol_xml_attr.h"

#include <ostream>
#include <utility>

OlXmlAttr::OlXmlAttr(std::string n, std::string v) : name(std::move(n)), value(std::move(v)) {}

bool OlXmlAttr::operator==(const OlXmlAttr& other) const {
  return name == other.name && value == other.value;
}

std::ostream& operator<<(std::ostream& os, const OlXmlAttr* attr) {
  if (!attr) return os;
  return os << attr->get_name() << "=\"" << attr->get_value() << "\"";
}
