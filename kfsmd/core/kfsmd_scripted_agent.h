// Kfsmd_Scripted_Agent: the agent's side of the view protocol for the daemon's tests (unit and end
// to end). It holds a small tree of objects and answers Root, Lookup (a name, or "." with a residual
// walk as the agent makes it: a separator is consumed before the object it follows is looked at, and
// the walk ends with status 0 at anything but a directory or before a missing name, `consumed` telling
// how far it got), Getattr, Revalidate, Readdir, Readlink, Getcleartext and
// NULL; every other RPC is unknown (rpc_status 3). A handle whose generation is not the object's is
// stale (1087).
//
// It serves in one of two ways:
//   start()     LPC threads of its own over the module library, for the daemon's unit tests; their
//               requests can be given scripted faults, one per request in arrival order:
//                 HOLD        kept until release() (or stop())
//                 BAD_COOKIE  answered with a cookie the daemon never sent
//                 DROP        the connection is closed without an answer; the thread ends
//   dispatch()  the dispatcher of the agent's own LPC threads (Tavrel_KFSM_Thread_Unix), answering
//               for the agent installed with install(); with set_no_handler(true) it makes none.
//
// Objects: 1 is the root directory. Object oids and element oids are derived from the dbid (oid(),
// elem_oid()); files have mode 0444, directories 0755; Getcleartext answers one path for every file.
// As the agent does, the attributes carry an inode number of their own (ino(), not the dbid), which
// also stands for "." and ".." in listings (the root is its own parent), while every other entry's
// number is its dbid. Root, Getattr and Lookup answers carry the SILO's last view update time
// (set_lvut(), 0 until set).
//
// Thread safety: m_mutex guards the tree, the settings, the script and the counters. The threads of
// start() end by themselves when the daemon gives them 1046 (join()), or are woken by stop(), which
// owns the module library's process-wide wake-up descriptor while threads run.
#pragma once

#include <rpc/xdr.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/tbs.h"
#include "proto/view_records.h"

class Kfsmd_Scripted_Agent {
 public:
  enum Fault { HOLD, BAD_COOKIE, DROP };

  Kfsmd_Scripted_Agent();
  ~Kfsmd_Scripted_Agent();
  Kfsmd_Scripted_Agent(const Kfsmd_Scripted_Agent&) = delete;
  Kfsmd_Scripted_Agent& operator=(const Kfsmd_Scripted_Agent&) = delete;

  // --- the tree ---
  // Adds object `dbid` as `name` in directory `dir`: type 1 file (of `size` bytes), 2 directory,
  // 5 symbolic link to `target`.
  void add(uint32_t dir, const std::string& name, uint32_t dbid, uint32_t type, uint64_t size = 0,
           const std::string& target = "");
  // A new generation of an object: handles of the old one become stale.
  void set_gen(uint32_t dbid, uint32_t gen);
  void set_lookup(bool cacheable, uint32_t miss_state);
  void set_cleartext(const std::string& path, bool rel_to_cache);
  void set_no_handler(bool none);
  void set_lvut(long seconds);
  static uint32_t ino(uint32_t dbid) { return 1000 + dbid; }
  static tbs_oid_s oid(uint32_t dbid);
  static tbs_oid_s elem_oid(uint32_t dbid);

  // Answers one request: the rpc_status, the reply in `out` (nothing for NULL and unknown RPCs).
  uint32_t answer(uint64_t op, XDR* in, XDR* out);
  uint32_t answer(uint64_t op, const std::string& in, std::string* out);
  // Requests of RPC `op` received (through either way of serving).
  int count(uint64_t op);

  // --- LPC threads of its own ---
  void start(const std::string& view_tag, int threads);
  void script(Fault f, int times = 1);
  // Waits (10 s at most) until `n` requests are held.
  bool wait_held(int n);
  void release();
  // Waits (10 s at most) for the threads to end by themselves (after 1046); false when some did not
  // (stop() ends them).
  bool join();
  // Wakes and ends the threads.
  void stop();
  // Statuses other than 0 the threads received from the module, in order.
  std::vector<int> statuses();

  // --- the agent's own LPC threads ---
  static void install(Kfsmd_Scripted_Agent* agent);
  // Matches Tavrel_KFSM_Dispatch.
  static bool dispatch(int rpc, XDR* in, XDR* out, int* rpc_status);

 private:
  struct Obj {
    uint32_t type = 1;
    uint64_t size = 0;
    uint32_t gen = 1;
    uint32_t parent = 1;
    std::map<std::string, uint32_t> names;
    std::string target;
  };
  void loop();
  // Caller holds m_mutex.
  view_vstat_t vstat(uint32_t dbid);
  view_fhandle_t fh(const tbs_uuid_s& silo, uint32_t dbid);
  bool stale(const view_fhandle_t& fh);

  std::mutex m_mutex;  // guards everything below
  std::condition_variable m_cv;
  std::map<uint32_t, Obj> m_objs;
  std::map<uint64_t, int> m_calls;
  bool m_cacheable = true;
  uint32_t m_miss_state = 0;
  std::string m_cltxt;
  bool m_rel_to_cache = true;
  bool m_no_handler = false;
  struct timeval m_lvut {};
  std::deque<Fault> m_script;
  int m_held = 0;
  uint64_t m_release = 0;  // release() calls so far
  bool m_stopping = false;
  int m_running = 0;  // threads of start() that have not ended
  std::vector<int> m_statuses;
  std::string m_tag;
  std::vector<std::thread> m_threads;
  int m_wake[2] = {-1, -1};
};
