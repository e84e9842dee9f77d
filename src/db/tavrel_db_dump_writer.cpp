// The dump writer: walks the open database through the engine and writes the records of tavrel_db_dump.h.
//
// It trusts nothing it reads: a row that cannot be read, a byte chain whose links are missing, too many or
// owned by another row, and a set whose walk revisits a member are each reported and the record they
// belong to is left out. Every walk has a bound (chains: the links the length needs; sets: the visited
// set; the namespace tree: each directory once), so a damaged database cannot make the dumper loop.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/fileutl.h"
#include "base/imsg.h"
#include "base/tbs.h"
#include "db/rec/dt.h"
#include "db/rec/tavrel_db_schema.h"
#include "db/tavrel_db_dump.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_store.h"
#include "db/tvr_db_vns.h"

namespace {

bool is_version_type(uint32_t m) { return m == 3 || m == 6 || m == 8; }

// One row that could not be used: the reason goes out, and the record is skipped.
struct Skip {
  std::string why;
};

class Writer {
 public:
  Writer(DB_TASK* task, std::string path, std::string cr_file, uint64_t split, tvr_db_dump_stats* stats)
      : task_(task), path_(std::move(path)), cr_file_(std::move(cr_file)), split_(split), stats_(stats) {}
  ~Writer() {
    if (fd_ >= 0) close(fd_);
    if (cr_fd_ >= 0) close(cr_fd_);
  }

  int run();

 private:
  // ---- output ----
  int open_file(int number);
  int close_file();
  int emit(const std::string& line);  // one whole record, split between files only at record boundaries
  static void hex(std::string& s, uint64_t v) {
    char b[24];
    snprintf(b, sizeof b, " %llx", static_cast<unsigned long long>(v));
    s += b;
  }
  static void counted(std::string& s, const std::string& text) {
    s += " " + std::to_string(text.size()) + ":";
    s += text;
  }
  static void uuid(std::string& s, const tbs_uuid_s& u) { s += " " + tbs_uuid_to_str(u); }
  static void oid(std::string& s, const tbs_oid_s& o) { s += " " + tbs_oid_to_str(o); }
  static void identity(std::string& s, const std::string& id) {
    if (id.empty()) {
      s += " -";
      return;
    }
    s += ' ';
    static const char* digits = "0123456789abcdef";
    for (unsigned char c : id) {
      s += digits[c >> 4];
      s += digits[c & 15];
    }
  }
  static void fstat_line(std::string& s, const vns_db_obj& o) {
    for (uint64_t v : {uint64_t(o.vns_obj_ftype), uint64_t(o.vns_obj_mode), uint64_t(0), uint64_t(o.atime_sec),
                       uint64_t(o.atime_usec), uint64_t(o.mtime_sec), uint64_t(o.mtime_usec),
                       uint64_t(o.ctime_sec), uint64_t(o.ctime_usec), uint64_t(o.extra[0]), uint64_t(o.extra[1])})
      hex(s, v);
  }

  // ---- reading ----
  void read_row(DB_ADDR dba, void* buf, const char* what);
  std::vector<DB_ADDR> scan(int rec);
  std::vector<DB_ADDR> members(int set, DB_ADDR owner, size_t bound);
  DB_ADDR owner_of(int set, DB_ADDR member);
  std::string text(const char* head, size_t head_width, size_t len, DB_ADDR chain, DB_ADDR owner);
  bool find(long key, const void* value, DB_ADDR* dba);
  void skip(const char* record, const std::string& why);

  // ---- the records ----
  void write_view();
  void write_silos();
  void write_scopes();
  void write_inodes();
  void write_names();
  void write_crs();
  void write_elements();
  void write_tree();
  std::string silo_uuid_text(DB_ADDR silo_dba);
  bool obj(DB_ADDR silo_dba, uint32_t dbid, vns_db_obj* o);
  bool first_name(DB_ADDR silo_dba, uint32_t dbid, vns_db_dir_ver_ent* row, DB_ADDR* dba);
  tbs_oid_s elem_oid_of(DB_ADDR ver_dba, DB_ADDR silo_dba);

  DB_TASK* task_;
  std::string path_, cr_file_;
  uint64_t split_;
  tvr_db_dump_stats* stats_;
  int fd_ = -1, cr_fd_ = -1;
  int file_number_ = 0;
  uint64_t file_bytes_ = 0;
  uint32_t dump_id_ = 0;
  int write_error_ = 0;
  std::map<DB_ADDR, tbs_uuid_s> silos_;
  std::vector<std::string> pending_slinks_;
  uint32_t def_scope_finished_ = 0;  // set by write_scopes, which comes before the names
};

void Writer::skip(const char* record, const std::string& why) {
  stats_->skipped++;
  imsg_print(IMSG_WARN, "Skipping %s record: %s\n", record, why.c_str());
}

void Writer::read_row(DB_ADDR dba, void* buf, const char* what) {
  int st = dt_crset(&dba, task_, -1);
  if (st == 0) st = dt_recread(buf, task_, -1);
  if (st != 0) throw Skip{std::string(what) + " row " + std::to_string(dba) + ": " + dberr_code(st)};
}

std::vector<DB_ADDR> Writer::scan(int rec) {
  std::vector<DB_ADDR> out;
  int st = dt_recfrst(rec, task_, -1);
  while (st == 0) {
    DB_ADDR dba;
    if (dt_crget(&dba, task_, -1) != 0) break;
    out.push_back(dba);
    st = dt_recnext(task_, -1);
  }
  if (st < 0) imsg_print(IMSG_WARN, "Scan of record type %d stopped: %s\n", rec, dberr_code(st).c_str());
  return out;
}

// The members of `owner`'s `set` in order; a member seen twice, or more than `bound` members, is a
// damaged chain.
std::vector<DB_ADDR> Writer::members(int set, DB_ADDR owner, size_t bound) {
  std::vector<DB_ADDR> out;
  std::set<DB_ADDR> seen;
  int st = dt_crset(&owner, task_, -1);
  if (st == 0) st = dt_setor(set, task_, -1);
  if (st == 0) st = dt_findfm(set, task_, -1);
  while (st == 0) {
    DB_ADDR dba;
    if ((st = dt_crget(&dba, task_, -1)) != 0) break;
    if (!seen.insert(dba).second || out.size() >= bound)
      throw Skip{"set " + std::to_string(set) + " of row " + std::to_string(owner) + " loops or is too long"};
    out.push_back(dba);
    st = dt_findnm(set, task_, -1);
  }
  if (st < 0) throw Skip{"set " + std::to_string(set) + " of row " + std::to_string(owner) + ": " + dberr_code(st)};
  return out;
}

DB_ADDR Writer::owner_of(int set, DB_ADDR member) {
  DB_ADDR owner = 0;
  if (dt_crset(&member, task_, -1) != 0) return 0;
  if (dt_setmr(set, task_, -1) != 0) return 0;
  if (dt_csoget(set, &owner, task_, -1) != 0) return 0;
  return owner;
}

// A string kept as an inline head of `head_width` bytes plus, beyond it, a DB_BYTES chain at `chain`.
std::string Writer::text(const char* head, size_t head_width, size_t len, DB_ADDR chain, DB_ADDR owner) {
  std::string s(head, std::min(len, head_width));
  if (len <= head_width) return s;
  if (chain == 0) throw Skip{"row " + std::to_string(owner) + " lacks the chain of its text"};
  size_t rest = len - head_width;
  db_bytes hb;
  read_row(chain, &hb, "DB_BYTES");
  if (hb.owner_dba != owner) throw Skip{"chain " + std::to_string(chain) + " has another owner"};
  size_t n = std::min(rest, size_t(DB_BYTES_HEAD_LEN));
  s.append(hb.bytes, n);
  rest -= n;
  size_t bound = rest / DB_BYTES_SMALL_LEN + 2;
  for (DB_ADDR link : members(DB_BYTES_SET, chain, bound)) {
    if (rest == 0) throw Skip{"chain " + std::to_string(chain) + " is longer than its text"};
    db_bytes_med med;  // the larger of the two link layouts
    int type = 0;
    if (dt_crset(&link, task_, -1) != 0 || dt_crtype(&type, task_, -1) != 0 || dt_recread(&med, task_, -1) != 0)
      throw Skip{"link " + std::to_string(link) + " cannot be read"};
    size_t width = type == DB_BYTES_MED ? DB_BYTES_MED_LEN : DB_BYTES_SMALL_LEN;
    if (med.owner_dba != owner) throw Skip{"link " + std::to_string(link) + " has another owner"};
    n = std::min(rest, width);
    s.append(med.bytes, n);
    rest -= n;
  }
  if (rest != 0) throw Skip{"chain " + std::to_string(chain) + " is shorter than its text"};
  return s;
}

bool Writer::find(long key, const void* value, DB_ADDR* dba) {
  int st = dt_keyfind(key, value, task_, -1);
  if (st == S_NOTFOUND) return false;
  if (st == 0) st = dt_crget(dba, task_, -1);
  if (st != 0) throw Skip{"key " + std::to_string(key) + ": " + dberr_code(st)};
  return true;
}

// ---- output -------------------------------------------------------------------------------------------------

int Writer::open_file(int number) {
  std::string name = tvr_db_dump_file_name(path_, number);
  fd_ = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd_ < 0) {
    imsg_print(IMSG_ERR, "Unable to create dump file %s: %s\n", name.c_str(), strerror(errno));
    return write_error_ = TBS_ST_INTERNAL;
  }
  file_number_ = number;
  file_bytes_ = 0;
  stats_->files = number + 1;
  std::string ver = "Ver " + std::to_string(TAVREL_DB_SCHEMA_VERSION) + " " + std::to_string(number);
  hex(ver, dump_id_);
  return emit(ver);
}

int Writer::close_file() {
  if (fd_ < 0) return 0;
  int st = 0;
  if (fsync(fd_) != 0 || close(fd_) != 0) {
    imsg_print(IMSG_ERR, "Unable to sync dump file %s: %s\n", tvr_db_dump_file_name(path_, file_number_).c_str(),
               strerror(errno));
    st = write_error_ = TBS_ST_INTERNAL;
  }
  fd_ = -1;
  return st;
}

int Writer::emit(const std::string& record) {
  if (write_error_ != 0) return write_error_;
  if (file_bytes_ >= split_ && record.compare(0, 4, "Ver ") != 0 && record != "Eof") {
    if (close_file() != 0 || open_file(file_number_ + 1) != 0) return write_error_;
  }
  std::string line = record + "\n";
  const char* p = line.data();
  size_t left = line.size();
  while (left > 0) {
    ssize_t n = write(fd_, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      imsg_print(IMSG_ERR, "Unable to write dump file %s: %s\n", tvr_db_dump_file_name(path_, file_number_).c_str(),
                 strerror(errno));
      return write_error_ = TBS_ST_INTERNAL;
    }
    p += n;
    left -= size_t(n);
  }
  file_bytes_ += line.size();
  stats_->records++;
  return 0;
}

// ---- the records ----------------------------------------------------------------------------------------------

std::string Writer::silo_uuid_text(DB_ADDR silo_dba) {
  auto it = silos_.find(silo_dba);
  if (it == silos_.end()) throw Skip{"silo row " + std::to_string(silo_dba) + " is unknown"};
  return tbs_uuid_to_str(it->second);
}

void Writer::write_view() {
  for (DB_ADDR dba : scan(VNS_DB_VIEW)) {
    try {
      vns_db_view v;
      read_row(dba, &v, "VNS_DB_VIEW");
      std::string s = "Vns-View";
      uuid(s, v.view_uuid);
      hex(s, v.view_gn);
      hex(s, v.initial_gn);
      emit(s);
      return;  // exactly one row is meaningful
    } catch (const Skip& e) {
      skip("Vns-View", e.why);
    }
  }
}

void Writer::write_silos() {
  std::vector<tbs_uuid_s> setwork;
  for (DB_ADDR dba : scan(DB_SILO)) {
    try {
      db_silo row;
      read_row(dba, &row, "DB_SILO");
      std::string path = text(row.silo_path, SILO_PATH_INLINE, row.silo_path_len, row.silo_bytes_dba, dba);
      silos_[dba] = row.replica_uuid;
      unsigned flag = row.silo_flags & 1u;
      if (flag) setwork.push_back(row.replica_uuid);
      std::string s = "Silo";
      uuid(s, row.replica_uuid);
      counted(s, path);
      hex(s, flag);
      hex(s, flag);
      emit(s);
    } catch (const Skip& e) {
      skip("Silo", e.why);
    }
  }
  std::string s = "Setwork";
  hex(s, setwork.size());
  for (const auto& u : setwork) uuid(s, u);
  emit(s);
}

void Writer::write_scopes() {
  for (DB_ADDR dba : scan(VNS_DB_LR_SCOPE)) {
    try {
      vns_db_lr_scope row;
      read_row(dba, &row, "VNS_DB_LR_SCOPE");
      if (row.name_len > TVR_DB_DUMP_COUNTED_MAX) throw Skip{"scope name too long"};
      std::string name = text(row.name, LR_SCOPE_NAME_INLINE, row.name_len, row.name_bytes_dba, dba);
      if (tvr_db_is_def_scope(row.scope_oid)) def_scope_finished_ = row.finished_gn;
      std::string s = "Lr-Scope";
      oid(s, row.scope_oid);
      hex(s, row.gn);
      hex(s, row.finished_gn);
      hex(s, row.reserved);
      hex(s, row.op_state);
      counted(s, name);
      emit(s);
    } catch (const Skip& e) {
      skip("Lr-Scope", e.why);
    }
  }
}

void Writer::write_inodes() {
  for (DB_ADDR dba : scan(DB_INODE)) {
    try {
      db_inode row;
      read_row(dba, &row, "DB_INODE");
      if (row.inode_silo_dba == 0) continue;  // stranded: see the header
      const db_fstat& f = row.inode_fstat;
      if (f.usid_len > 34 || f.gsid_len > 34) throw Skip{"identity too long in inode " + std::to_string(dba)};
      std::string usid = text(f.usid, INODE_SID_INLINE, f.usid_len, f.usid_bytes_dba, dba);
      std::string gsid = text(f.gsid, INODE_SID_INLINE, f.gsid_len, f.gsid_bytes_dba, dba);
      std::string txt = text(row.inode_text, INODE_TEXT_INLINE, row.inode_text_len, row.inode_text_dba, dba);
      std::string s = "Inode " + silo_uuid_text(row.inode_silo_dba);
      oid(s, row.inode_oid);
      for (uint64_t v : {f.ftype, f.mode, row.inode_mtype, f.nlink, f.usage}) hex(s, v);
      identity(s, usid);
      identity(s, gsid);
      hex(s, uint64_t(f.size[0]) | (uint64_t(f.size[1]) << 32));
      for (uint64_t v : {f.atime_sec, f.atime_usec, f.mtime_sec, f.mtime_usec, f.ctime_sec, f.ctime_usec,
                         f.extra[0], f.extra[1]})
        hex(s, v);
      counted(s, txt);
      emit(s);
    } catch (const Skip& e) {
      skip("Inode", e.why);
    }
  }
}

void Writer::write_names() {
  for (DB_ADDR dir_dba : scan(DB_DIR)) {
    std::vector<DB_ADDR> names;
    db_inode dir;
    try {
      DB_ADDR dir_inode = owner_of(INODE_OID_SET, dir_dba);
      if (dir_inode == 0) throw Skip{"directory body " + std::to_string(dir_dba) + " has no inode"};
      read_row(dir_inode, &dir, "DB_INODE");
      if (dir.inode_silo_dba == 0) continue;  // stranded directory: not dumped
      names = members(DIR_ENT_SET, dir_dba, 1u << 26);
    } catch (const Skip& e) {
      skip("Name", e.why);
      continue;
    }
    for (DB_ADDR dba : names) {
      try {
        db_dir_ent row;
        read_row(dba, &row, "DB_DIR_ENT");
        std::string name = text(row.dir_ent_name, DIR_ENT_NAME_INLINE, row.dir_ent_name_len, row.dir_ent_bytes_dba, dba);
        tbs_oid_s target = TBS_OID_NULL;
        uint32_t ftype = 0;
        if (DB_ADDR inode = owner_of(INODE_OID_SET, dba)) {
          db_inode t;
          read_row(inode, &t, "DB_INODE");
          target = t.inode_oid;
          ftype = t.inode_fstat.ftype;
        }
        std::string s = "Name " + silo_uuid_text(dir.inode_silo_dba);
        oid(s, dir.inode_oid);
        counted(s, name);
        oid(s, target);
        hex(s, tvr_db_name_state_from_bits(row.dir_ent_name_state));
        hex(s, row.dir_ent_offset);
        hex(s, ftype);
        oid(s, row.dir_ent_hijack_ver);
        oid(s, row.dir_ent_hijack_elem);
        emit(s);
      } catch (const Skip& e) {
        skip("Name", e.why);
      }
    }
  }
}

void Writer::write_crs() {
  for (DB_ADDR dba : scan(DB_CR)) {
    try {
      db_cr row;
      read_row(dba, &row, "DB_CR");
      if (row.cr_length > TVR_DB_DUMP_CR_MAX) throw Skip{"configuration record " + std::to_string(dba) + " too long"};
      std::string data(row.cr_length, '\0');
      if (cr_fd_ < 0) cr_fd_ = open(cr_file_.c_str(), O_RDONLY | O_CLOEXEC);
      if (cr_fd_ < 0 || pread(cr_fd_, data.data(), data.size(), row.cr_file_offset) != ssize_t(data.size()))
        throw Skip{"bytes of configuration record " + std::to_string(dba) + " cannot be read"};
      if (row.cr_crc != fileutl_crc_buffer(data.data(), data.size()))
        throw Skip{"bytes of configuration record " + std::to_string(dba) + " fail their CRC"};
      std::vector<DB_ADDR> dos = members(DO_OID_SET, dba, 1u << 20);
      std::vector<DB_ADDR> subs = members(SUB_DO_SET, dba, 1u << 20);
      std::vector<DB_ADDR> refs = members(UNELEVATED_CR_SET, dba, 1u << 20);
      std::string s = "Cr";
      hex(s, row.cr_hdr_word);
      counted(s, data);
      hex(s, dos.size());
      for (DB_ADDR d : dos) {
        db_do r;
        read_row(d, &r, "DB_DO");
        uuid(s, r.do_replica_uuid);
        oid(s, r.do_oid);
      }
      std::vector<tbs_oid_s> sub_oids;
      for (DB_ADDR d : subs) {
        db_sub_do r;
        read_row(d, &r, "DB_SUB_DO");
        for (const auto& o : r.sub_do_oid)
          if (!tbs_oid_is_null(o)) sub_oids.push_back(o);
      }
      hex(s, sub_oids.size());
      for (const auto& o : sub_oids) oid(s, o);
      hex(s, refs.size());
      for (DB_ADDR d : refs) {
        db_unelevated_ref r;
        read_row(d, &r, "DB_UNELEVATED_REF");
        uuid(s, r.unelevated_ref_uuid);
      }
      emit(s);
    } catch (const Skip& e) {
      skip("Cr", e.why);
    }
  }
}

bool Writer::obj(DB_ADDR silo_dba, uint32_t dbid, vns_db_obj* o) {
  key_silo_dbid key{silo_dba, dbid};
  DB_ADDR dba;
  if (!find(VNS_OBJ_KEY, &key, &dba)) return false;
  read_row(dba, o, "VNS_DB_OBJ");
  return true;
}

bool Writer::first_name(DB_ADDR silo_dba, uint32_t dbid, vns_db_dir_ver_ent* row, DB_ADDR* dba) {
  key_silo_dbid key{silo_dba, dbid};
  if (!find(DIR_VER_ENT_LOOKUP, &key, dba)) return false;
  read_row(*dba, row, "VNS_DB_DIR_VER_ENT");
  return true;
}

tbs_oid_s Writer::elem_oid_of(DB_ADDR ver_dba, DB_ADDR silo_dba) {
  DB_ADDR elem_dba = owner_of(VNS_ELEM_VER_SET, ver_dba);
  if (elem_dba == 0) throw Skip{"version row " + std::to_string(ver_dba) + " has no element"};
  vns_db_elem e;
  read_row(elem_dba, &e, "VNS_DB_ELEM");
  vns_db_obj o;
  if (!obj(silo_dba, e.dbid, &o)) throw Skip{"element " + std::to_string(e.dbid) + " has no identity row"};
  return o.vns_obj_oid;
}

void Writer::write_elements() {
  for (DB_ADDR dba : scan(VNS_DB_ELEM)) {
    try {
      vns_db_elem e;
      read_row(dba, &e, "VNS_DB_ELEM");
      vns_db_obj o;
      if (!obj(e.silo_dba, e.dbid, &o)) throw Skip{"element " + std::to_string(e.dbid) + " has no identity row"};
      std::string s = "Vns-Element " + silo_uuid_text(e.silo_dba);
      oid(s, o.vns_obj_oid);
      oid(s, e.co_ver);
      hex(s, o.vns_obj_mtype);
      hex(s, e.event_sec);
      hex(s, e.event_usec);
      hex(s, uint32_t(e.checked_out));
      fstat_line(s, o);
      emit(s);
    } catch (const Skip& e) {
      skip("Vns-Element", e.why);
    }
  }
}

// Roots, then every directory's names breadth-first; links wait until every version is written.
void Writer::write_tree() {
  for (const auto& [silo_dba, silo_uuid] : silos_) {
    db_silo silo;
    try {
      read_row(silo_dba, &silo, "DB_SILO");
    } catch (const Skip& e) {
      skip("Vns-Root-Dir", e.why);
      continue;
    }
    if (silo.silo_root_dbid == 0) continue;
    std::string su = tbs_uuid_to_str(silo_uuid);
    std::deque<std::pair<uint32_t, tbs_oid_s>> queue;  // directory dbid and OID
    std::set<uint32_t> visited;
    try {
      uint32_t root = silo.silo_root_dbid;
      vns_db_obj o;
      if (!obj(silo_dba, root, &o)) throw Skip{"root " + std::to_string(root) + " has no identity row"};
      key_silo_dbid key{silo_dba, root};
      DB_ADDR ver_dba, dir_dba, ent_dba;
      vns_db_ver ver;
      vns_db_dir_ver dir;
      vns_db_dir_ver_ent ent{};
      if (!find(VNS_VER_KEY, &key, &ver_dba)) throw Skip{"root " + std::to_string(root) + " has no version row"};
      read_row(ver_dba, &ver, "VNS_DB_VER");
      if (!find(VNS_DIR_VER_KEY, &key, &dir_dba)) throw Skip{"root " + std::to_string(root) + " has no directory row"};
      read_row(dir_dba, &dir, "VNS_DB_DIR_VER");
      bool named = first_name(silo_dba, root, &ent, &ent_dba);
      std::string s = "Vns-Root-Dir " + su;
      oid(s, o.vns_obj_oid);
      oid(s, elem_oid_of(ver_dba, silo_dba));
      oid(s, named ? ent.scope : TBS_OID_NULL);
      hex(s, named ? tvr_db_name_gn(ent, def_scope_finished_) : 0);
      hex(s, ver.event_sec);
      hex(s, ver.event_usec);
      hex(s, named ? ent.validated : 1);
      hex(s, dir.rddir_done);
      hex(s, ver.stale);
      hex(s, dir.saved_rddir_state);
      fstat_line(s, o);
      emit(s);
      queue.emplace_back(root, o.vns_obj_oid);
      visited.insert(root);
    } catch (const Skip& e) {
      skip("Vns-Root-Dir", e.why);
      continue;
    }
    while (!queue.empty()) {
      auto [dbid, dir_oid] = queue.front();
      queue.pop_front();
      std::vector<DB_ADDR> names;
      try {
        key_silo_dbid key{silo_dba, dbid};
        DB_ADDR dir_dba;
        if (!find(VNS_DIR_VER_KEY, &key, &dir_dba)) continue;
        names = members(VNS_DIR_ENT_SET, dir_dba, 1u << 26);
      } catch (const Skip& e) {
        skip("Vns-Version", e.why);
        continue;
      }
      for (DB_ADDR ent_dba : names) {
        try {
          vns_db_dir_ver_ent ent;
          read_row(ent_dba, &ent, "VNS_DB_DIR_VER_ENT");
          if (ent.name_len > TVR_DB_MAX_NAME) throw Skip{"name too long in row " + std::to_string(ent_dba)};
          std::string name = text(ent.name, VNS_NAME_INLINE, ent.name_len, ent.name_bytes_dba, ent_dba);
          vns_db_obj o;
          if (!obj(silo_dba, ent.obj_dbid, &o)) throw Skip{"object " + std::to_string(ent.obj_dbid) + " has no identity row"};
          key_silo_dbid key{silo_dba, ent.obj_dbid};
          if (o.vns_obj_mtype == 7) {
            DB_ADDR l_dba;
            vns_db_slink l;
            if (!find(VNS_SLINK_KEY, &key, &l_dba)) throw Skip{"link " + std::to_string(ent.obj_dbid) + " has no row"};
            read_row(l_dba, &l, "VNS_DB_SLINK");
            if (l.text_len > TVR_DB_DUMP_COUNTED_MAX) throw Skip{"link text too long"};
            std::string txt = text(l.text, SLINK_TEXT_INLINE, l.text_len, l.text_bytes_dba, l_dba);
            std::string s = "Vns-Slink " + su;
            oid(s, dir_oid);
            oid(s, o.vns_obj_oid);
            oid(s, ent.scope);
            hex(s, tvr_db_name_gn(ent, def_scope_finished_));
            hex(s, l.event_sec);
            hex(s, l.event_usec);
            hex(s, ent.validated);
            fstat_line(s, o);
            counted(s, name);
            counted(s, txt);
            pending_slinks_.push_back(std::move(s));
            continue;
          }
          if (!is_version_type(o.vns_obj_mtype)) throw Skip{"name row " + std::to_string(ent_dba) + " shows no version"};
          DB_ADDR ver_dba;
          vns_db_ver ver;
          if (!find(VNS_VER_KEY, &key, &ver_dba)) throw Skip{"version " + std::to_string(ent.obj_dbid) + " has no row"};
          read_row(ver_dba, &ver, "VNS_DB_VER");
          vns_db_dir_ver dir{};
          if (o.vns_obj_mtype == 3) {
            DB_ADDR d;
            if (!find(VNS_DIR_VER_KEY, &key, &d)) throw Skip{"directory " + std::to_string(ent.obj_dbid) + " has no row"};
            read_row(d, &dir, "VNS_DB_DIR_VER");
          }
          std::string s = "Vns-Version " + su;
          oid(s, dir_oid);
          oid(s, elem_oid_of(ver_dba, silo_dba));
          oid(s, o.vns_obj_oid);
          oid(s, ent.scope);
          hex(s, tvr_db_name_gn(ent, def_scope_finished_));
          hex(s, o.vns_obj_mtype);
          hex(s, ver.event_sec);
          hex(s, ver.event_usec);
          hex(s, ent.validated);
          hex(s, dir.rddir_done);
          hex(s, ver.stale);
          hex(s, dir.saved_rddir_state);
          hex(s, uint64_t(ver.size[0]) | (uint64_t(ver.size[1]) << 32));
          fstat_line(s, o);
          counted(s, name);
          emit(s);
          if (o.vns_obj_mtype == 3 && visited.insert(ent.obj_dbid).second) queue.emplace_back(ent.obj_dbid, o.vns_obj_oid);
        } catch (const Skip& e) {
          skip("Vns-Version", e.why);
        }
      }
    }
  }
  for (const auto& s : pending_slinks_) emit(s);
}

int Writer::run() {
  int rnd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (rnd < 0 || read(rnd, &dump_id_, sizeof dump_id_) != ssize_t(sizeof dump_id_)) dump_id_ = uint32_t(getpid() ^ time(nullptr));
  if (rnd >= 0) close(rnd);
  stats_->dump_id = dump_id_;
  // Continuation files of an earlier, longer dump must not be taken for part of this one.
  for (int n = 1; unlink(tvr_db_dump_file_name(path_, n).c_str()) == 0; n++) {
  }
  if (open_file(0) != 0) return write_error_;
  write_view();
  write_silos();
  write_scopes();
  write_inodes();
  write_names();
  write_crs();
  write_elements();
  write_tree();
  if (write_error_ != 0) return write_error_;
  emit("Eof");
  close_file();
  return write_error_;
}

}  // namespace

std::string tvr_db_dump_file_name(const std::string& path, int number) {
  return number == 0 ? path : path + "." + std::to_string(number);
}

int tvr_db_dump_open(DB_TASK** task) {
  int st = dt_opentask(task);
  if (st != 0) return st;
  dt_dbwdir("db", *task);
  st = dt_open("tavrel_db", "o", *task);
  if (st != 0) {
    dt_closetask(*task);
    *task = nullptr;
  }
  return st;
}

int tvr_db_dump_write(DB_TASK* task, const std::string& path, const std::string& cr_file, uint64_t split_bytes,
                      tvr_db_dump_stats* stats) {
  tvr_db_dump_stats local;
  if (!stats) stats = &local;
  *stats = tvr_db_dump_stats{};
  Writer w(task, path, cr_file, split_bytes == 0 ? TVR_DB_DUMP_SPLIT_BYTES : split_bytes, stats);
  return w.run();
}
