#include "kfsmd/core/kfsmd_view.h"

#include <fcntl.h>
#include <unistd.h>

#include "kfsmd/core/kfsmd_as_user.h"
#include "proto/view_metadata.h"
#include "proto/view_storage_names.h"

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
  const std::string file = storage() + "/" + VIEW_STG_METADATA;
  std::string text;
  {
    Kfsmd_As_User as(m_uid, m_gid);
    if (!as.ok()) return;
    int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return;
    char buf[4096];
    ssize_t n;
    // Read one byte past the bound, so that a file over it is seen and refused as a whole.
    while (text.size() <= VIEW_METADATA_MAX_FILE && (n = read(fd, buf, sizeof buf)) > 0)
      text.append(buf, size_t(n));
    close(fd);
  }
  std::vector<View_Metadata_Field> fields;
  std::string dir;
  if (!view_metadata_parse(text, &fields) || !view_metadata_find(fields, VIEW_MD_CLTXT_CACHE_DIR, &dir)) return;
  if (!dir.empty() && dir[0] == '/') {
    std::lock_guard<std::mutex> g(m_mutex);
    m_cache_dir = dir;
  }
}
