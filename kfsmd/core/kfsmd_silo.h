// Kfsmd_Silo: one mounted SILO of a view: its mount record, the table of nodes the kernel knows, the
// handlers of the file-system operations (written against Kfsmd_Reply, so they run without libfuse
// in tests), path resolution for the stat command, and the invalidation planner.
//
// Nodes. Node 1 is the SILO root, bound by a Root RPC on first use (and again after a whole-view
// invalidation); its handle may change, its number never does. Every other node is keyed by its
// handle's (ver_dbid, gen, history bit): an answer that carries a known key refreshes that node, a new
// key takes the next number of a 64-bit counter that never repeats. The kernel's lookup count is kept
// per node; a node leaves the table when the kernel forgets it. Names the kernel was given are kept as
// (directory, name) -> node, and names it was told do not exist as negative entries, so that an
// invalidation can reach both.
//
// Names given with a time of 0 (the agent said the answer may not be cached, or an invalidation came
// while it was asked) are not kept: the kernel asks for them again at every use, so no invalidation
// needs to reach them.
//
// Attributes: types 1, 2, 5 give regular file, directory, symbolic link, then the permission bits;
// the inode number is (history bit << 32) + ver_dbid; owner and group are the view owner's (the
// agent gives its own identities; "nobody" gives 65534); blocks are size / 512 rounded up.
//
// Listings give the kernel each entry's number as the agent lists it (the object's dbid, the number
// stat gives), except "." and "..", which the agent numbers from its own inode records: "." gets the
// directory's number, ".." the number of the directory it was looked up in, and for the SILO root
// that of the real directory the SILO is mounted in. A listing continues from the offset of the last
// entry the kernel took.
//
// The SILO's last view update time (LVUT) comes with Root, Getattr and Lookup answers. When it moves
// forward, attributes the agent had may have changed unseen: the attributes of every node the kernel
// holds are invalidated, at most once per attribute timeout (the kernel's own copies expire by then).
//
// Opening a file: Getcleartext names the backing file, relative to the view's cleartext cache
// directory (rel_to_cache) or to "<storage>/.s", or absolute; it is opened as the view's owner.
// That one call is all an open costs the agent: reads go to the backing file, in this process.
// SILO objects are read-only (EROFS for writing or truncating before any RPC). When the backing file's
// size differs from the attributes given to the kernel, the file is opened with direct I/O so reads
// are not cut at the stale size.
// Page cache: the kernel keeps the pages it read of a SILO file between opens (keep_cache) while the
// node still stands for what it held at the last open: the same object, attributes (size, mtime) and
// backing file. Any change, a first open, a view-private file or a direct-I/O open lets the kernel
// drop them.
//
// Stale handles: a directory answered 1087 is revalidated (node 1: bound again) and the operation
// retried once; files get ESTALE.
//
// Invalidation planning (kinds of the kernel channel): 1 drops the name in every directory node whose
// object or element oid matches and invalidates those directories' attributes; 2, 5, 6, 7 invalidate
// every matching node's attributes and every name that points at it (and, for a directory, the names
// in it); 3 invalidates every name and node and unbinds the root. Matching is by object and element
// oid alike.
//
// Lock: m_mutex guards the tables; it is never held across an RPC or a system call on a backing file.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "kfsmd/core/kfsmd_mount.h"
#include "kfsmd/core/kfsmd_view.h"
#include "proto/kfsm_records.h"

struct Kfsmd_Silo_Info {
  std::string tag;          // "/name"
  std::string mount_point;  // <root>/<view tag>/<name>
  std::string host;
  std::string storage;
  tbs_oid_s family{};
  tbs_uuid_s replica{};
};

class Kfsmd_Silo {
 public:
  static constexpr uint64_t ROOT_INO = 1;
  static constexpr int MAX_LINKS = 20;
  // Negative names kept for invalidation; beyond this a miss is answered as a plain ENOENT.
  static constexpr size_t MAX_NEGATIVE = 4096;

  Kfsmd_Silo(std::shared_ptr<Kfsmd_View> view, const Kfsmd_Silo_Info& info);
  ~Kfsmd_Silo();

  const Kfsmd_Silo_Info& info() const { return m_info; }
  Kfsmd_View& view() { return *m_view; }

  // The mount made for this SILO by the glue (owned here once set).
  void set_mount(std::unique_ptr<Kfsmd_Mount> m);
  Kfsmd_Mount* mount();
  std::unique_ptr<Kfsmd_Mount> take_mount();

  // --- file-system operations ---
  void lookup(uint64_t parent, const std::string& name, Kfsmd_Reply& r);
  void forget(uint64_t ino, uint64_t nlookup);
  void getattr(uint64_t ino, Kfsmd_Reply& r);
  void readlink(uint64_t ino, Kfsmd_Reply& r);
  void readdir(uint64_t ino, uint64_t off, size_t size, Kfsmd_Reply& r);
  // `flags` are the open(2) flags of the caller.
  void open(uint64_t ino, int flags, Kfsmd_Reply& r);
  void statfs(Kfsmd_Reply& r);

  // --- the stat command ---
  // Resolves `rest` (a path inside the SILO, "" for its root) through the agent: 0 with the object's
  // attributes and handle, or a status of the 1000 range (1083 for the 21st symbolic link, 1072 for
  // an absolute link target, the agent's status otherwise; a failure of the channel gives the status
  // of its errno).
  int resolve(const std::string& rest, bool follow, view_vstat_t* vs, view_fhandle_t* fh);

  // --- invalidation ---
  // Plans the kernel invalidations for one command of kind `kind` and drops what they touch from the
  // tables. An unknown oid gives no action.
  void plan(uint32_t kind, const tbs_oid_s& oid, const std::string& name, std::vector<Kfsmd_Action>* out);

  // Counters (tests).
  size_t node_count();
  size_t name_count();

  // The attributes the kernel is given for a record.
  struct stat to_stat(const view_vstat_t& vs, const view_fhandle_t& fh) const;
  // The inode number stat gives for a handle.
  static uint64_t ino_of(const view_fhandle_t& fh) {
    return (static_cast<uint64_t>(fh.flags & 1) << 32) + fh.ver_dbid;
  }

 private:
  struct Node {
    uint64_t ino = 0;
    view_fhandle_t fh{};
    view_vstat_t vs{};
    uint64_t nlookup = 0;
    uint64_t parent = 0;                                // directory it was last looked up in
    std::set<std::pair<uint64_t, std::string>> names;  // (directory, name) that point here
    // What the kernel's pages of a SILO file were read from (valid when `paged`).
    bool paged = false;
    tbs_oid_s paged_oid{};
    uint64_t paged_size = 0;
    struct timeval paged_mtime {};
    dev_t paged_dev = 0;
    ino_t paged_ino = 0;
    struct timespec paged_ctime {};  // a file made anew may get a freed inode number back
  };
  using Key = std::tuple<uint32_t, uint32_t, uint32_t>;
  static Key key_of(const view_fhandle_t& fh) { return Key{fh.ver_dbid, fh.gen, fh.flags & 1}; }
  static bool is_private(const view_fhandle_t& fh) { return (fh.flags & 2) != 0; }
  static bool is_dir(const view_vstat_t& vs) { return vs.fstat.type == 2; }

  // The handle of `ino` (binding the root first when needed). 0 or an errno.
  int handle_of(uint64_t ino, view_fhandle_t* fh, view_vstat_t* vs = nullptr);
  int bind_root(view_fhandle_t* fh, view_vstat_t* vs);
  // Handles a 1087 on `ino`: a directory (or the root) gets a new handle; 0, or ESTALE.
  int revalidate(uint64_t ino, view_fhandle_t* fh);
  // Caller holds m_mutex. The node for an answer's handle, made when new.
  Node& intern(const view_fhandle_t& fh, const view_vstat_t& vs);
  // Caller holds m_mutex. Gives a node its attributes and keeps m_by_oid in step with them.
  void set_vs(Node& n, const view_vstat_t& vs);
  void index_oid(const tbs_oid_s& oid, uint64_t ino);
  void unindex_oid(const tbs_oid_s& oid, uint64_t ino);
  void drop_name(uint64_t dir, const std::string& name);
  void remove_node(uint64_t ino);
  double attr_timeout(const view_fhandle_t& fh) const;
  // Records an answer's LVUT; when it moved forward, invalidates the attributes the kernel holds.
  void note_lvut(const struct timeval& lvut);
  // The inode numbers a listing gives for "." and ".." of `ino`, whose handle is `fh`.
  uint64_t dot_dot_ino(uint64_t ino, const view_fhandle_t& fh, uint64_t agents);
  void notify(std::vector<Kfsmd_Action> actions);
  std::string backing_path(const std::string& path, bool rel_to_cache);

  std::shared_ptr<Kfsmd_View> m_view;
  const Kfsmd_Silo_Info m_info;
  std::mutex m_mount_mutex;  // guards m_mount, which request handlers notify through
  std::unique_ptr<Kfsmd_Mount> m_mount;

  std::mutex m_mutex;  // guards everything below
  bool m_root_bound = false;
  uint64_t m_next_ino = 2;
  std::unordered_map<uint64_t, Node> m_nodes;
  std::map<Key, uint64_t> m_by_key;
  // The nodes by the oids of their attributes (version and element): an invalidation finds the nodes of
  // an object without walking them all, so an update's stream of them costs no more on a large tree.
  struct Oid_Hash {
    size_t operator()(const tbs_oid_s& o) const { return tbs_oid_to_hash32(o); }
  };
  std::unordered_map<tbs_oid_s, std::vector<uint64_t>, Oid_Hash> m_by_oid;
  std::map<std::pair<uint64_t, std::string>, uint64_t> m_names;  // positive names
  std::map<std::pair<uint64_t, std::string>, std::chrono::steady_clock::time_point> m_negative;
  struct timeval m_lvut {};                                  // the latest LVUT seen, 0 before any
  std::chrono::steady_clock::time_point m_lvut_inval_at{};   // when it last invalidated attributes
  bool m_lvut_invalidated = false;
  uint64_t m_mount_parent_ino = 0;                           // st_ino of the mount point's directory
};
