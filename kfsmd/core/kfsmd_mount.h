// The seams between the daemon's core and the file-system glue.
//
// Kfsmd_Reply: how an operation handler of the core answers one file-system request. Exactly one of
// err, entry, attr, readlink, open, statfs or dir_done ends a request; dir_add may come before
// dir_done.
//
// Kfsmd_Action: one kernel cache invalidation planned by the core (a name in a directory, or an
// inode's attributes). Actions are performed later, on a notifier thread, never inside a request.
//
// Kfsmd_Mount: one mounted SILO as the glue holds it. Kfsmd_Mounter makes them.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct Kfsmd_Entry {
  uint64_t ino = 0;         // 0: a negative entry (the name does not exist)
  uint64_t generation = 0;
  struct stat attr {};
  double attr_timeout = 0;
  double entry_timeout = 0;
};

class Kfsmd_Reply {
 public:
  virtual ~Kfsmd_Reply() = default;
  virtual void err(int e) = 0;
  virtual void entry(const Kfsmd_Entry& e) = 0;
  virtual void attr(const struct stat& st, double timeout) = 0;
  virtual void readlink(const std::string& text) = 0;
  // An opened backing file; the glue owns `fd` from here on.
  virtual void open(int fd, bool keep_cache, bool direct_io) = 0;
  virtual void statfs(const struct statvfs& st) = 0;
  // One directory entry; false when the reply buffer is full (the entry was not added).
  virtual bool dir_add(const std::string& name, uint64_t ino, uint64_t next_off) = 0;
  virtual void dir_done() = 0;
};

struct Kfsmd_Action {
  // ENTRY: a name in a directory. INODE: the attributes of an inode. INODE_DATA: its attributes and
  // what the kernel keeps of its contents (file pages, a directory's cached listing).
  enum Kind { ENTRY, INODE, INODE_DATA } kind;
  uint64_t parent_or_ino;  // ENTRY: the directory; INODE, INODE_DATA: the inode
  std::string name;        // ENTRY only
  bool operator==(const Kfsmd_Action& o) const {
    return kind == o.kind && parent_or_ino == o.parent_or_ino && name == o.name;
  }
};

class Kfsmd_Silo;

class Kfsmd_Mount {
 public:
  virtual ~Kfsmd_Mount() = default;
  // Detaches the mount. Not lazy: 0, or EBUSY when something uses it (nothing changes then), or
  // another errno. Lazy: detaches even when busy; the object may then be deleted at once, and a
  // session that still serves users of the detached mount keeps what it needs (the SILO included)
  // and ends by itself when the kernel lets go.
  virtual int unmount(bool lazy) = 0;
  // Queues invalidations for the notifier; returns at once.
  virtual void notify(std::vector<Kfsmd_Action> actions) = 0;
};

class Kfsmd_Mounter {
 public:
  virtual ~Kfsmd_Mounter() = default;
  // Mounts `silo` on its mount point (the directory exists). 0 or an errno.
  virtual int mount(const std::shared_ptr<Kfsmd_Silo>& silo, std::unique_ptr<Kfsmd_Mount>* out) = 0;
};
