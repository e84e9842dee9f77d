#include "server/admin_client.h"

#include <httplib.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>

#include "proto/rpcargs.h"
#include "proto/wan_names.h"

namespace tavrel_server {

namespace {

// The reply's Result items, Text body, Status and message, read by the document's own lengths.
struct Reply {
  std::vector<std::pair<std::string, std::string>> items;
  std::string text, message;
  int status = -1;
};

bool parse(const std::string& doc, Reply* r) {
  size_t pos = doc.find("\r\n");
  if (pos == std::string::npos) return false;
  pos += 2;
  while (pos < doc.size()) {
    size_t eol = doc.find("\r\n", pos);
    if (eol == std::string::npos) return false;
    std::string line = doc.substr(pos, eol - pos);
    pos = eol + 2;
    if (line.empty() || line.rfind("--", 0) != 0) continue;
    if (line.size() > 2 && line.compare(line.size() - 2, 2, "--") == 0) break;  // the end line
    std::string id;
    size_t length = 0;
    std::vector<std::pair<std::string, std::string>> headers;
    for (;;) {
      eol = doc.find("\r\n", pos);
      if (eol == std::string::npos) return false;
      std::string h = doc.substr(pos, eol - pos);
      pos = eol + 2;
      if (h.empty()) break;
      size_t c = h.find(": ");
      if (c == std::string::npos) return false;
      std::string name = h.substr(0, c), value = h.substr(c + 2);
      if (name == tavrel_wan::CONTENT_ID) id = value;
      else if (name == tavrel_wan::CONTENT_LENGTH) length = std::strtoull(value.c_str(), nullptr, 10);
      else headers.push_back({name, value});
    }
    if (pos + length > doc.size()) return false;
    std::string body = doc.substr(pos, length);
    pos += length;
    if (id == "Result") r->items = headers;
    if (id == "Text") r->text = body;
    if (id == tavrel_wan::PART_STATUS) {
      for (const auto& [n, v] : headers)
        if (n == tavrel_wan::STATUS) r->status = std::atoi(v.c_str());
      r->message = body;
    }
  }
  return r->status >= 0;
}

}  // namespace

int run_admin_call(const AdminCall& call, std::ostream& out, std::ostream& err) {
  static const std::regex url_re(R"(^(https?://[^/]+)(/.*[^/])?/?$)");
  std::smatch m;
  if (!std::regex_match(call.url, m, url_re)) {
    err << "tavrel_server: bad server URL \"" << call.url << "\" (expected http[s]://host:port/base)\n";
    return 2;
  }
  std::string rpcargs;
  for (const std::string& a : call.args) {
    size_t eq = a.find('=');
    if (eq == std::string::npos || eq == 0) {
      err << "tavrel_server: argument \"" << a << "\" is not Name=value\n";
      return 2;
    }
    tavrel_wan::rpcargs_add_arg(&rpcargs, a.substr(0, eq), a.substr(eq + 1));
  }
  httplib::MultipartFormDataItems form = {{tavrel_wan::FIELD_RPC, call.op, "", ""},
                                          {tavrel_wan::FIELD_RPC_ARGS, rpcargs, "", ""}};
  if (!call.data_file.empty()) {
    std::string bytes;
    if (call.data_file == "-") {
      bytes.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
      std::ifstream in(call.data_file, std::ios::binary);
      if (!in) {
        err << "tavrel_server: cannot read " << call.data_file << "\n";
        return 2;
      }
      bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    form.push_back({"data", bytes, "data", "application/octet-stream"});
  }
  httplib::Client cli(m[1].str());
  cli.set_read_timeout(600, 0);
  if (!call.ca_file.empty()) cli.set_ca_cert_path(call.ca_file.c_str());
  httplib::Headers headers = {{tavrel_wan::HDR_ADMIN_TOKEN, call.token}};
  auto res = cli.Post((m[2].str() + tavrel_wan::PATH_ADMIN).c_str(), headers, form);
  if (!res) {
    err << "tavrel_server: cannot reach " << call.url << ": " << httplib::to_string(res.error()) << "\n";
    return 1;
  }
  Reply reply;
  if (!parse(res->body, &reply)) {
    err << "tavrel_server: HTTP " << res->status << " with an unreadable reply\n";
    return 1;
  }
  if (reply.status != 0) {
    err << "tavrel_server: " << call.op << " failed, status " << reply.status
        << (reply.message.empty() ? "" : ": " + reply.message) << "\n";
    return 1;
  }
  for (const auto& [n, v] : reply.items) out << n << ": " << v << "\n";
  out << reply.text;
  return 0;
}

}  // namespace tavrel_server
