#include "client/secret.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace tavrel::client {

namespace {
constexpr size_t kMaxSecret = 4096;

int read_line_fd(int fd, std::string* out, std::string* error) {
  out->clear();
  char c;
  for (;;) {
    ssize_t n = read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *error = std::string("cannot read the password: ") + strerror(errno);
      out->clear();
      return -1;
    }
    if (n == 0 || c == '\n') break;
    if (out->size() >= kMaxSecret) {
      *error = "the password is longer than 4096 bytes";
      out->clear();  // no part of a refused secret is left behind
      return -1;
    }
    out->push_back(c);
  }
  if (!out->empty() && out->back() == '\r') out->pop_back();
  return 0;
}
}  // namespace

int read_secret(const SecretSource& src, std::string* out, std::string* error) {
  out->clear();
  if (!src.file.empty()) {
    int fd = open(src.file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      *error = "cannot open password file " + src.file + ": " + strerror(errno);
      return -1;
    }
    int rc = read_line_fd(fd, out, error);
    close(fd);
    return rc;
  }
  if (src.fd >= 0) return read_line_fd(src.fd, out, error);
  if (!src.env_var.empty()) {
    if (const char* v = getenv(src.env_var.c_str())) {
      *out = v;
      return 0;
    }
  }
  if (src.prompt.empty()) return 0;
  int tty = open("/dev/tty", O_RDWR | O_CLOEXEC);
  if (tty < 0) return 0;  // no terminal: no secret
  ssize_t ignored = write(tty, src.prompt.data(), src.prompt.size());
  (void)ignored;
  struct termios old, quiet;
  bool restore = tcgetattr(tty, &old) == 0;
  if (restore) {
    quiet = old;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(tty, TCSAFLUSH, &quiet);
  }
  int rc = read_line_fd(tty, out, error);
  if (restore) tcsetattr(tty, TCSAFLUSH, &old);
  ignored = write(tty, "\n", 1);
  close(tty);
  return rc;
}

}  // namespace tavrel::client
