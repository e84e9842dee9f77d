// XmlNode: the small element tree a client builds requests from and reads replies into.
//
// Requests are written on one line (the agent joins the lines of a first request without
// separators), with "&", "<", ">" escaped in text and "&", "<", '"' in attributes.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tavrel::client {

struct XmlNode {
  std::string tag;
  std::vector<std::pair<std::string, std::string>> attrs;
  std::string text;
  std::vector<XmlNode> children;

  XmlNode() = default;
  explicit XmlNode(std::string t, std::string body = "") : tag(std::move(t)), text(std::move(body)) {}

  XmlNode& attr(const std::string& name, const std::string& value);
  XmlNode& child(XmlNode node);
  // The first child with this tag, or null.
  const XmlNode* find(const std::string& tag) const;
  std::string get_attr(const std::string& name) const;
  bool has_attr(const std::string& name) const;

  // Compact serialisation without declaration.
  std::string to_string() const;
  // A whole request document: declaration and root.
  std::string to_document() const;
};

std::string xml_escape_text(const std::string& s);
std::string xml_escape_attr(const std::string& s);

}  // namespace tavrel::client
