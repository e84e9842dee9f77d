// Settings of the module daemon. Every time is in milliseconds unless named in seconds.
#pragma once

#include <string>

struct Kfsmd_Options {
  std::string socket_path;        // the module socket
  std::string root = "/view";     // views appear as <root>/<view tag>/<silo tag>
  int lpc_wait_ms = 30 * 1000;    // how long a request waits for a view's first LPC thread
  int lpc_orphan_ms = 5 * 1000;   // how long it waits after the view's last LPC thread went away
  double entry_timeout = 30;      // seconds a cacheable name stays in the kernel
  double negative_timeout = 5;    // seconds a cached "no such name" stays
  double attr_timeout_silo = 60;  // seconds attributes of a SILO object stay (a new LVUT drops them sooner)
  double attr_timeout_private = 1;
  // A new LVUT of a SILO drops the attributes the kernel holds of it, at most once in this many seconds.
  double lvut_inval_period = 5;
  // Connections open at once. Root's connections count against neither cap. The per-user cap must stay
  // below the total (the program refuses such settings), so that no one user can fill the daemon; it is
  // large enough for a user's 64 views, each with its LPC threads and a downcall or two.
  size_t max_connections = 2048;          // all users but root together
  size_t max_connections_per_user = 512;  // one user (uid) but root
  int hello_timeout_ms = 5 * 1000;        // how long a new connection may wait before its first frame
  size_t max_views = 1024;
  size_t max_views_per_user = 64;
  size_t max_mounts_per_view = 256;
};
