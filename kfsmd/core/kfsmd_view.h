// Kfsmd_View: what the daemon knows of one registered view, shared by its SILO mounts and its LPC
// connections: identity, owner, storage, the cleartext cache directory, the LPC channel, and the
// invalidation epoch.
//
// The epoch counts the view's invalidation commands. An operation notes it before its RPC; when it has
// moved by the time the answer comes back, the answer is given to the kernel with timeouts of 0, so a
// name looked up just before an invalidation is not cached after it.
//
// Thread safety: identity fields are fixed at construction except storage and host, which a
// re-registration may change (guarded by m_mutex with the cache directory); the epoch is atomic; the
// channel has its own lock.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>

#include "base/tbs.h"
#include "kfsmd/core/kfsmd_lpc_channel.h"
#include "kfsmd/core/kfsmd_options.h"
#include "kfsmd/core/kfsmd_rpc.h"

class Kfsmd_View {
 public:
  Kfsmd_View(const std::string& tag, const tbs_uuid_s& uuid, const std::string& storage, const std::string& host,
             uid_t uid, gid_t gid, const Kfsmd_Options& opt);

  const std::string& tag() const { return m_tag; }
  const tbs_uuid_s& uuid() const { return m_uuid; }
  uid_t uid() const { return m_uid; }
  gid_t gid() const { return m_gid; }
  const Kfsmd_Options& options() const { return m_opt; }
  std::string storage();
  void set_location(const std::string& storage, const std::string& host);

  Kfsmd_Lpc_Channel& channel() { return m_channel; }
  Kfsmd_Rpc rpc() { return Kfsmd_Rpc(m_channel, m_uuid); }

  // The cleartext cache directory, read from the "cltxt-cache-dir" line of <storage>/.tavrel (as the
  // view's owner). Empty while unknown.
  std::string cache_dir();
  void reload_cache_dir();

  uint64_t epoch() const { return m_epoch.load(); }
  void bump_epoch() { m_epoch.fetch_add(1); }

 private:
  const std::string m_tag;
  const tbs_uuid_s m_uuid;
  const uid_t m_uid;
  const gid_t m_gid;
  const Kfsmd_Options m_opt;
  std::mutex m_mutex;  // guards m_storage, m_host, m_cache_dir
  std::string m_storage;
  std::string m_host;
  std::string m_cache_dir;
  Kfsmd_Lpc_Channel m_channel;
  std::atomic<uint64_t> m_epoch{0};
};
