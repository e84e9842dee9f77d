// Test and benchmark helpers: a strict reader of reply documents and a small client that speaks the
// agent's request format (and the admin API) over cpp-httplib.
//
// The reader accepts exactly the reply grammar (declaration line, parts with CR LF header lines and
// Content-Length bodies, the end line) and reports the first deviation; it does not skip anything.
#pragma once

#include <httplib.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "proto/rpcargs.h"
#include "proto/tavrel_records.h"
#include "proto/wan_names.h"

namespace tavrel_test {

struct ReplyPart {
  std::string id;
  std::map<std::string, std::string> items;  // first value of each header
  std::string body;
};

struct ParsedReply {
  bool ok = false;
  std::string error;
  std::vector<ReplyPart> parts;  // without the Status part
  int32_t status = -1;
  std::string message;
  const ReplyPart* find(const std::string& id) const {
    for (const auto& p : parts)
      if (p.id == id) return &p;
    return nullptr;
  }
};

inline ParsedReply parse_reply(const std::string& doc) {
  ParsedReply r;
  size_t pos = 0;
  auto line = [&](std::string* out) {
    size_t e = doc.find("\r\n", pos);
    if (e == std::string::npos) return false;
    *out = doc.substr(pos, e - pos);
    if (out->find('\r') != std::string::npos || out->find('\n') != std::string::npos) return false;
    pos = e + 2;
    return true;
  };
  auto bad = [&](const std::string& why) {
    r.ok = false;
    r.error = why + " at byte " + std::to_string(pos);
    return r;
  };
  std::string l;
  if (!line(&l) || l.rfind(tavrel_wan::DECL_PREFIX, 0) != 0) return bad("no declaration");
  const std::string boundary = "--" + l.substr(std::string(tavrel_wan::DECL_PREFIX).size());
  bool saw_status = false;
  for (;;) {
    if (!line(&l)) return bad("data ends inside a line");
    if (l.empty()) continue;
    if (l == boundary + "--") break;
    if (l != boundary) return bad("expected a boundary, got \"" + l + "\"");
    if (saw_status) return bad("part after Status");
    ReplyPart p;
    for (;;) {
      if (!line(&l)) return bad("headers do not end");
      if (l.empty()) break;
      if (l.size() >= 2048) return bad("header line too long");
      size_t c = l.find(": ");
      if (c == std::string::npos) return bad("header without \": \"");
      p.items.emplace(l.substr(0, c), l.substr(c + 2));
    }
    if (!p.items.count("Content-ID")) return bad("part without Content-ID");
    if (!p.items.count("Content-Length")) return bad("part without Content-Length");
    p.id = p.items["Content-ID"];
    size_t len = std::stoul(p.items["Content-Length"]);
    if (pos + len + 2 > doc.size()) return bad("body ends short");
    p.body = doc.substr(pos, len);
    pos += len;
    if (doc.compare(pos, 2, "\r\n") != 0) return bad("body not followed by CR LF");
    pos += 2;
    if (p.id == "Status") {
      if (!p.items.count("Status") || !p.items.count("HasNonOkMsg")) return bad("Status part without items");
      r.status = std::stoi(p.items["Status"]);
      if (p.items["HasNonOkMsg"] == "1") {
        if (p.body.empty()) return bad("HasNonOkMsg 1 with an empty body");
        r.message = p.body;
      } else if (!p.body.empty()) {
        return bad("HasNonOkMsg 0 with a body");
      }
      saw_status = true;
    } else {
      r.parts.push_back(std::move(p));
    }
  }
  if (pos != doc.size()) return bad("bytes after the end line");
  if (!saw_status) return bad("no Status part");
  r.ok = true;
  return r;
}

struct Result {
  int http = 0;
  std::string body;
  ParsedReply reply;
  httplib::Headers headers;
};

// A client holding one session's cookies.
class WanClient {
 public:
  WanClient(const std::string& host, int port, const std::string& base = "/tavrel")
      : cli_(host, port), base_(base) {
    cli_.set_keep_alive(true);
    cli_.set_read_timeout(60, 0);
    cli_.set_decompress(false);
    cli_.set_tcp_nodelay(true);
  }

  Result post(const std::string& path, const std::string& rpc, const std::string& args,
              const httplib::Headers& extra = {}, const std::optional<std::string>& data = std::nullopt) {
    httplib::MultipartFormDataItems items = {{"rpc", rpc, "", ""}, {"rpcargs", args, "", ""}};
    if (data) items.push_back({"data", *data, "data", "application/octet-stream"});
    httplib::Headers h = extra;
    if (!jsession_.empty()) h.emplace("Cookie", "JSESSIONID=" + jsession_ + ";Session=" + session_);
    auto res = cli_.Post((base_ + path).c_str(), h, items);
    return finish(res);
  }
  Result post(const std::string& path, const std::string& rpc, const std::string& args, const std::string& data) {
    return post(path, rpc, args, {}, data);
  }
  Result rpc(const std::string& rpc, const std::string& args) { return post("", rpc, args); }
  Result get(const std::string& path) {
    httplib::Headers h;
    if (!jsession_.empty()) h.emplace("Cookie", "JSESSIONID=" + jsession_ + ";Session=" + session_);
    return finish(cli_.Get((base_ + path).c_str(), h));
  }
  Result raw_post(const std::string& path, const std::string& body, const std::string& type,
                  const httplib::Headers& extra = {}) {
    httplib::Headers h = extra;
    if (!jsession_.empty()) h.emplace("Cookie", "JSESSIONID=" + jsession_ + ";Session=" + session_);
    return finish(cli_.Post((base_ + path).c_str(), h, body, type.c_str()));
  }

  static std::string base64(const std::string& s) {
    static const char* t = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < s.size(); i += 3) {
      uint32_t n = (uint8_t(s[i]) << 16) | (uint8_t(s[i + 1]) << 8) | uint8_t(s[i + 2]);
      out += {t[n >> 18], t[(n >> 12) & 63], t[(n >> 6) & 63], t[n & 63]};
    }
    if (i + 1 == s.size()) {
      uint32_t n = uint8_t(s[i]) << 16;
      out += {t[n >> 18], t[(n >> 12) & 63], '=', '='};
    } else if (i + 2 == s.size()) {
      uint32_t n = (uint8_t(s[i]) << 16) | (uint8_t(s[i + 1]) << 8);
      out += {t[n >> 18], t[(n >> 12) & 63], t[(n >> 6) & 63], '='};
    }
    return out;
  }

  Result login(const std::string& user, const std::string& password, int min = 6, int max = 6) {
    jsession_.clear();
    session_.clear();
    std::string args;
    tavrel_wan::rpcargs_add_arg(&args, "min_clnt_proto_ver", std::to_string(min));
    tavrel_wan::rpcargs_add_arg(&args, "max_clnt_proto_ver", std::to_string(max));
    tavrel_wan::rpcargs_add_arg(&args, "clienttype", "ClientType.UNKNOWN");
    Result r = post("", tavrel_wan::RPC_LOGIN, args,
                    {{"x-ondrel-login-credentials", base64(user + ":" + password)}});
    for (const auto& [k, v] : r.headers) {
      if (k != "Set-Cookie") continue;
      auto take = [&cookie = v](const std::string& name, std::string* out) {
        if (cookie.rfind(name + "=", 0) == 0)
          *out = cookie.substr(name.size() + 1, cookie.find(';') - name.size() - 1);
      };
      take("JSESSIONID", &jsession_);
      take("Session", &session_);
    }
    return r;
  }
  void set_cookies(const std::string& j, const std::string& s) {
    jsession_ = j;
    session_ = s;
  }
  const std::string& session() const { return session_; }
  const std::string& jsession() const { return jsession_; }
  httplib::Client& http() { return cli_; }

 private:
  Result finish(const httplib::Result& res) {
    Result r;
    if (!res) {
      r.http = -1;
      return r;
    }
    r.http = res->status;
    r.body = res->body;
    r.headers = res->headers;
    r.reply = parse_reply(res->body);
    return r;
  }

  httplib::Client cli_;
  std::string base_;
  std::string jsession_, session_;
};

// Argument text builder.
struct ArgText {
  std::string text;
  ArgText& add(const std::string& n, const std::string& v) {
    tavrel_wan::rpcargs_add_arg(&text, n, v);
    return *this;
  }
  operator const std::string&() const { return text; }
};

inline tavrel_vstat decode_vstat(const std::string& body) {
  tavrel_vstat v;
  if (tavrel_vstat_decode(&v, unsigned(body.size()), body.data()) != 0) throw std::runtime_error("bad vstat");
  return v;
}
inline tavrel_scope decode_scope(const std::string& body) {
  tavrel_scope v;
  if (tavrel_scope_decode(&v, unsigned(body.size()), body.data()) != 0) throw std::runtime_error("bad scope");
  return v;
}
inline tavrel_dirent decode_dirent(const std::string& body) {
  tavrel_dirent v;
  if (tavrel_dirent_decode(&v, unsigned(body.size()), body.data()) != 0) throw std::runtime_error("bad dirent");
  return v;
}

}  // namespace tavrel_test
