#include "server/http_front.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <httplib.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <type_traits>
#include <unordered_map>

namespace tavrel_server {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

thread_local bool t_close_after_reply = false;

// The longest single poll, so that a stopping server is noticed soon.
constexpr int kSliceMs = 200;
// How long a connection that the server ends in the middle of a request goes on reading (and dropping)
// what the client still sends after the final reply.
constexpr int kLingerMs = 1000;

// Waits until `fd` is ready for `events`; false at `deadline`, on a poll error or when the server
// stops (its listening socket is gone).
bool wait_fd(int fd, short events, Clock::time_point deadline, const std::atomic<socket_t>& listener) {
  for (;;) {
    if (listener == INVALID_SOCKET) return false;
    auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();  // 0 only at the deadline
    if (left <= 0) return false;
    pollfd p{fd, events, 0};
    int r = ::poll(&p, 1, int(std::min<long long>(left, kSliceMs)));
    if (r > 0) return true;  // ready, or an error that the next call reports
    if (r < 0 && errno != EINTR) return false;
  }
}

void socket_name(int fd, bool peer, std::string& ip, int& port) {
  sockaddr_storage a{};
  socklen_t len = sizeof a;
  int r = peer ? ::getpeername(fd, reinterpret_cast<sockaddr*>(&a), &len)
               : ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  char text[INET6_ADDRSTRLEN] = "";
  port = 0;
  if (r == 0 && a.ss_family == AF_INET) {
    auto* s = reinterpret_cast<sockaddr_in*>(&a);
    ::inet_ntop(AF_INET, &s->sin_addr, text, sizeof text);
    port = ntohs(s->sin_port);
  } else if (r == 0 && a.ss_family == AF_INET6) {
    auto* s = reinterpret_cast<sockaddr_in6*>(&a);
    ::inet_ntop(AF_INET6, &s->sin6_addr, text, sizeof text);
    port = ntohs(s->sin6_port);
  }
  ip = text;
}

std::string plain_reply(const char* status, const std::string& text) {
  return std::string("HTTP/1.1 ") + status + "\r\nContent-Type: text/plain\r\nConnection: close\r\nContent-Length: " +
         std::to_string(text.size()) + "\r\n\r\n" + text;
}

// Open connections per peer address. Thread safety: all members take `mu_`.
class AddressCounts {
 public:
  bool acquire(const std::string& address, int max) {
    std::lock_guard<std::mutex> g(mu_);
    int& n = counts_[address];
    if (n >= max) return false;
    ++n;
    return true;
  }
  void release(const std::string& address) {
    std::lock_guard<std::mutex> g(mu_);
    auto it = counts_.find(address);
    if (it != counts_.end() && --it->second <= 0) counts_.erase(it);
  }

 private:
  std::mutex mu_;
  std::unordered_map<std::string, int> counts_;
};

// One connection as the library's parser sees it: buffered reads, and writes, over a non-blocking
// socket (through TLS when `ssl` is set), each waiting at most the server's read or write timeout;
// while a request head is being read, reads also stop at the head's deadline.
class ConnStream final : public httplib::Stream {
 public:
  ConnStream(int fd, SSL* ssl, milliseconds read_limit, milliseconds write_limit, const std::atomic<socket_t>& listener)
      : fd_(fd), ssl_(ssl), read_limit_(read_limit), write_limit_(write_limit), listener_(listener) {}

  // Waits up to `idle` for the first byte of the next request.
  bool await_request(milliseconds idle) const { return has_input() || wait_fd(fd_, POLLIN, Clock::now() + idle, listener_); }
  void begin_head(Clock::time_point deadline) {
    head_deadline_ = deadline;
    in_head_ = true;
  }
  void end_head() { in_head_ = false; }
  bool head_expired() const { return expired_; }
  // Ends the sending side and drops input until the client closes or `deadline`: closing with input
  // unread would reset the connection, and the client could lose the final reply.
  void linger(Clock::time_point deadline) {
    if (ssl_) SSL_shutdown(ssl_);
    ::shutdown(fd_, SHUT_WR);
    char sink[4096];
    while (wait_fd(fd_, POLLIN, deadline, listener_) && ::recv(fd_, sink, sizeof sink, 0) > 0) {
    }
  }
  // Writes `text` whole, also after the head expired (the server's own answer to that).
  void send_all(const std::string& text) {
    for (size_t off = 0; off < text.size();) {
      ssize_t n = send_some(text.data() + off, text.size() - off);
      if (n <= 0) return;
      off += size_t(n);
    }
  }

  bool is_readable() const override { return has_input() || wait_fd(fd_, POLLIN, read_deadline(), listener_); }
  bool is_writable() const override { return !expired_ && wait_fd(fd_, POLLOUT, Clock::now() + write_limit_, listener_); }
  ssize_t read(char* p, size_t n) override {
    if (pos_ == len_) {
      ssize_t got = fill();
      if (got <= 0) return got;
    }
    size_t k = std::min(n, len_ - pos_);
    std::memcpy(p, buf_ + pos_, k);
    pos_ += k;
    return ssize_t(k);
  }
  // Once the head expired, the library's own error reply is dropped: the server sends 408 instead.
  ssize_t write(const char* p, size_t n) override { return expired_ ? -1 : send_some(p, n); }
  void get_remote_ip_and_port(std::string& ip, int& port) const override { socket_name(fd_, true, ip, port); }
  void get_local_ip_and_port(std::string& ip, int& port) const override { socket_name(fd_, false, ip, port); }
  socket_t socket() const override { return fd_; }

 private:
  bool has_input() const { return pos_ < len_ || (ssl_ && SSL_pending(ssl_) > 0); }
  Clock::time_point read_deadline() const {
    Clock::time_point d = Clock::now() + read_limit_;
    return in_head_ ? std::min(d, head_deadline_) : d;
  }

  // Refills the empty buffer: the byte count, 0 at the end of input, -1 on an error or a timeout.
  ssize_t fill() {
    pos_ = len_ = 0;
    Clock::time_point deadline = read_deadline();
    for (;;) {
      short want = POLLIN;
      if (ssl_) {
        ERR_clear_error();
        int r = SSL_read(ssl_, buf_, int(sizeof buf_));
        if (r > 0) return ssize_t(len_ = size_t(r));
        int e = SSL_get_error(ssl_, r);
        if (e == SSL_ERROR_ZERO_RETURN) return 0;
        if (e == SSL_ERROR_WANT_WRITE) want = POLLOUT;
        else if (e != SSL_ERROR_WANT_READ) return -1;
      } else {
        ssize_t r = ::recv(fd_, buf_, sizeof buf_, 0);
        if (r >= 0) return ssize_t(len_ = size_t(r));
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
      }
      if (!wait_fd(fd_, want, deadline, listener_)) {
        if (in_head_ && Clock::now() >= head_deadline_) expired_ = true;
        return -1;
      }
    }
  }

  ssize_t send_some(const char* p, size_t n) {
    if (n == 0) return 0;
    Clock::time_point deadline = Clock::now() + write_limit_;
    for (;;) {
      short want = POLLOUT;
      if (ssl_) {
        ERR_clear_error();
        int r = SSL_write(ssl_, p, int(std::min<size_t>(n, 1u << 30)));
        if (r > 0) return r;
        int e = SSL_get_error(ssl_, r);
        if (e == SSL_ERROR_WANT_READ) want = POLLIN;
        else if (e != SSL_ERROR_WANT_WRITE) return -1;
      } else {
        ssize_t r = ::send(fd_, p, n, MSG_NOSIGNAL);
        if (r >= 0) return r;
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
      }
      if (!wait_fd(fd_, want, deadline, listener_)) return -1;
    }
  }

  int fd_;
  SSL* ssl_;
  milliseconds read_limit_, write_limit_;
  const std::atomic<socket_t>& listener_;
  char buf_[16384];
  size_t pos_ = 0, len_ = 0;
  Clock::time_point head_deadline_;
  bool in_head_ = false, expired_ = false;
};

template <class Base>
class Front final : public Base, public FrontServer {
 public:
  template <class... A>
  explicit Front(const FrontOptions& opt, A&&... a) : Base(std::forward<A>(a)...), opt_(opt) {}

  httplib::Server& http() override { return *this; }

  int bind(const std::string& host, int port) override {
    this->set_socket_options([](socket_t s) {
      int yes = 1;
      ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    int bound = port == 0 ? this->bind_to_any_port(host) : (this->bind_to_port(host, port) ? port : -1);
    if (bound <= 0) return -1;
    // The library listens with a backlog of 5; listening again on the same socket raises it.
    if (::listen(this->svr_sock_, SOMAXCONN) != 0) return -1;
    return bound;
  }

 private:
  static constexpr bool kTls = std::is_base_of_v<httplib::SSLServer, Base>;

  bool process_and_close_socket(socket_t fd) override {
    serve(fd);
    ::shutdown(fd, SHUT_RDWR);
    ::close(fd);
    return true;
  }

  void serve(int fd) {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    std::string peer;
    int peer_port = 0;
    socket_name(fd, true, peer, peer_port);
    if (!counts_.acquire(peer, opt_.max_per_address)) {
      if constexpr (!kTls) refuse(fd, peer);
      return;
    }
    SSL* ssl = nullptr;
    if constexpr (kTls) {
      ssl = handshake(fd);
      if (!ssl) {
        counts_.release(peer);
        return;
      }
    }
    bool cut = false;  // ended by the server while the client may still be sending
    {
      ConnStream s(fd, ssl, milliseconds(this->read_timeout_sec_ * 1000 + this->read_timeout_usec_ / 1000),
                   milliseconds(this->write_timeout_sec_ * 1000 + this->write_timeout_usec_ / 1000), this->svr_sock_);
      for (size_t left = this->keep_alive_max_count_; left > 0 && !cut; --left) {
        if (!s.await_request(milliseconds(this->keep_alive_timeout_sec_ * 1000))) break;
        s.begin_head(Clock::now() + milliseconds(opt_.head_timeout_ms));
        bool closed = false;
        t_close_after_reply = false;
        bool ok = this->process_request(s, left == 1, closed, [&s](httplib::Request&) { s.end_head(); });
        if (s.head_expired()) s.send_all(plain_reply("408 Request Timeout", "the request head did not arrive in time\n"));
        cut = s.head_expired() || t_close_after_reply;
        if (!ok || closed) break;
      }
      if (cut) s.linger(Clock::now() + milliseconds(kLingerMs));
    }
    if (ssl) {
      if (!cut) SSL_shutdown(ssl);  // else done by linger()
      SSL_free(ssl);
    }
    counts_.release(peer);
  }

  // Over the cap: the reason, then the connection closes without reading the request.
  void refuse(int fd, const std::string& peer) {
    std::string reply = plain_reply("503 Service Unavailable", "too many connections from " + peer + "\n");
    (void)!::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
    // What already arrived is read away, so that closing does not reset the connection under the reply.
    char sink[4096];
    for (int i = 0; i < 16 && ::recv(fd, sink, sizeof sink, 0) > 0; ++i) {
    }
  }

  SSL* handshake(int fd) {
    SSL* ssl = SSL_new(this->ssl_context());
    if (!ssl) return nullptr;
    SSL_set_fd(ssl, fd);
    Clock::time_point deadline = Clock::now() + milliseconds(opt_.head_timeout_ms);
    for (;;) {
      ERR_clear_error();
      int r = SSL_accept(ssl);
      if (r == 1) return ssl;
      int e = SSL_get_error(ssl, r);
      short want = e == SSL_ERROR_WANT_READ ? POLLIN : e == SSL_ERROR_WANT_WRITE ? POLLOUT : 0;
      if (!want || !wait_fd(fd, want, deadline, this->svr_sock_)) {
        SSL_free(ssl);
        return nullptr;
      }
    }
  }

  FrontOptions opt_;
  AddressCounts counts_;
};

}  // namespace

std::unique_ptr<FrontServer> make_front_server(const FrontOptions& opt) {
  if (opt.cert_file.empty()) return std::make_unique<Front<httplib::Server>>(opt);
  auto tls = std::make_unique<Front<httplib::SSLServer>>(opt, opt.cert_file.c_str(), opt.key_file.c_str());
  if (!tls->is_valid()) return nullptr;
  return tls;
}

void close_after_reply(httplib::Response& res) {
  res.set_header("Connection", "close");
  t_close_after_reply = true;
}

}  // namespace tavrel_server
