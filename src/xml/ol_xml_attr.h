// OlXmlAttr: one attribute of a parsed element, in native text.
#pragma once

#include <iosfwd>
#include <string>

class OlXmlAttr {
 public:
  OlXmlAttr(std::string name, std::string value);

  const std::string& get_name() const { return name; }
  const std::string& get_value() const { return value; }

  // Equal when both name and value are equal byte for byte.
  bool operator==(const OlXmlAttr& other) const;
  bool operator!=(const OlXmlAttr& other) const { return !(*this == other); }

 private:
  std::string name;
  std::string value;
};

// Writes name="value" with the value exactly as it stands: no entity encoding, so a value
// holding '"', '<' or '&' does not give well-formed XML. Meant for traces. Null writes nothing.
std::ostream& operator<<(std::ostream& os, const OlXmlAttr* attr);
