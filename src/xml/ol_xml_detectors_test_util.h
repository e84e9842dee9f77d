// Detectors of the hostile-input tests: proof that parsing an input read nothing outside it. A
// directory of marker files watched with inotify (any open or read of anything in it is an event)
// and a loopback listener that counts connections. Tests first show each detector firing, so a
// silent detector cannot pass them. Test helpers; not part of any library.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

namespace ol_test {

inline constexpr char kMarker[] = "MARKER-5f1c9e";

// A directory of files that must never be touched, watched with inotify.
class MarkerDir {
 public:
  MarkerDir() {
    char tmpl[] = "/tmp/ol_xml_hostile_XXXXXX";
    path = mkdtemp(tmpl);
    write("marker.txt", kMarker);
    write("marker.dtd", std::string("<!ENTITY leak \"") + kMarker + "\">");
    write("marker.xsd", std::string("<!-- ") + kMarker + " -->");
    fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    wd = inotify_add_watch(fd, path.c_str(), IN_OPEN | IN_ACCESS);
  }
  ~MarkerDir() {
    close(fd);
    std::system(("rm -rf '" + path + "'").c_str());
  }
  bool watching() const { return fd >= 0 && wd >= 0; }
  // Number of open/read events since the last call.
  int events() {
    alignas(inotify_event) char buf[4096];
    int count = 0;
    for (;;) {
      ssize_t n = read(fd, buf, sizeof buf);
      if (n <= 0) break;
      for (char* p = buf; p < buf + n;) {
        auto* ev = reinterpret_cast<inotify_event*>(p);
        ++count;
        p += sizeof(inotify_event) + ev->len;
      }
    }
    return count;
  }
  std::string path;

 private:
  void write(const std::string& name, const std::string& text) {
    std::ofstream(path + "/" + name) << text;
  }
  int fd = -1;
  int wd = -1;
};

// A loopback TCP listener that accepts, counts and drops every connection.
class Listener {
 public:
  Listener() {
    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, 16) != 0) return;
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    thread = std::thread([this] {
      while (!stop.load()) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 20) == 1) {
          int c = accept(fd, nullptr, nullptr);
          if (c >= 0) {
            accepted.fetch_add(1);
            close(c);
          }
        }
      }
    });
  }
  ~Listener() {
    stop.store(true);
    if (thread.joinable()) thread.join();
    close(fd);
  }
  // Connections since the last call. Waits (at most 0.5 s) until nothing waits to be accepted, and a
  // moment more for the last accepted one to be counted.
  int connections() {
    for (int i = 0; i < 100; ++i) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 0) == 0) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return accepted.exchange(0);
  }
  int port = 0;

 private:
  int fd = -1;
  std::atomic<bool> stop{false};
  std::atomic<int> accepted{0};
  std::thread thread;
};

}  // namespace ol_test
