#include "wan/wan_test_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "core/tavrel_config.h"
#include "proto/reply_writer.h"
#include "proto/wan_names.h"
#include "wan/rclient_session.h"

namespace wan_test {

namespace {

std::string make_temp_dir(const char* prefix) {
  std::string tmpl = std::string("/tmp/") + prefix + "-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (!mkdtemp(buf.data())) std::abort();
  return buf.data();
}

// Made before main, so that the path of "cacert.pem" is worked out with it.
const std::string g_host_config_dir = [] {
  std::string dir = make_temp_dir("tavrel-wan-hostcfg");
  setenv("TAVREL_HOST_CONFIG_DIR", dir.c_str(), 1);
  static std::string to_remove = dir;
  std::atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(to_remove, ec);
  });
  return dir;
}();

std::string bio_text(BIO* bio) {
  char* data = nullptr;
  long n = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<size_t>(n));
}

// Base64 decoding done by the TLS library, independent of the client's own.
std::string b64_decode(const std::string& text) {
  std::string out(text.size() / 4 * 3 + 3, '\0');
  int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()), reinterpret_cast<const unsigned char*>(text.data()),
                          static_cast<int>(text.size()));
  if (n < 0) return std::string();
  size_t pad = 0;
  if (!text.empty() && text.back() == '=') ++pad;
  if (text.size() > 1 && text[text.size() - 2] == '=') ++pad;
  out.resize(static_cast<size_t>(n) - pad);
  return out;
}

}  // namespace

const std::string& host_config_dir() { return g_host_config_dir; }

TempHome::TempHome() {
  m_path = make_temp_dir("tavrel-wan-home");
  const char* old = std::getenv("HOME");
  m_old_home = old ? old : "";
  setenv("HOME", m_path.c_str(), 1);
  set_config("");
}

TempHome::~TempHome() {
  Tavrel_Config::reset_for_test();
  setenv("HOME", m_old_home.c_str(), 1);
  std::error_code ec;
  std::filesystem::remove_all(m_path, ec);
}

void TempHome::write_file(const std::string& name, const std::string& data) const {
  std::ofstream f(m_path + "/" + name, std::ios::binary);
  f << data;
}

void TempHome::set_config(const std::string& text) {
  Tavrel_Config::reset_for_test();
  Tavrel_Config::get_instance()->load_text(text);
}

Cert make_cert(const std::string& common_name, const std::string& san) {
  Cert out;
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* x = X509_new();
  X509_set_version(x, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x), static_cast<long>(std::rand() & 0x7fffffff) + 1);
  X509_gmtime_adj(X509_getm_notBefore(x), -3600);
  X509_gmtime_adj(X509_getm_notAfter(x), 3600L * 24);
  X509_set_pubkey(x, key);
  X509_NAME* name = X509_get_subject_name(x);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(common_name.c_str()), -1,
                             -1, 0);
  X509_set_issuer_name(x, name);
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, x, x, nullptr, nullptr, 0);
  if (!san.empty()) {
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, NID_subject_alt_name, san.c_str());
    X509_add_ext(x, ext, -1);
    X509_EXTENSION_free(ext);
  }
  X509_sign(x, key, EVP_sha256());

  BIO* b = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(b, x);
  out.cert_pem = bio_text(b);
  BIO_free(b);
  b = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey(b, key, nullptr, nullptr, 0, nullptr, nullptr);
  out.key_pem = bio_text(b);
  BIO_free(b);
  unsigned char* der = nullptr;
  int n = i2d_PUBKEY(key, &der);
  out.spki_der.assign(reinterpret_cast<char*>(der), static_cast<size_t>(n));
  OPENSSL_free(der);
  X509_free(x);
  EVP_PKEY_free(key);
  return out;
}

// ---------------------------------------------------------------------------------------------------

Test_Wan_Server::Test_Wan_Server(Options options) : m_tls(options.tls) {
  if (m_tls) {
    BIO* cb = BIO_new_mem_buf(options.cert.cert_pem.data(), static_cast<int>(options.cert.cert_pem.size()));
    X509* cert = PEM_read_bio_X509(cb, nullptr, nullptr, nullptr);
    BIO_free(cb);
    BIO* kb = BIO_new_mem_buf(options.cert.key_pem.data(), static_cast<int>(options.cert.key_pem.size()));
    EVP_PKEY* key = PEM_read_bio_PrivateKey(kb, nullptr, nullptr, nullptr);
    BIO_free(kb);
    auto server = std::make_unique<httplib::SSLServer>(cert, key);
    X509_free(cert);
    EVP_PKEY_free(key);
    if (options.tls_max_version != 0) {
      SSL_CTX_set_security_level(server->ssl_context(), 0);
      SSL_CTX_set_min_proto_version(server->ssl_context(), 0);
      SSL_CTX_set_max_proto_version(server->ssl_context(), options.tls_max_version);
    }
    m_http = std::move(server);
  } else {
    m_http = std::make_unique<httplib::Server>();
  }
  m_http->set_keep_alive_max_count(options.keep_alive ? 100000 : 1);
  m_http->set_tcp_nodelay(true);
  // A worker stays with its connection while the client keeps it open: one per client handle.
  m_http->new_task_queue = [] { return new httplib::ThreadPool(48); };
  m_http->set_read_timeout(5, 0);
  m_http->set_write_timeout(5, 0);

  const std::string base = std::string("/") + tavrel_wan::URL_CONTEXT;
  m_http->Post(base, [this](const httplib::Request& req, httplib::Response& res) {
    Recorded r;
    record(req, &r);
    if (r.rpc == tavrel_wan::RPC_LOGIN) {
      std::string text = b64_decode(req.get_header_value(tavrel_wan::HDR_LOGIN_CREDENTIALS));
      size_t colon = text.find(':');
      std::string user = colon == std::string::npos ? std::string() : text.substr(0, colon);
      std::string password = colon == std::string::npos ? std::string() : text.substr(colon + 1);
      auto it = m_users.find(user);
      if (it == m_users.end() || it->second != password) {
        ++m_login_failures;
        res.status = 401;
        return;
      }
      ++m_logins;
      int n = m_next_token++;
      // Long enough that finding one in a trace means it was written there.
      std::string j = "jsession-" + std::to_string(n), s = "session-" + std::to_string(n);
      {
        std::lock_guard<std::mutex> g(m_mutex);
        m_sessions.insert(s);
      }
      res.set_header("Set-Cookie", std::string(tavrel_wan::COOKIE_JSESSIONID) + "=" + j + "; Path=/");
      res.set_header("Set-Cookie", std::string(tavrel_wan::COOKIE_SESSION) + "=" + s + "; Path=/");
      res.set_content(tavrel_wan::reply_status_only(0), "multipart/mixed");
      return;
    }
    if (!session_ok(req)) {
      res.status = 401;
      return;
    }
    Rpc_Handler h;
    {
      std::lock_guard<std::mutex> g(m_mutex);
      auto it = m_handlers.find(r.rpc);
      if (it != m_handlers.end()) h = it->second;
    }
    if (h) {
      h(r, res);
    } else {
      res.set_content(tavrel_wan::reply_status_only(TBS_ST_BAD_ARG, "unknown rpc " + r.rpc), "multipart/mixed");
    }
  });
  m_http->Get(base + tavrel_wan::PATH_LOGOUT, [this](const httplib::Request& req, httplib::Response& res) {
    Recorded r;
    record(req, &r);
    std::string cookie = req.get_header_value("Cookie");
    size_t at = cookie.find("Session=");
    if (at != std::string::npos) {
      std::string s = cookie.substr(at + 8);
      s = s.substr(0, s.find(';'));
      std::lock_guard<std::mutex> g(m_mutex);
      m_sessions.erase(s);
    }
    res.set_content(tavrel_wan::reply_status_only(0), "multipart/mixed");
  });
  m_http->Get(base + "/(.*)", [this](const httplib::Request& req, httplib::Response& res) {
    Recorded r;
    record(req, &r);
    if (!session_ok(req)) {
      res.status = 401;
      return;
    }
    Rpc_Handler h;
    {
      std::lock_guard<std::mutex> g(m_mutex);
      for (const auto& [pattern, handler] : m_handlers)
        if (pattern.rfind("GET ", 0) == 0 && req.path.rfind(pattern.substr(4), 0) == 0) h = handler;
    }
    if (h)
      h(r, res);
    else
      res.status = 404;
  });

  m_port = m_http->bind_to_any_port("127.0.0.1");
  m_thread = std::thread([this] { m_http->listen_after_bind(); });
  while (!m_http->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

Test_Wan_Server::~Test_Wan_Server() {
  // The client's idle handles keep connections open, and the server would wait for each of them to
  // time out: close them first.
  RClient_Session::get_session()->flush_curl_handles();
  {
    std::lock_guard<std::mutex> g(m_stop_mutex);
    m_stopping = true;
  }
  m_stop_cv.notify_all();
  m_http->stop();
  if (m_thread.joinable()) m_thread.join();
}

void Test_Wan_Server::wait_until_stopping() {
  std::unique_lock<std::mutex> g(m_stop_mutex);
  m_stop_cv.wait(g, [this] { return m_stopping.load(); });
}

std::string Test_Wan_Server::base_url() const {
  return std::string(m_tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(m_port) + "/" +
         tavrel_wan::URL_CONTEXT;
}

void Test_Wan_Server::on_rpc(const std::string& rpc, Rpc_Handler h) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_handlers[rpc] = std::move(h);
}

void Test_Wan_Server::on_get(const std::string& path_prefix, Rpc_Handler h) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_handlers["GET " + path_prefix] = std::move(h);
}

void Test_Wan_Server::expire_sessions() {
  std::lock_guard<std::mutex> g(m_mutex);
  m_sessions.clear();
}

std::vector<Recorded> Test_Wan_Server::requests() {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_requests;
}

size_t Test_Wan_Server::count(const std::string& rpc) {
  std::lock_guard<std::mutex> g(m_mutex);
  size_t n = 0;
  for (const auto& r : m_requests) n += r.rpc == rpc;
  return n;
}

void Test_Wan_Server::record(const httplib::Request& req, Recorded* out) {
  out->method = req.method;
  out->path = req.path;
  for (const auto& [k, v] : req.headers) out->headers.emplace(k, v);
  if (req.has_file(tavrel_wan::FIELD_RPC)) out->rpc = req.get_file_value(tavrel_wan::FIELD_RPC).content;
  if (req.has_file(tavrel_wan::FIELD_RPC_ARGS)) out->rpcargs = req.get_file_value(tavrel_wan::FIELD_RPC_ARGS).content;
  out->remote_port = req.remote_port;
  if (req.ssl) out->tls_resumed = SSL_session_reused(const_cast<SSL*>(req.ssl)) == 1;
  std::lock_guard<std::mutex> g(m_mutex);
  m_requests.push_back(*out);
}

bool Test_Wan_Server::session_ok(const httplib::Request& req) {
  std::string cookie = req.get_header_value("Cookie");
  size_t at = cookie.find("Session=");
  if (at == std::string::npos) return false;
  std::string s = cookie.substr(at + 8);
  s = s.substr(0, s.find(';'));
  std::lock_guard<std::mutex> g(m_mutex);
  return m_sessions.count(s) > 0;
}

// ---------------------------------------------------------------------------------------------------

bool send_all(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n <= 0) {
      if (n < 0 && errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

std::string http_reply(const std::string& body, size_t declared, int status, const std::string& extra_headers) {
  std::string r = "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Type: multipart/mixed\r\n" + extra_headers;
  r += "Content-Length: " + std::to_string(declared ? declared : body.size()) + "\r\n\r\n";
  return r + body;
}

std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen() & 0xff);
  return s;
}

std::string reply_doc(const std::vector<std::string>& bodies, int status, const std::string& message) {
  tavrel_wan::ReplyWriter w;
  w.begin();
  for (const auto& b : bodies) w.part("Item", b);
  w.status(status, message);
  w.end();
  return w.take();
}

Raw_Server::Raw_Server(Handler handler, bool read_requests) : m_handler(std::move(handler)), m_read(read_requests) {
  m_listen = ::socket(AF_INET, SOCK_STREAM, 0);
  int one = 1;
  setsockopt(m_listen, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(m_listen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(m_listen, 16) != 0) std::abort();
  socklen_t len = sizeof a;
  getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len);
  m_port = ntohs(a.sin_port);
  m_accept = std::thread([this] {
    while (!m_stop) {
      pollfd p{m_listen, POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      int fd = ::accept(m_listen, nullptr, nullptr);
      if (fd < 0) continue;
      std::lock_guard<std::mutex> g(m_mutex);
      m_fds.push_back(fd);
      m_threads.emplace_back([this, fd] { serve(fd); });
    }
  });
}

Raw_Server::~Raw_Server() {
  m_stop = true;
  m_accept.join();
  std::vector<std::thread> threads;
  {
    std::lock_guard<std::mutex> g(m_mutex);
    for (int fd : m_fds) ::shutdown(fd, SHUT_RDWR);
    threads.swap(m_threads);
  }
  for (auto& t : threads) t.join();
  for (int fd : m_fds) ::close(fd);
  ::close(m_listen);
}

std::vector<std::string> Raw_Server::requests() {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_requests;
}

void Raw_Server::serve(int fd) {
  std::string buf;
  char chunk[16384];
  auto fill = [&]() -> bool {
    while (!m_stop) {
      pollfd p{fd, POLLIN, 0};
      int r = ::poll(&p, 1, 50);
      if (r == 0) continue;
      if (r < 0) return false;
      ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
      if (n <= 0) return false;
      if (m_read) buf.append(chunk, static_cast<size_t>(n));
      return true;
    }
    return false;
  };
  if (!m_read) {
    while (fill()) {
    }
    return;
  }
  for (;;) {
    size_t end;
    while ((end = buf.find("\r\n\r\n")) == std::string::npos)
      if (!fill()) return;
    size_t header_len = end + 4;
    size_t body_len = 0;
    std::string lower = buf.substr(0, header_len);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    size_t cl = lower.find("\r\ncontent-length:");
    if (cl != std::string::npos) body_len = std::strtoul(lower.c_str() + cl + 17, nullptr, 10);
    while (buf.size() < header_len + body_len)
      if (!fill()) return;
    std::string request = buf.substr(0, header_len + body_len);
    buf.erase(0, header_len + body_len);
    {
      std::lock_guard<std::mutex> g(m_mutex);
      m_requests.push_back(request);
    }
    if (!m_handler(fd, request)) {
      ::shutdown(fd, SHUT_RDWR);
      return;
    }
  }
}

}  // namespace wan_test
