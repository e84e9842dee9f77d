#include "client/response.h"

#include <cstdlib>
#include <map>
#include <memory>

#include "proto/tavrel_status.h"
#include "xml/ol_xml_doc.h"
#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_parser.h"

namespace tavrel::client {

namespace {

XmlNode convert(const OlXmlElem* e) {
  XmlNode n(e->get_tag(), e->get_value());
  for (const OlXmlAttr* a : e->get_attrs()) n.attr(a->get_name(), a->get_value());
  for (const OlXmlElem* c : e->get_children()) n.child(convert(c));
  return n;
}

bool is_integer(const std::string& s) {
  if (s.empty() || s.size() > 18) return false;
  size_t i = s[0] == '-' ? 1 : 0;
  if (i == s.size()) return false;
  for (; i < s.size(); i++)
    if (s[i] < '0' || s[i] > '9') return false;
  return s == "0" || (s[0] != '0' && !(s[0] == '-' && s.size() > 1 && s[1] == '0'));
}

}  // namespace

std::string json_quote(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char buf[8];
          snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

namespace {

std::string json_scalar(const std::string& s) {
  if (s == "true" || s == "false") return s;
  if (is_integer(s)) return s;
  return json_quote(s);
}

std::string json_value(const XmlNode& n);

// Children grouped by tag, in order of first appearance; a tag seen twice becomes an array.
std::string json_object(const XmlNode& n) {
  std::vector<std::string> order;
  std::map<std::string, std::vector<const XmlNode*>> groups;
  for (const auto& c : n.children) {
    if (!groups.count(c.tag)) order.push_back(c.tag);
    groups[c.tag].push_back(&c);
  }
  std::string out = "{";
  bool first = true;
  for (const auto& a : n.attrs) {
    if (a.first == "tx-id" || a.first == "status-code") continue;
    out += (first ? "" : ",") + json_quote("@" + a.first) + ":" + json_scalar(a.second);
    first = false;
  }
  for (const auto& tag : order) {
    const auto& g = groups[tag];
    out += (first ? "" : ",") + json_quote(tag) + ":";
    first = false;
    if (g.size() == 1) {
      out += json_value(*g[0]);
    } else {
      out += "[";
      for (size_t i = 0; i < g.size(); i++) out += (i ? "," : "") + json_value(*g[i]);
      out += "]";
    }
  }
  return out + "}";
}

std::string json_value(const XmlNode& n) {
  if (n.children.empty() && n.attrs.empty()) return json_scalar(n.text);
  return json_object(n);
}

}  // namespace

bool Response::parse(const std::string& document, Response* out, std::string* error) {
  OlXmlParser parser;
  OlXmlParser::Result result;
  std::unique_ptr<OlXmlDoc> doc(parser.parse(document, result));
  if (!doc || !doc->get_root()) {
    *error = "the reply is not well-formed XML: " + result.message;
    return false;
  }
  Response r;
  r.root = convert(doc->get_root());
  if (!r.root.has_attr("status-code")) {
    *error = "the reply has no status-code";
    return false;
  }
  std::string code = r.root.get_attr("status-code");
  if (!is_integer(code)) {
    *error = "the reply's status-code is not a number";
    return false;
  }
  r.status = atoi(code.c_str());
  if (r.root.has_attr("tx-id")) r.txid = r.root.get_attr("tx-id");
  for (auto it = r.root.children.begin(); it != r.root.children.end(); ++it) {
    if (it->tag == "status-message") {
      r.message = it->text;
      r.root.children.erase(it);
      break;
    }
  }
  *out = std::move(r);
  return true;
}

const char* status_name(int code) {
  return tavrel_status_name(code);
}

std::string to_json(const Response& r) {
  std::string out = "{\"op\":" + json_quote(r.root.tag) + ",\"tx_id\":" + (r.txid ? json_quote(*r.txid) : "null") +
                    ",\"status\":" + std::to_string(r.status) + ",\"status_name\":" + json_quote(status_name(r.status)) +
                    ",\"message\":" + json_quote(r.message) + ",\"result\":";
  return out + json_object(r.root) + "}";
}

}  // namespace tavrel::client
