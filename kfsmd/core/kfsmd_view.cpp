#include "kfsmd/core/kfsmd_view.h"

#include <fcntl.h>
#include <unistd.h>

#include "kfsmd/core/kfsmd_as_user.h"

Kfsmd_View::Kfsmd_View(const std::string& tag, const tbs_uuid_s& uuid, const std::string& storage,
                       const std::string& host, uid_t uid, gid_t gid, const Kfsmd_Options& opt)
    : m_tag(tag),
      m_uuid(uuid),
      m_uid(uid),
      m_gid(gid),
      m_opt(opt),
      m_storage(storage),
      m_host(host),
      m_channel(opt.lpc_wait_ms, opt.lpc_orphan_ms) {
  reload_cache_dir();
}

std::string Kfsmd_View::storage() {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_storage;
}

void Kfsmd_View::set_location(const std::string& storage, const std::string& host) {
  {
    std::lock_guard<std::mutex> g(m_mutex);
    m_storage = storage;
    m_host = host;
  }
  reload_cache_dir();
}

std::string Kfsmd_View::cache_dir() {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_cache_dir;
}

void Kfsmd_View::reload_cache_dir() {
  const std::string file = storage() + "/.tavrel";
  std::string text;
  {
    Kfsmd_As_User as(m_uid, m_gid);
    if (!as.ok()) return;
    int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return;
    char buf[4096];
    ssize_t n;
    // The metadata file is small; more than 64 KiB is not one.
    while (text.size() < 64 * 1024 && (n = read(fd, buf, sizeof buf)) > 0) text.append(buf, size_t(n));
    close(fd);
  }
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    auto trim = [](std::string s) {
      size_t a = s.find_first_not_of(" \t\r"), b = s.find_last_not_of(" \t\r");
      return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
    };
    if (trim(line.substr(0, eq)) == "cltxt-cache-dir") {
      std::string dir = trim(line.substr(eq + 1));
      if (!dir.empty() && dir[0] == '/') {
        std::lock_guard<std::mutex> g(m_mutex);
        m_cache_dir = dir;
      }
    }
  }
}
