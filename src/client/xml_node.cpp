#include "client/xml_node.h"

namespace tavrel::client {

std::string xml_escape_text(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '&') out += "&amp;";
    else if (c == '<') out += "&lt;";
    else if (c == '>') out += "&gt;";
    else if (c == '\r') out += "&#13;";
    else if (c == '\n') out += "&#10;";  // keeps the document on one line
    else out += c;
  }
  return out;
}

std::string xml_escape_attr(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '&') out += "&amp;";
    else if (c == '<') out += "&lt;";
    else if (c == '"') out += "&quot;";
    else if (c == '\r') out += "&#13;";
    else if (c == '\n') out += "&#10;";
    else if (c == '\t') out += "&#9;";
    else out += c;
  }
  return out;
}

XmlNode& XmlNode::attr(const std::string& name, const std::string& value) {
  attrs.emplace_back(name, value);
  return *this;
}

XmlNode& XmlNode::child(XmlNode node) {
  children.push_back(std::move(node));
  return *this;
}

const XmlNode* XmlNode::find(const std::string& t) const {
  for (const auto& c : children)
    if (c.tag == t) return &c;
  return nullptr;
}

std::string XmlNode::get_attr(const std::string& name) const {
  for (const auto& a : attrs)
    if (a.first == name) return a.second;
  return "";
}

bool XmlNode::has_attr(const std::string& name) const {
  for (const auto& a : attrs)
    if (a.first == name) return true;
  return false;
}

std::string XmlNode::to_string() const {
  std::string out = "<" + tag;
  for (const auto& a : attrs) out += " " + a.first + "=\"" + xml_escape_attr(a.second) + "\"";
  if (text.empty() && children.empty()) return out + "/>";
  out += ">" + xml_escape_text(text);
  for (const auto& c : children) out += c.to_string();
  return out + "</" + tag + ">";
}

std::string XmlNode::to_document() const { return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>" + to_string(); }

}  // namespace tavrel::client
