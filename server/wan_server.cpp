#include "server/wan_server.h"

#include <httplib.h>
#include <openssl/crypto.h>

#include <chrono>
#include <cstdio>

#include "proto/reply_writer.h"
#include "proto/rpcargs.h"
#include "proto/wan_names.h"
#include "server/admin_ops.h"
#include "server/agent_rpcs.h"
#include "server/form_data.h"
#include "server/update_stream.h"

namespace tavrel_server {

using namespace tavrel_wan;

namespace {

const char* kReplyType = "multipart/mixed; boundary=X--------------nXjq59chSaB20";
const char* kFormTypeHeader = "X-Tavrel-Form-Type";

// What the request log records about the request this thread is answering. Handlers fill it; the
// logger reads it after the reply is written (same thread).
struct CurrentRequest {
  std::string rpc, args;
  int32_t status = -1;
};
thread_local CurrentRequest t_current;

int b64_value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

bool base64_decode(const std::string& in, std::string* out) {
  out->clear();
  if (in.size() % 4 != 0 || in.size() > 8192) return false;
  for (size_t i = 0; i < in.size(); i += 4) {
    int v[4];
    int pad = 0;
    for (int k = 0; k < 4; ++k) {
      char c = in[i + k];
      if (c == '=' && i + 4 == in.size() && k >= 2) {
        v[k] = 0;
        ++pad;
      } else {
        if (pad) return false;
        v[k] = b64_value(c);
        if (v[k] < 0) return false;
      }
    }
    uint32_t n = (uint32_t(v[0]) << 18) | (uint32_t(v[1]) << 12) | (uint32_t(v[2]) << 6) | uint32_t(v[3]);
    out->push_back(char(n >> 16));
    if (pad < 2) out->push_back(char((n >> 8) & 0xFF));
    if (pad < 1) out->push_back(char(n & 0xFF));
  }
  return true;
}

// Cookie header "JSESSIONID=a;Session=b" (blanks after ";" allowed).
void parse_cookies(const std::string& h, std::string* jsession, std::string* session) {
  size_t pos = 0;
  while (pos < h.size()) {
    size_t end = h.find(';', pos);
    if (end == std::string::npos) end = h.size();
    std::string kv = h.substr(pos, end - pos);
    while (!kv.empty() && kv.front() == ' ') kv.erase(0, 1);
    size_t eq = kv.find('=');
    if (eq != std::string::npos) {
      std::string k = kv.substr(0, eq), v = kv.substr(eq + 1);
      if (k == COOKIE_JSESSIONID && jsession->empty()) *jsession = v;
      if (k == COOKIE_SESSION && session->empty()) *session = v;
    }
    pos = end + 1;
  }
}

bool equal_secret(const std::string& a, const std::string& b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

// Byte offset in a reply document just after its declaration and `parts` whole parts (the whole
// document when it has fewer).
size_t offset_after_parts(const std::string& doc, int64_t parts) {
  size_t pos = doc.find("\r\n");
  if (pos == std::string::npos) return doc.size();
  pos += 2;
  for (int64_t n = 0; n < parts; ++n) {
    size_t hdr_end = doc.find("\r\n\r\n", pos);
    if (hdr_end == std::string::npos) return doc.size();
    size_t cl = doc.find("Content-Length: ", pos);
    if (cl == std::string::npos || cl > hdr_end) return doc.size();
    size_t len = std::strtoull(doc.c_str() + cl + 16, nullptr, 10);
    pos = hdr_end + 4 + len + 2;
    if (pos >= doc.size()) return doc.size();
  }
  return pos;
}

// Sends `body` applying the faults of `plan`.
void send_body(httplib::Response& res, std::string body, const FaultPlan& plan) {
  if (plan.status_override) {
    body = reply_status_only(plan.status_code, "injected status");
    t_current.status = plan.status_code;
  }
  if (plan.http_status) {
    res.status = plan.http_status;
    t_current.status = TBS_ST_INTERNAL;
    body = reply_status_only(TBS_ST_INTERNAL, "injected HTTP status");
  }
  if (plan.corrupt_header) {
    size_t id = body.find("Content-ID: ");
    size_t eol = id == std::string::npos ? std::string::npos : body.find("\r\n", id);
    if (eol != std::string::npos) body[eol + 1] = 'X';  // a CR not followed by LF
  }
  if (plan.cut_after < 0 && plan.cut_parts < 0 && plan.delay_inside_ms == 0) {
    res.set_content(body, kReplyType);
    return;
  }
  auto shared = std::make_shared<std::string>(std::move(body));
  size_t limit = plan.cut_after >= 0 ? std::min<size_t>(size_t(plan.cut_after), shared->size()) : shared->size();
  if (plan.cut_parts >= 0) limit = std::min(limit, offset_after_parts(*shared, plan.cut_parts));
  int64_t delay = plan.delay_inside_ms;
  res.set_content_provider(shared->size(), kReplyType,
                           [shared, limit, delay](size_t offset, size_t length, httplib::DataSink& sink) {
                             size_t half = shared->size() / 2;
                             if (offset >= limit) return false;  // cut: close the connection
                             size_t end = std::min(offset + length, limit);
                             if (delay > 0 && offset < half && end > half) end = half;
                             if (delay > 0 && offset == half)
                               std::this_thread::sleep_for(std::chrono::milliseconds(delay));
                             sink.write(shared->data() + offset, end - offset);
                             return true;
                           });
}

// Internal failures (status 1008) also go to standard error: they mean a fault of the server or its
// store, not of the request.
void note_internal(const std::string& rpc, const std::string& what) {
  std::fprintf(stderr, "tavrel_server: internal error in %s: %s\n", rpc.empty() ? "request" : rpc.c_str(), what.c_str());
}

void send_status(httplib::Response& res, int http, int32_t code, const std::string& msg) {
  res.status = http;
  t_current.status = code;
  res.set_content(reply_status_only(code, msg), kReplyType);
}

// The outcome of checking a request's session or credentials.
struct Auth {
  std::string user;      // empty: not authenticated
  int64_t wait_ms = 0;   // > 0: throttled, the credentials were not checked
};

// 401, or 429 with Retry-After for a throttled login.
void send_refusal(httplib::Response& res, const Auth& auth, const std::string& msg) {
  if (auth.wait_ms <= 0) return send_status(res, 401, TBS_ST_BAD_ARG, msg);
  int64_t secs = (auth.wait_ms + 999) / 1000;
  res.set_header("Retry-After", std::to_string(secs));
  send_status(res, 429, TBS_ST_BAD_ARG, "too many failed logins: try again in " + std::to_string(secs) + " s");
}

}  // namespace

WanServer::WanServer(ServerConfig cfg) : cfg_(std::move(cfg)) {
  store_ = std::make_unique<Store>(cfg_.store_path, size_t(cfg_.threads) + 2);
  sessions_ = std::make_unique<Sessions>(*store_, cfg_.session_idle_seconds);
  log_ = std::make_unique<RequestLog>(cfg_.request_log_capacity, cfg_.request_log_file);
}

WanServer::~WanServer() { stop(); }

std::shared_ptr<std::shared_mutex> WanServer::view_lock(const tbs_uuid_s& view) {
  std::lock_guard<std::mutex> g(locks_mu_);
  auto& slot = view_locks_[view];
  if (!slot) slot = std::make_shared<std::shared_mutex>();
  return slot;
}

int WanServer::start() {
  front_ = make_front_server(FrontOptions{cfg_.cert_file, cfg_.key_file, cfg_.head_timeout_ms, cfg_.max_conns_per_address});
  if (!front_) return -1;
  http_ = &front_->http();
  int threads = cfg_.threads;
  http_->new_task_queue = [threads] { return new httplib::ThreadPool(size_t(threads)); };
  http_->set_payload_max_length(cfg_.max_body);
  http_->set_read_timeout(60, 0);
  http_->set_write_timeout(600, 0);  // updates are consumed slowly
  http_->set_keep_alive_max_count(100000);
  // Idle persistent connections close after 5 s; stop() waits for them, so this bounds shutdown too.
  http_->set_keep_alive_timeout(5);
  http_->set_tcp_nodelay(true);
  install_routes();
  port_ = front_->bind(cfg_.host, cfg_.port);
  if (port_ <= 0) {
    port_ = -1;
    return -1;
  }
  thread_ = std::thread([this] { http_->listen_after_bind(); });
  for (int i = 0; i < 10000 && !http_->is_running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (!http_->is_running()) {
    stop();
    port_ = -1;
  }
  return port_;
}

void WanServer::stop() {
  if (http_) http_->stop();
  if (thread_.joinable()) thread_.join();
}

void WanServer::install_routes() {
  const std::string base = cfg_.base_path;

  // Request bodies of form posts are read raw and parsed here (httplib's own multipart reader needs a
  // boundary parameter, which some clients leave out): the form type is moved aside before routing.
  http_->set_pre_routing_handler([](const httplib::Request& creq, httplib::Response&) {
    t_current = CurrentRequest();
    auto& req = const_cast<httplib::Request&>(creq);  // httplib hands the mutable request as const
    auto it = req.headers.find("Content-Type");
    if (it != req.headers.end() && it->second.rfind("multipart/form-data", 0) == 0) {
      std::string type = it->second;
      req.headers.erase(it);
      req.headers.emplace("Content-Type", "application/octet-stream");
      req.headers.emplace(kFormTypeHeader, type);
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });

  http_->set_logger([this](const httplib::Request& req, const httplib::Response& res) {
    LogEntry e;
    e.method = req.method;
    e.path = req.path;
    e.rpc = t_current.rpc;
    e.args = t_current.args;
    e.http_status = res.status;
    e.status = t_current.status;
    log_->add(std::move(e));
  });

  // A form post's fields, or an error reply. The body is read here, at most max_body bytes whether it
  // comes with a length or in chunks: a larger one is 413, a broken one 400, and either closes the
  // connection (the rest of the body is never read).
  auto read_form = [this](const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader,
                          std::map<std::string, std::string>* fields) {
    std::string body;
    bool too_big = req.get_header_value<uint64_t>("Content-Length") > cfg_.max_body;
    if (too_big || !reader([&](const char* data, size_t n) {
          too_big = body.size() + n > cfg_.max_body;
          if (!too_big) body.append(data, n);
          return !too_big;
        })) {
      if (too_big) send_status(res, 413, TBS_ST_BAD_ARG, "request body over " + std::to_string(cfg_.max_body) + " bytes");
      else send_status(res, 400, TBS_ST_BAD_ARG, "broken request body");
      close_after_reply(res);
      return false;
    }
    std::string err;
    std::string type = req.get_header_value(kFormTypeHeader);
    if (type.empty()) type = req.get_header_value("Content-Type");
    if (!parse_form_data(type, body, fields, &err)) {
      send_status(res, 400, TBS_ST_BAD_ARG, err);
      return false;
    }
    t_current.rpc = (*fields)[FIELD_RPC];
    t_current.args = (*fields)[FIELD_RPC_ARGS];
    return true;
  };

  // The user of the request's session, or of its credentials header (a new session then, with cookies
  // set on the reply). No user when neither is valid; a wait when failed logins of that user or from
  // that address must wait (the credentials are then not checked).
  auto authenticate = [this](const httplib::Request& req, httplib::Response& res, bool login) -> Auth {
    if (!login) {
      std::string j, s;
      parse_cookies(req.get_header_value("Cookie"), &j, &s);
      if (!s.empty()) {
        std::string user = sessions_->check(j, s);
        if (!user.empty()) return {user, 0};
      }
    }
    std::string cred = req.get_header_value(HDR_LOGIN_CREDENTIALS);
    if (cred.empty()) return {};
    std::string text, who, password;
    if (base64_decode(cred, &text) && text.find(':') != std::string::npos) {
      who = text.substr(0, text.find(':'));
      password = text.substr(text.find(':') + 1);
    }
    std::string user = who.substr(who.find('\\') + 1);  // the whole name when there is no domain
    int64_t now = cfg_.clock_ms ? cfg_.clock_ms()
                                : std::chrono::duration_cast<std::chrono::milliseconds>(
                                      std::chrono::steady_clock::now().time_since_epoch()).count();
    if (int64_t wait = throttle_.wait_ms(who, req.remote_addr, now)) return {std::string(), wait};
    bool ok = !user.empty() && cfg_.open_login;
    if (!user.empty() && !cfg_.open_login) {
      auto it = cfg_.users.find(who);
      if (it == cfg_.users.end()) it = cfg_.users.find(user);
      ok = it != cfg_.users.end() && equal_secret(it->second, password);
    }
    if (!ok) {
      throttle_.failed(who, req.remote_addr, now);
      return {};
    }
    throttle_.succeeded(who);
    auto tokens = sessions_->create(who);
    res.set_header("Set-Cookie", std::string(COOKIE_JSESSIONID) + "=" + tokens.jsession + "; Path=/");
    res.set_header("Set-Cookie", std::string(COOKIE_SESSION) + "=" + tokens.session + "; Path=/");
    return {who, 0};
  };

  http_->Post(base, [this, read_form, authenticate](const httplib::Request& req, httplib::Response& res,
                                                   const httplib::ContentReader& reader) {
    std::map<std::string, std::string> fields;
    if (!read_form(req, res, reader, &fields)) return;
    const std::string& rpc = fields[FIELD_RPC];
    FaultPlan plan = faults_.take(rpc);
    if (plan.delay_before_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(plan.delay_before_ms));
    std::vector<RpcArg> parsed;
    std::string err;
    bool args_ok = rpcargs_parse(fields[FIELD_RPC_ARGS], &parsed, &err);

    if (rpc == RPC_LOGIN) {
      Auth auth = plan.refuse_login ? Auth() : authenticate(req, res, true);
      if (auth.user.empty()) {
        res.headers.erase("Set-Cookie");
        send_refusal(res, auth, "Authorization failure");
        return;
      }
      int32_t code = 0;
      std::string msg;
      if (!args_ok) {
        code = TBS_ST_BAD_ARG;
        msg = err;
      } else {
        Args a(parsed);
        try {
          int64_t lo = a.number(ARG_MIN_PROTOCOL_VER, PROTOCOL_VERSION, 0, 1 << 30);
          int64_t hi = a.number(ARG_MAX_PROTOCOL_VER, PROTOCOL_VERSION, 0, 1 << 30);
          if (PROTOCOL_VERSION < lo || PROTOCOL_VERSION > hi) {
            code = TBS_ST_BAD_ARG;
            msg = "server protocol version " + std::to_string(PROTOCOL_VERSION) + " is outside the client's range";
          }
        } catch (const ServerError& e) {
          code = e.code();
          msg = e.what();
        }
      }
      t_current.status = code;
      send_body(res, reply_status_only(code, msg), plan);
      return;
    }

    if (Auth auth = authenticate(req, res, false); auth.user.empty()) {
      send_refusal(res, auth, "not logged in");
      return;
    }
    std::string body;
    try {
      if (!args_ok) fail(TBS_ST_BAD_ARG, err);
      if (!is_agent_rpc(rpc)) fail(TBS_ST_BAD_ARG, "unknown RPC \"" + rpc + "\"");
      if ((rpc == RPC_GET_DIRECTORY_CONTENTS || rpc == RPC_SYNCFETCH) && !plan.any()) {
        // Listings and updates stream: the first parts leave before the last are read.
        std::shared_ptr<ReplyStream> stream = rpc == RPC_SYNCFETCH ? start_view_update(*this, Args(std::move(parsed)))
                                                                   : start_directory_contents(*this, Args(std::move(parsed)));
        t_current.status = 0;
        res.set_chunked_content_provider(kReplyType, [stream](size_t, httplib::DataSink& sink) {
          std::string piece;
          if (!stream->next(&piece)) {
            t_current.status = stream->final_status();
            sink.done();
            return true;
          }
          return piece.empty() || sink.write(piece.data(), piece.size());
        });
        return;
      }
      body = run_agent_rpc(*this, rpc, Args(std::move(parsed)));
      t_current.status = 0;
    } catch (const ServerError& e) {
      t_current.status = e.code();
      if (e.code() == TBS_ST_INTERNAL) note_internal(rpc, e.what());
      body = reply_status_only(e.code(), e.what());
    } catch (const std::exception& e) {
      t_current.status = TBS_ST_INTERNAL;
      note_internal(rpc, e.what());
      body = reply_status_only(TBS_ST_INTERNAL, std::string("internal error: ") + e.what());
    }
    if (plan.status_override) t_current.status = plan.status_code;
    send_body(res, std::move(body), plan);
  });

  http_->Get(base + PATH_LOGOUT, [this](const httplib::Request& req, httplib::Response& res) {
    t_current.rpc = "logout";
    FaultPlan plan = faults_.take("logout");
    if (plan.delay_before_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(plan.delay_before_ms));
    std::string j, s;
    parse_cookies(req.get_header_value("Cookie"), &j, &s);
    if (!s.empty() && !sessions_->check(j, s).empty()) sessions_->drop(s);
    t_current.status = plan.status_override ? plan.status_code : 0;
    send_body(res, reply_status_only(0), plan);
  });

  http_->Get(base + PATH_CLEARTEXT + "(.*)", [this, authenticate](const httplib::Request& req,
                                                                   httplib::Response& res) {
    t_current.rpc = "cltxt";
    std::string tail = req.matches[1];
    t_current.args = tail;
    // <replica>/<oid>/<text mode>
    size_t a = tail.find('/'), b = a == std::string::npos ? a : tail.find('/', a + 1);
    tbs_uuid_s replica;
    tbs_oid_s oid;
    if (b == std::string::npos || tail.find('/', b + 1) != std::string::npos || b + 1 >= tail.size() ||
        tbs_str_to_uuid(tail.substr(0, a), &replica) != TBS_ST_OK ||
        tbs_str_to_oid(tail.substr(a + 1, b - a - 1), &oid) != TBS_ST_OK) {
      res.status = 404;
      return;
    }
    if (Auth auth = authenticate(req, res, false); auth.user.empty()) {
      send_refusal(res, auth, "not logged in");
      return;
    }
    FaultPlan plan = faults_.take("cltxt");
    if (plan.delay_before_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(plan.delay_before_ms));
    struct Found {
      int32_t code = 0;
      std::string msg;
      int64_t content = 0;
      uint64_t size = 0;
      std::string inline_bytes;  // link text
    };
    Found f;
    try {
      f = store_->read([&](Repo& r) {
        Found x;
        auto silo = r.silo_by_replica(replica);
        if (!silo) {
          x.code = TBS_ST_NOT_FOUND;
          x.msg = "no SILO with replica " + tbs_uuid_to_str(replica);
          return x;
        }
        if (auto v = r.version_by_oid(oid); v && r.element_by_id(v->elem).silo == silo->id) {
          x.content = v->content;
          x.size = v->content ? v->size : 0;
        } else if (auto l = r.link_by_oid(oid); l && l->silo == silo->id) {
          x.inline_bytes = l->target;
          x.size = l->target.size();
        } else {
          x.code = TBS_ST_NOT_FOUND;
          x.msg = "no version " + tbs_oid_to_str(oid) + " in " + silo->tag;
        }
        return x;
      });
    } catch (const std::exception& e) {
      f.code = TBS_ST_INTERNAL;
      f.msg = e.what();
      note_internal("cltxt", f.msg);
    }
    if (f.code != 0) {
      t_current.status = f.code;
      send_body(res, reply_status_only(f.code, f.msg), plan);
      return;
    }
    t_current.status = plan.status_override ? plan.status_code : 0;
    ReplyWriter w;
    w.begin();
    w.part_header(PART_SYNC_ELEM_DATA, {}, f.size);
    std::string head = w.take();
    w.end_body();
    w.status(0);
    w.end();
    std::string tailtext = w.take();
    if (f.content == 0 || plan.any()) {
      // Small or fault-injected replies are assembled whole.
      std::string bytes = f.content ? store_->read([&](Repo& r) { return r.content_bytes(f.content); }) : f.inline_bytes;
      send_body(res, head + bytes + tailtext, plan);
      return;
    }
    // Stream the bytes from the store in blocks; the lease and blob handle live until the reply ends.
    struct Stream {
      explicit Stream(Store::Lease l) : lease(std::move(l)) {}
      ~Stream() {
        if (blob) sqlite3_blob_close(blob);
      }
      Store::Lease lease;
      sqlite3_blob* blob = nullptr;
    };
    auto st = std::make_shared<Stream>(store_->lease());
    if (sqlite3_blob_open(st->lease.db().raw(), "main", "content", "data", f.content, 0, &st->blob) != SQLITE_OK) {
      send_status(res, 200, TBS_ST_INTERNAL, "cannot read content");
      return;
    }
    uint64_t total = head.size() + f.size + tailtext.size();
    res.set_content_provider(
        size_t(total), kReplyType,
        [st, head, tailtext, size = f.size](size_t offset, size_t length, httplib::DataSink& sink) {
          if (offset < head.size()) {
            size_t n = std::min(length, head.size() - offset);
            sink.write(head.data() + offset, n);
            return true;
          }
          uint64_t in_body = offset - head.size();
          if (in_body < size) {
            char buf[256 * 1024];
            size_t n = size_t(std::min<uint64_t>({uint64_t(length), size - in_body, sizeof buf}));
            if (sqlite3_blob_read(st->blob, buf, int(n), int(in_body)) != SQLITE_OK) return false;
            sink.write(buf, n);
            return true;
          }
          size_t t = size_t(in_body - size);
          if (t >= tailtext.size()) return false;
          sink.write(tailtext.data() + t, std::min(length, tailtext.size() - t));
          return true;
        });
  });

  auto admin_handler = [this, read_form](bool admin_endpoint) {
    return [this, read_form, admin_endpoint](const httplib::Request& req, httplib::Response& res,
                                             const httplib::ContentReader& reader) {
      std::string token = req.get_header_value(HDR_ADMIN_TOKEN);
      bool is_admin = !cfg_.admin_token.empty() && equal_secret(token, cfg_.admin_token);
      if (!is_admin) {
        bool session_ok = false;
        if (!admin_endpoint) {
          std::string j, s;
          parse_cookies(req.get_header_value("Cookie"), &j, &s);
          session_ok = !s.empty() && !sessions_->check(j, s).empty();
        }
        if (!session_ok) {
          send_status(res, 401, TBS_ST_BAD_ARG, admin_endpoint ? "admin token required" : "not logged in");
          close_after_reply(res);  // the body stays unread
          return;
        }
      }
      std::map<std::string, std::string> fields;
      if (!read_form(req, res, reader, &fields)) return;
      std::string body;
      try {
        std::vector<RpcArg> parsed;
        std::string err;
        if (!rpcargs_parse(fields[FIELD_RPC_ARGS], &parsed, &err)) fail(TBS_ST_BAD_ARG, err);
        auto data = fields.find("data");
        body = run_admin_op(*this, fields[FIELD_RPC], Args(std::move(parsed)),
                            data == fields.end() ? nullptr : &data->second, is_admin);
        t_current.status = 0;
      } catch (const ServerError& e) {
        t_current.status = e.code();
        if (e.code() == TBS_ST_INTERNAL) note_internal(t_current.rpc, e.what());
        body = reply_status_only(e.code(), e.what());
      } catch (const std::exception& e) {
        t_current.status = TBS_ST_INTERNAL;
        note_internal(t_current.rpc, e.what());
        body = reply_status_only(TBS_ST_INTERNAL, std::string("internal error: ") + e.what());
      }
      res.set_content(body, kReplyType);
    };
  };
  http_->Post(base + PATH_ADMIN, admin_handler(true));
  http_->Post(base + PATH_CLIENT, admin_handler(false));

  http_->set_exception_handler([](const httplib::Request& req, httplib::Response& res, std::exception_ptr ep) {
    std::string what = "unknown exception";
    try {
      if (ep) std::rethrow_exception(ep);
    } catch (const std::exception& e) {
      what = e.what();
    } catch (...) {
    }
    note_internal(req.path, what);
    send_status(res, 500, TBS_ST_INTERNAL, "internal error");
  });
}

}  // namespace tavrel_server
