#include "server/form_data.h"

#include <strings.h>

namespace tavrel_server {

namespace {

std::string boundary_param(const std::string& ct) {
  size_t p = ct.find("boundary=");
  if (p == std::string::npos) return std::string();
  std::string b = ct.substr(p + 9);
  size_t semi = b.find(';');
  if (semi != std::string::npos) b.resize(semi);
  while (!b.empty() && (b.back() == ' ' || b.back() == '\t')) b.pop_back();
  if (b.size() >= 2 && b.front() == '"' && b.back() == '"') b = b.substr(1, b.size() - 2);
  return b;
}

bool field_name(const std::string& disposition, std::string* name) {
  size_t p = disposition.find("name=\"");
  if (p == std::string::npos || disposition.compare(0, 9, "form-data") != 0) return false;
  size_t e = disposition.find('"', p + 6);
  if (e == std::string::npos) return false;
  *name = disposition.substr(p + 6, e - p - 6);
  return !name->empty();
}

}  // namespace

bool parse_form_data(const std::string& content_type, const std::string& body, std::map<std::string, std::string>* fields,
                     std::string* error) {
  fields->clear();
  auto bad = [error](const std::string& why) {
    *error = "malformed form data: " + why;
    return false;
  };
  std::string b = boundary_param(content_type);
  size_t first_end = body.find("\r\n");
  if (first_end == std::string::npos) return bad("no boundary line");
  std::string first = body.substr(0, first_end);
  if (b.empty()) {
    if (first.size() < 3 || first.compare(0, 2, "--") != 0) return bad("no boundary");
    b = first.substr(2);
  }
  if (b.empty() || b.size() > 200) return bad("bad boundary");
  const std::string delim = "--" + b;
  if (first != delim) return bad("body does not start with the boundary");
  size_t pos = first_end + 2;
  for (int parts = 0;; ++parts) {
    if (parts >= 32) return bad("too many parts");
    std::string name;
    // Headers.
    for (;;) {
      size_t e = body.find("\r\n", pos);
      if (e == std::string::npos) return bad("part headers do not end");
      std::string line = body.substr(pos, e - pos);
      pos = e + 2;
      if (line.empty()) break;
      if (line.size() > 4096) return bad("header line too long");
      size_t colon = line.find(':');
      if (colon == std::string::npos) return bad("header line without \":\"");
      std::string hname = line.substr(0, colon);
      std::string value = line.substr(colon + 1);
      while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.erase(0, 1);
      if (strcasecmp(hname.c_str(), "Content-Disposition") == 0 && !field_name(value, &name))
        return bad("bad Content-Disposition");
    }
    if (name.empty()) return bad("part without a name");
    // The body ends at the first CR LF "--<boundary>" that is followed by CR LF or "--".
    size_t end = pos;
    for (;;) {
      end = body.find("\r\n" + delim, end);
      if (end == std::string::npos) return bad("part body does not end");
      size_t after = end + 2 + delim.size();
      if (body.compare(after, 2, "\r\n") == 0 || body.compare(after, 2, "--") == 0) break;
      end += 2;
    }
    if (fields->count(name)) return bad("field \"" + name + "\" repeated");
    (*fields)[name] = body.substr(pos, end - pos);
    pos = end + 2 + delim.size();
    if (body.compare(pos, 2, "--") == 0) return true;  // closing delimiter; an epilogue is ignored
    if (body.compare(pos, 2, "\r\n") != 0) return bad("junk after a boundary");
    pos += 2;
  }
}

}  // namespace tavrel_server
