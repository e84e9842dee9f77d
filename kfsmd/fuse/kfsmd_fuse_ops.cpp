// The low-level FUSE operations of a SILO session: each hands its request to the SILO's handler in the
// core with a Kfsmd_Reply that answers through libfuse. Reads and writes go straight to the backing
// file opened by open (its descriptor is the file handle); everything else reaches the agent.
#define FUSE_USE_VERSION 312
#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "kfsmd/core/kfsmd_silo.h"

namespace {

Kfsmd_Silo* silo_of(fuse_req_t req) { return static_cast<Kfsmd_Silo*>(fuse_req_userdata(req)); }

class Fuse_Reply : public Kfsmd_Reply {
 public:
  explicit Fuse_Reply(fuse_req_t req, struct fuse_file_info* fi = nullptr, size_t dir_size = 0)
      : m_req(req), m_fi(fi), m_dir(dir_size), m_dir_size(dir_size) {}

  void err(int e) override { fuse_reply_err(m_req, e); }
  void entry(const Kfsmd_Entry& e) override {
    struct fuse_entry_param p;
    memset(&p, 0, sizeof p);
    p.ino = e.ino;
    p.generation = e.generation;
    p.attr = e.attr;
    p.attr_timeout = e.attr_timeout;
    p.entry_timeout = e.entry_timeout;
    if (fuse_reply_entry(m_req, &p) != 0 && e.ino != 0) {
      // The kernel did not take the entry (the request was interrupted): it will not forget it either.
      silo_of(m_req)->forget(e.ino, 1);
    }
  }
  void attr(const struct stat& st, double timeout) override { fuse_reply_attr(m_req, &st, timeout); }
  void readlink(const std::string& text) override { fuse_reply_readlink(m_req, text.c_str()); }
  void open(int fd, bool keep_cache, bool direct_io) override {
    m_fi->fh = static_cast<uint64_t>(fd);
    m_fi->keep_cache = keep_cache;
    m_fi->direct_io = direct_io;
    if (fuse_reply_open(m_req, m_fi) != 0) close(fd);
  }
  void statfs(const struct statvfs& st) override { fuse_reply_statfs(m_req, &st); }
  bool dir_add(const std::string& name, uint64_t ino, uint64_t next_off) override {
    struct stat st;
    memset(&st, 0, sizeof st);
    st.st_ino = ino;
    size_t need = fuse_add_direntry(m_req, nullptr, 0, name.c_str(), nullptr, 0);
    if (m_used + need > m_dir_size) return false;
    fuse_add_direntry(m_req, m_dir.data() + m_used, m_dir_size - m_used, name.c_str(), &st,
                      static_cast<off_t>(next_off));
    m_used += need;
    return true;
  }
  void dir_done() override { fuse_reply_buf(m_req, m_dir.data(), m_used); }

 private:
  fuse_req_t m_req;
  struct fuse_file_info* m_fi;
  std::vector<char> m_dir;
  size_t m_dir_size;
  size_t m_used = 0;
};

void op_init(void*, struct fuse_conn_info* conn) {
  // Writes reach the backing file at once; no readdirplus, no export.
  conn->want &= ~(FUSE_CAP_WRITEBACK_CACHE | FUSE_CAP_READDIRPLUS | FUSE_CAP_READDIRPLUS_AUTO | FUSE_CAP_EXPORT_SUPPORT);
  if (conn->capable & FUSE_CAP_ATOMIC_O_TRUNC) conn->want |= FUSE_CAP_ATOMIC_O_TRUNC;
  if (conn->capable & FUSE_CAP_CACHE_SYMLINKS) conn->want |= FUSE_CAP_CACHE_SYMLINKS;
}

void op_lookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
  Fuse_Reply r(req);
  silo_of(req)->lookup(parent, name, r);
}

void op_forget(fuse_req_t req, fuse_ino_t ino, uint64_t nlookup) {
  silo_of(req)->forget(ino, nlookup);
  fuse_reply_none(req);
}

void op_forget_multi(fuse_req_t req, size_t count, struct fuse_forget_data* forgets) {
  for (size_t i = 0; i < count; ++i) silo_of(req)->forget(forgets[i].ino, forgets[i].nlookup);
  fuse_reply_none(req);
}

void op_getattr(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info*) {
  Fuse_Reply r(req);
  silo_of(req)->getattr(ino, r);
}

void op_readlink(fuse_req_t req, fuse_ino_t ino) {
  Fuse_Reply r(req);
  silo_of(req)->readlink(ino, r);
}

// Listings come from the agent, which answers the same way until the directory changes, so the kernel
// keeps them in its page cache across opens. What changes a directory reaches the kernel as an
// invalidation of its node (a downcall from the agent, or a new LVUT of its SILO), which drops them.
void op_opendir(fuse_req_t req, fuse_ino_t, struct fuse_file_info* fi) {
  fi->cache_readdir = 1;
  fi->keep_cache = 1;
  fuse_reply_open(req, fi);
}

void op_readdir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, struct fuse_file_info*) {
  Fuse_Reply r(req, nullptr, size);
  silo_of(req)->readdir(ino, off < 0 ? 0 : static_cast<uint64_t>(off), size, r);
}

void op_open(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info* fi) {
  Fuse_Reply r(req, fi);
  silo_of(req)->open(ino, fi->flags, r);
}

void op_read(fuse_req_t req, fuse_ino_t, size_t size, off_t off, struct fuse_file_info* fi) {
  struct fuse_bufvec buf = FUSE_BUFVEC_INIT(size);
  buf.buf[0].flags = static_cast<enum fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
  buf.buf[0].fd = static_cast<int>(fi->fh);
  buf.buf[0].pos = off;
  fuse_reply_data(req, &buf, FUSE_BUF_SPLICE_MOVE);
}

void op_write(fuse_req_t req, fuse_ino_t, const char* data, size_t size, off_t off, struct fuse_file_info* fi) {
  ssize_t n = pwrite(static_cast<int>(fi->fh), data, size, off);
  if (n < 0) fuse_reply_err(req, errno);
  else fuse_reply_write(req, static_cast<size_t>(n));
}

void op_flush(fuse_req_t req, fuse_ino_t, struct fuse_file_info*) { fuse_reply_err(req, 0); }

void op_fsync(fuse_req_t req, fuse_ino_t, int datasync, struct fuse_file_info* fi) {
  int fd = static_cast<int>(fi->fh);
  fuse_reply_err(req, (datasync ? fdatasync(fd) : fsync(fd)) == 0 ? 0 : errno);
}

void op_release(fuse_req_t req, fuse_ino_t, struct fuse_file_info* fi) {
  close(static_cast<int>(fi->fh));
  fuse_reply_err(req, 0);
}

void op_statfs(fuse_req_t req, fuse_ino_t) {
  Fuse_Reply r(req);
  silo_of(req)->statfs(r);
}

}  // namespace

extern const struct fuse_lowlevel_ops kfsmd_fuse_ops;
const struct fuse_lowlevel_ops kfsmd_fuse_ops = [] {
  struct fuse_lowlevel_ops ops;
  memset(&ops, 0, sizeof ops);
  ops.init = op_init;
  ops.lookup = op_lookup;
  ops.forget = op_forget;
  ops.forget_multi = op_forget_multi;
  ops.getattr = op_getattr;
  ops.readlink = op_readlink;
  ops.opendir = op_opendir;
  ops.readdir = op_readdir;
  ops.open = op_open;
  ops.read = op_read;
  ops.write = op_write;
  ops.flush = op_flush;
  ops.fsync = op_fsync;
  ops.release = op_release;
  ops.statfs = op_statfs;
  return ops;
}();
