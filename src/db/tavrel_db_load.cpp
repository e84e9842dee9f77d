// The loader: rebuilds the view database from the dump (format in tavrel_db_dump.h).
//
// The database is made afresh and filled in one write transaction with the ordinary create functions, so
// the rebuilt rows obey the same rules as rows made by the agent. Each record answers 0 (loaded), 1 (could
// not be used: reported, counted and skipped) or 2 (fatal: the load stops). While the load runs, the marker
// TVR_DB_LOADING_MARKER stands beside the fresh files; a start that finds it loads the dump again instead
// of dumping the half-loaded database over it. The journal is off for the load (the state letter is not
// 'i' while it runs, so a crash repeats the load from the kept dump).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "base/fileutl.h"
#include "base/imsg.h"
#include "base/tbs.h"
#include "db/rec/dt.h"
#include "db/rec/tavrel_db_schema.h"
#include "db/tavrel_db_dump.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_cr.h"
#include "db/tvr_db_dir.h"
#include "db/tvr_db_inode.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_store.h"
#include "db/tvr_db_vns.h"

namespace {

enum : int { LOAD_OK = 0, LOAD_SKIP = 1, LOAD_FATAL = 2 };

// A field that does not parse: the stream position is lost, so the load cannot go on.
struct Malformed {};

// Reads the fields of one dump file.
class Reader {
 public:
  explicit Reader(FILE* f) : f_(f) {}
  int line() const { return line_; }

  int get() {
    int c = getc(f_);
    if (c == '\n') line_++;
    return c;
  }
  // Next token, or "" at the end of the file.
  std::string token(size_t max) {
    int c;
    while ((c = get()) != EOF && isspace(c)) {
    }
    std::string t;
    while (c != EOF && !isspace(c)) {
      if (t.size() >= max) throw Malformed{};
      t += char(c);
      c = get();
    }
    if (c != EOF) ungetc_(c);
    return t;
  }
  uint64_t hex() { return number(16); }
  uint64_t dec() { return number(10); }
  uint32_t hex32() {
    uint64_t v = hex();
    if (v > 0xffffffffull) throw Malformed{};
    return uint32_t(v);
  }
  std::string counted(size_t max) {
    uint64_t n = dec_until_colon();
    if (n > max) throw Malformed{};
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++) {
      int c = get();
      if (c == EOF) throw Malformed{};
      s[i] = char(c);
    }
    return s;
  }
  tbs_uuid_s uuid() {
    tbs_uuid_s u;
    if (tbs_str_to_uuid(token(36), &u) != 0) throw Malformed{};
    return u;
  }
  tbs_oid_s oid() {
    tbs_oid_s o;
    if (tbs_str_to_oid(token(36), &o) != 0) throw Malformed{};
    return o;
  }
  credutl_sid_t identity() {
    std::string t = token(TVR_DB_DUMP_IDENTITY_MAX);
    credutl_sid_t s{};
    if (t == "-") return s;
    if (t.size() % 2 != 0 || t.size() / 2 > CREDUTL_SID_MAX) throw Malformed{};
    for (size_t i = 0; i < t.size(); i += 2) {
      unsigned v;
      if (sscanf(t.substr(i, 2).c_str(), "%2x", &v) != 1 || !isxdigit(t[i + 1])) throw Malformed{};
      s.bytes[s.len++] = uint8_t(v);
    }
    return s;
  }
  // The rest of the record's line must be empty.
  void end_of_record() {
    int c;
    while ((c = get()) != EOF && c != '\n')
      if (!isspace(c)) throw Malformed{};
  }

 private:
  void ungetc_(int c) {
    if (c == '\n') line_--;
    ungetc(c, f_);
  }
  uint64_t number(int base) {
    std::string t = token(20);
    if (t.empty()) throw Malformed{};
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(t.c_str(), &end, base);
    if (*end != '\0' || errno != 0 || t[0] == '-') throw Malformed{};
    return v;
  }
  uint64_t dec_until_colon() {
    int c;
    while ((c = get()) != EOF && isspace(c)) {
    }
    uint64_t n = 0;
    int digits = 0;
    for (; c != EOF && c != ':'; c = get()) {
      if (!isdigit(c) || ++digits > 9) throw Malformed{};
      n = n * 10 + uint64_t(c - '0');
    }
    if (c != ':' || digits == 0) throw Malformed{};
    return n;
  }

  FILE* f_;
  int line_ = 1;
};

struct Load {
  Reader* in = nullptr;
  std::string user_sid, group_sid;  // the process's identities (see process_identity)
  bool root = false;
  bool eof = false;
  int file_number = 0;      // of the file being read
  bool have_id = false;
  uint32_t dump_id = 0;
  std::map<tbs_uuid_s, uint32_t> silos;
};

// The identity text the loader compares set-id owners with: the decimal effective user and group ids.
void process_identity(Load* ld) {
  ld->user_sid = std::to_string(geteuid());
  ld->group_sid = std::to_string(getegid());
  ld->root = geteuid() == 0;
}

// A status of a create function: refusals of the record itself are skips, the rest fatal.
int verdict(int st) {
  if (st == 0) return LOAD_OK;
  if (st == TBS_ST_INTERNAL) return LOAD_FATAL;
  return LOAD_SKIP;
}

int silo_of(Load& ld, const tbs_uuid_s& uuid, uint32_t* dbid, DB_ADDR* dba = nullptr) {
  auto it = ld.silos.find(uuid);
  if (it != ld.silos.end()) {
    *dbid = it->second;
  } else {
    int st = tvr_db_silo_lookup(uuid, dbid);
    if (st != 0) return st;
    ld.silos[uuid] = *dbid;
  }
  return dba ? tvr_db_vns_silo_dba(*dbid, dba) : 0;
}

// Rewrites a row found by key through `edit`.
template <typename Row, typename F>
int edit_row(long key, const void* value, const char* label, F&& edit) {
  Row row;
  int st = dt_keyfind(key, value, view_db_task, -1);
  if (st == S_NOTFOUND) return TBS_ST_NOT_FOUND;
  if (st == 0) st = dt_recread(&row, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_RECREAD", label, st);
  edit(row);
  st = dt_recwrite(&row, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_RECWRITE", label, st);
  return 0;
}

// The attributes of a namespace record's fstat line.
struct VnsFstat {
  uint32_t w[11];
  tbs_fstat_db_t value() const {
    tbs_fstat_db_t f{};
    f.type = w[0];
    f.mode = w[1];
    f.nlink = w[2];
    f.atime = {time_t(w[3]), suseconds_t(w[4])};
    f.mtime = {time_t(w[5]), suseconds_t(w[6])};
    f.ctime = {time_t(w[7]), suseconds_t(w[8])};
    f.fourth_time = {time_t(w[9]), suseconds_t(w[10])};
    return f;
  }
};
VnsFstat read_fstat(Reader& in) {
  VnsFstat f;
  for (auto& w : f.w) w = in.hex32();
  return f;
}

// Puts the dumped attributes on the identity row, whatever the create function chose.
int restore_obj(DB_ADDR silo_dba, uint32_t dbid, const VnsFstat& f) {
  key_silo_dbid key{silo_dba, dbid};
  return edit_row<vns_db_obj>(VNS_OBJ_KEY, &key, "VNS_DB_OBJ", [&](vns_db_obj& o) {
    o.vns_obj_ftype = f.w[0];
    o.vns_obj_mode = f.w[1];
    o.atime_sec = f.w[3], o.atime_usec = f.w[4];
    o.mtime_sec = f.w[5], o.mtime_usec = f.w[6];
    o.ctime_sec = f.w[7], o.ctime_usec = f.w[8];
    o.extra[0] = f.w[9], o.extra[1] = f.w[10];
  });
}

// Puts back the marks that creation does not set: `validated` on the name row `name` of `dir` (0: the
// root's row), rddir_done and the saved state on a directory's row, stale on the version row.
int tvr_db_update_vns_ver_flags(DB_ADDR silo_dba, uint32_t dbid, uint32_t dir, const char* name, uint32_t validated,
                                uint32_t rddir_done, uint32_t stale, uint32_t saved) {
  int found = 0;
  DB_ADDR entry = 0;
  int st = tvr_db_dir_ver_ent_lookup_name(silo_dba, dir, name, &found, &entry);
  if (st != 0) return st;
  if (found) {
    st = dt_crset(&entry, view_db_task, -1);
    if (st == 0) st = dt_crwrite(VNS_DIR_VER_ENT_VALIDATED, &validated, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_CRWRITE", "VNS_DB_DIR_VER_ENT", st);
  }
  key_silo_dbid key{silo_dba, dbid};
  if (rddir_done != 0 || saved != 0) {
    st = edit_row<vns_db_dir_ver>(VNS_DIR_VER_KEY, &key, "VNS_DB_DIR_VER", [&](vns_db_dir_ver& d) {
      d.rddir_done = uint16_t(rddir_done);
      d.saved_rddir_state = uint16_t(saved);
    });
    if (st != 0) return st;
  }
  if (stale != 0) return edit_row<vns_db_ver>(VNS_VER_KEY, &key, "VNS_DB_VER", [&](vns_db_ver& v) { v.stale = stale; });
  return 0;
}

// ---- the record loaders ---------------------------------------------------------------------------------------

int load_ver(Load& ld) {
  uint64_t schema = ld.in->dec();
  uint64_t number = ld.in->dec();
  uint32_t id = ld.in->hex32();
  ld.in->end_of_record();
  if (schema != uint64_t(TAVREL_DB_SCHEMA_VERSION)) {
    imsg_print(IMSG_ERR, "Dump of schema version %llu cannot be loaded by schema version %d\n",
               static_cast<unsigned long long>(schema), TAVREL_DB_SCHEMA_VERSION);
    return LOAD_FATAL;
  }
  if (!ld.have_id) {
    ld.have_id = true;
    ld.dump_id = id;
  }
  if (number != uint64_t(ld.file_number) || id != ld.dump_id) {
    imsg_print(IMSG_ERR, "Load file number mismatch, expecting %d:%xl, got %d:%xl\n", ld.file_number, ld.dump_id,
               int(number), id);
    return LOAD_FATAL;
  }
  return LOAD_OK;
}

int load_eof(Load& ld) {
  ld.in->end_of_record();
  ld.eof = true;
  return LOAD_OK;
}

int load_view(Load& ld) {
  tbs_uuid_s uuid = ld.in->uuid();
  uint32_t gn = ld.in->hex32(), initial = ld.in->hex32();
  ld.in->end_of_record();
  int st = tvr_db_create_vns_view(uuid, initial);
  if (st == 0) st = tvr_db_set_vns_view_gn(gn);
  return verdict(st);
}

int load_silo(Load& ld) {
  tbs_uuid_s uuid = ld.in->uuid();
  std::string path = ld.in->counted(TVR_DB_DUMP_LONG_TEXT_MAX);
  uint64_t setwork = ld.in->hex(), hardlink = ld.in->hex();
  ld.in->end_of_record();
  uint32_t dbid = 0;
  int st = tvr_db_silo_create(uuid, path, &dbid);
  if (st == TBS_ST_EXISTS) {
    imsg_print(IMSG_ERR, "Unable to load silo record %s:%s\n", tbs_uuid_to_str(uuid).c_str(), path.c_str());
    return LOAD_SKIP;
  }
  if (st != 0) return verdict(st);
  ld.silos[uuid] = dbid;
  if (setwork != 0 || hardlink != 0) st = tvr_db_silo_set_setwork_flag(dbid, 1);
  return verdict(st);
}

int load_setwork(Load& ld) {
  uint64_t count = ld.in->hex();
  if (count > (1u << 20)) throw Malformed{};
  std::vector<tbs_uuid_s> uuids;
  for (uint64_t i = 0; i < count; i++) uuids.push_back(ld.in->uuid());
  ld.in->end_of_record();
  for (const auto& u : uuids) {
    uint32_t dbid = 0;
    int st = silo_of(ld, u, &dbid);
    if (st == TBS_ST_NOT_FOUND) {
      st = tvr_db_silo_create(u, "Unknown:created_by_reformat", &dbid);
      if (st == 0) ld.silos[u] = dbid;
    }
    if (st == 0) st = tvr_db_silo_set_setwork_flag(dbid, 1);
    if (st != 0) return verdict(st);
  }
  return LOAD_OK;
}

int load_scope(Load& ld) {
  tbs_oid_s oid = ld.in->oid();
  uint32_t gn = ld.in->hex32(), finished = ld.in->hex32(), reserved = ld.in->hex32(), op = ld.in->hex32();
  std::string name = ld.in->counted(TVR_DB_DUMP_COUNTED_MAX);
  ld.in->end_of_record();
  int st = tvr_db_create_lr_scope(oid, gn, name.c_str());
  if (st == 0)
    st = edit_row<vns_db_lr_scope>(VNS_LR_SCOPE_OID, &oid, "VNS_DB_LR_SCOPE", [&](vns_db_lr_scope& s) {
      s.finished_gn = finished;
      s.reserved = uint16_t(reserved);
      s.op_state = uint16_t(op);
    });
  return verdict(st);
}

// The file types an inode of each mtype may have.
bool ftype_fits(uint32_t mtype, uint32_t ftype) {
  switch (mtype) {
    case 2: case 3: case 4:
      return ftype == TBS_FTYPE_DIR;
    case 5: case 6: case 8:
      return ftype == TBS_FTYPE_FILE;
    case 7:
      return ftype == TBS_FTYPE_LINK;
    case 19: case 21: case 22: case 23: case 26:
      return ftype <= 5;
    default:
      return false;
  }
}

int load_inode(Load& ld) {
  Reader& in = *ld.in;
  tbs_uuid_s silo_uuid = in.uuid();
  tbs_oid_s oid = in.oid();
  uint32_t ftype = in.hex32(), mode = in.hex32(), mtype = in.hex32();
  in.hex32();  // the link count: the loaded names bring it back
  uint32_t usage = in.hex32();
  credutl_sid_t owner = in.identity(), group = in.identity();
  uint64_t size = in.hex();
  uint32_t t[8];
  for (auto& w : t) w = in.hex32();
  std::string text = in.counted(TVR_DB_DUMP_LONG_TEXT_MAX);
  in.end_of_record();
  std::string name = tbs_oid_to_str(oid);
  auto reject = [&] {
    imsg_print(IMSG_ERR, "Unable to load inode %s\n", name.c_str());
    return LOAD_SKIP;
  };
  if (mode & ~0xfffu) {
    imsg_print(IMSG_ERR, "Invalid mode %ld\n", long(mode));
    return reject();
  }
  if (mtype > 26) {
    imsg_print(IMSG_ERR, "Invalid mtype %ld\n", long(mtype));
    return reject();
  }
  if (!ftype_fits(mtype, ftype)) {
    imsg_print(IMSG_ERR, "Invalid ftype %d\n", int(ftype));
    return reject();
  }
  if ((mode & S_ISUID) && !ld.root && std::string(reinterpret_cast<char*>(owner.bytes), owner.len) != ld.user_sid) {
    imsg_print(IMSG_WARN, "No rights to import %s, setuid stripped\n", name.c_str());
    mode &= ~S_ISUID;
  }
  if ((mode & S_ISGID) && !ld.root && std::string(reinterpret_cast<char*>(group.bytes), group.len) != ld.group_sid) {
    imsg_print(IMSG_WARN, "No rights to import %s, setgid stripped\n", name.c_str());
    mode &= ~S_ISGID;
  }
  uint32_t silo = 0;
  int st = silo_of(ld, silo_uuid, &silo);
  if (st != 0) return st == TBS_ST_INTERNAL ? LOAD_FATAL : reject();
  tbs_fstat_db_t f{};
  f.type = ftype;
  f.mode = mode;
  f.nlink = ftype == TBS_FTYPE_DIR ? 1 : 0;
  f.spare = usage;
  f.owner = owner;
  f.group = group;
  f.size = ftype == TBS_FTYPE_DIR ? TVR_DB_DIR_EMPTY_SIZE : size;
  f.atime = {time_t(t[0]), suseconds_t(t[1])};
  f.mtime = {time_t(t[2]), suseconds_t(t[3])};
  f.ctime = {time_t(t[4]), suseconds_t(t[5])};
  f.fourth_time = {time_t(t[6]), suseconds_t(t[7])};
  uint32_t dbid = 0, gen = 0;
  st = tvr_db_inode_create(silo, oid, f, silo_mtype_t(mtype), &dbid, &gen);
  if (st == 0 && ftype == TBS_FTYPE_DIR) st = tvr_db_dir_create(dbid);
  if (st == 0 && !text.empty()) st = tvr_db_inode_write_text(dbid, text.c_str());
  if (st != 0 && st != TBS_ST_INTERNAL) return reject();
  return verdict(st);
}

int load_name(Load& ld) {
  Reader& in = *ld.in;
  tbs_uuid_s silo_uuid = in.uuid();
  tbs_oid_s dir_oid = in.oid();
  std::string name = in.counted(TVR_DB_MAX_NAME);
  tbs_oid_s obj_oid = in.oid();
  uint32_t state = in.hex32();
  in.hex32();  // position: the directory numbers its names again
  in.hex32();  // the object's file type: the inode has it
  tbs_oid_s hv = in.oid(), he = in.oid();
  in.end_of_record();
  uint32_t silo = 0, dir = 0, obj = 0;
  int st = silo_of(ld, silo_uuid, &silo);
  if (st == 0) st = tvr_db_inode_lookup(silo, dir_oid, &dir);
  if (st == 0 && !tbs_oid_is_null(obj_oid)) st = tvr_db_inode_lookup(silo, obj_oid, &obj);
  if (st == 0) st = tvr_db_link(dir, name.data(), name.size(), obj, state, nullptr, nullptr, 1, nullptr, nullptr);
  if (st == 0 && (state & TVR_DB_NS_HIJACK_OIDS) && !tbs_oid_is_null(hv))
    st = tvr_db_hijack(dir, name.data(), name.size(), &hv, &he);
  if (st != 0 && st != TBS_ST_INTERNAL)
    imsg_print(IMSG_ERR, "Unable to load name %s in %s (status %d)\n", name.c_str(), tbs_oid_to_str(dir_oid).c_str(), st);
  return verdict(st);
}

int load_cr(Load& ld) {
  Reader& in = *ld.in;
  tvr_db_cr_data data;
  data.header = in.hex32();
  std::string bytes = in.counted(TVR_DB_DUMP_CR_MAX);
  data.bytes.assign(bytes.begin(), bytes.end());
  uint64_t count = in.hex();
  if (count > (1u << 20)) throw Malformed{};
  std::vector<tbs_uuid_s> replicas;
  std::vector<tbs_oid_s> dos, subs;
  for (uint64_t i = 0; i < count; i++) {
    replicas.push_back(in.uuid());
    dos.push_back(in.oid());
  }
  uint64_t sub_count = in.hex();
  if (sub_count > (1u << 20)) throw Malformed{};
  for (uint64_t i = 0; i < sub_count; i++) subs.push_back(in.oid());
  uint64_t ref_count = in.hex();
  if (ref_count > (1u << 20)) throw Malformed{};
  std::vector<tbs_uuid_s> refs;
  for (uint64_t i = 0; i < ref_count; i++) refs.push_back(in.uuid());
  in.end_of_record();
  if (dos.empty()) {
    imsg_print(IMSG_ERR, "Unable to load configuration record without derived objects\n");
    return LOAD_SKIP;
  }
  for (const auto& r : replicas)
    if (r != replicas[0]) {
      imsg_print(IMSG_ERR, "Unable to load configuration record of %s: its derived objects name several replicas\n",
                 tbs_oid_to_str(dos[0]).c_str());
      return LOAD_SKIP;
    }
  uint32_t cr = 0;
  int st = tvr_db_cr_create(dos.data(), replicas[0], int(dos.size()), subs.empty() ? nullptr : subs.data(),
                            int(subs.size()), data, 0, 1, &cr);
  for (size_t i = 0; st == 0 && i < refs.size(); i++) st = tvr_db_cr_add_silo_ref(cr, refs[i]);
  return verdict(st);
}

int load_element(Load& ld) {
  Reader& in = *ld.in;
  tbs_uuid_s silo_uuid = in.uuid();
  tbs_oid_s oid = in.oid(), co = in.oid();
  uint32_t mtype = in.hex32(), sec = in.hex32(), usec = in.hex32(), checked = in.hex32();
  VnsFstat f = read_fstat(in);
  in.end_of_record();
  uint32_t silo = 0, dbid = 0;
  DB_ADDR silo_dba = 0;
  int st = silo_of(ld, silo_uuid, &silo, &silo_dba);
  struct timeval tv = {time_t(sec), suseconds_t(usec)};
  if (st == 0)
    st = tvr_db_create_vns_elem(silo, oid, silo_mtype_t(mtype), tv, f.value(), int32_t(checked),
                                tbs_oid_is_null(co) ? nullptr : &co, &dbid);
  if (st == 0) st = restore_obj(silo_dba, dbid, f);
  return verdict(st);
}

int load_root(Load& ld) {
  Reader& in = *ld.in;
  tbs_uuid_s silo_uuid = in.uuid();
  tbs_oid_s oid = in.oid(), elem = in.oid(), scope = in.oid();
  uint32_t gn = in.hex32(), sec = in.hex32(), usec = in.hex32(), validated = in.hex32(), rddir = in.hex32(),
           stale = in.hex32(), saved = in.hex32();
  VnsFstat f = read_fstat(in);
  in.end_of_record();
  uint32_t silo = 0, dbid = 0;
  DB_ADDR silo_dba = 0;
  int st = silo_of(ld, silo_uuid, &silo, &silo_dba);
  struct timeval tv = {time_t(sec), suseconds_t(usec)};
  if (st == 0)
    st = tvr_db_create_root_dir(silo, oid, elem, tv, f.value(), tbs_oid_is_null(scope) ? nullptr : &scope, gn, 0, &dbid);
  if (st == 0) st = restore_obj(silo_dba, dbid, f);
  if (st == 0) st = tvr_db_update_vns_ver_flags(silo_dba, dbid, 0, nullptr, validated, rddir, stale, saved);
  return verdict(st);
}

int load_version(Load& ld) {
  Reader& in = *ld.in;
  tbs_uuid_s silo_uuid = in.uuid();
  tbs_oid_s parent_oid = in.oid(), elem = in.oid(), oid = in.oid(), scope = in.oid();
  uint32_t gn = in.hex32(), mtype = in.hex32(), sec = in.hex32(), usec = in.hex32(), validated = in.hex32(),
           rddir = in.hex32(), stale = in.hex32(), saved = in.hex32();
  uint64_t size = in.hex();
  VnsFstat f = read_fstat(in);
  std::string name = in.counted(TVR_DB_MAX_NAME);
  in.end_of_record();
  uint32_t silo = 0, parent = 0, dbid = 0;
  DB_ADDR silo_dba = 0;
  silo_mtype_t parent_type = 0;
  int st = silo_of(ld, silo_uuid, &silo, &silo_dba);
  if (st == 0) st = tvr_db_vns_obj_lookup(silo_dba, parent_oid, &parent, &parent_type);
  struct timeval tv = {time_t(sec), suseconds_t(usec)};
  tbs_fstat_db_t value = f.value();
  value.size = size;
  if (st == 0)
    st = tvr_db_create_vns_ver(silo, parent, oid, elem, silo_mtype_t(mtype), tv, name.c_str(), value,
                               tbs_oid_is_null(scope) ? nullptr : &scope, gn, 0, &dbid, nullptr, nullptr);
  if (st == 0) st = restore_obj(silo_dba, dbid, f);
  if (st == 0)
    st = tvr_db_update_vns_ver_flags(silo_dba, dbid, parent, name.c_str(), validated, rddir, stale, saved);
  if (st != 0 && st != TBS_ST_INTERNAL)
    imsg_print(IMSG_ERR, "Unable to load version %s as %s (status %d)\n", tbs_oid_to_str(oid).c_str(), name.c_str(), st);
  return verdict(st);
}

int load_slink(Load& ld) {
  Reader& in = *ld.in;
  tbs_uuid_s silo_uuid = in.uuid();
  tbs_oid_s parent_oid = in.oid(), oid = in.oid(), scope = in.oid();
  uint32_t gn = in.hex32(), sec = in.hex32(), usec = in.hex32(), validated = in.hex32();
  VnsFstat f = read_fstat(in);
  std::string name = in.counted(TVR_DB_MAX_NAME);
  std::string text = in.counted(TVR_DB_DUMP_COUNTED_MAX);
  in.end_of_record();
  uint32_t silo = 0, parent = 0, dbid = 0;
  DB_ADDR silo_dba = 0;
  silo_mtype_t parent_type = 0;
  int st = silo_of(ld, silo_uuid, &silo, &silo_dba);
  if (st == 0) st = tvr_db_vns_obj_lookup(silo_dba, parent_oid, &parent, &parent_type);
  struct timeval tv = {time_t(sec), suseconds_t(usec)};
  if (st == 0)
    st = tvr_db_create_vns_slink(silo, parent, oid, tv, name.c_str(), text.c_str(),
                                 tbs_oid_is_null(scope) ? nullptr : &scope, gn, &dbid);
  if (st == 0) st = restore_obj(silo_dba, dbid, f);
  if (st == 0) st = tvr_db_update_vns_ver_flags(silo_dba, dbid, parent, name.c_str(), validated, 0, 0, 0);
  return verdict(st);
}

struct LoadEntry {
  const char* tag;
  int (*load)(Load&);
};
const LoadEntry tavrel_db_load_table[] = {
    {"Ver", load_ver},           {"Silo", load_silo},          {"Inode", load_inode},
    {"Name", load_name},         {"Cr", load_cr},              {"Setwork", load_setwork},
    {"Vns-View", load_view},     {"Lr-Scope", load_scope},     {"Vns-Element", load_element},
    {"Vns-Root-Dir", load_root}, {"Vns-Version", load_version}, {"Vns-Slink", load_slink},
    {"Eof", load_eof},
};

// Reads every record of one open file. 2 on a fatal failure; *skipped counts the skips.
int load_file(Load& ld, FILE* f, const std::string& name, long* skipped) {
  Reader in(f);
  ld.in = &in;
  for (;;) {
    int line = in.line();
    std::string tag;
    try {
      tag = in.token(TVR_DB_DUMP_TAG_MAX);
    } catch (const Malformed&) {
      imsg_print(IMSG_ERR, "Unable to decode record at line %d\n", line);
      return LOAD_FATAL;
    }
    if (tag.empty()) return LOAD_OK;  // end of this file
    const LoadEntry* e = nullptr;
    for (const auto& t : tavrel_db_load_table)
      if (tag == t.tag) e = &t;
    if (!e) {
      imsg_print(IMSG_ERR, "Unable to decode record at line %d\n", line);
      return LOAD_FATAL;
    }
    // The first record of every file is its "Ver".
    if ((line == 1) != (tag == "Ver")) {
      imsg_print(IMSG_ERR, "Unable to decode record at line %d\n", line);
      return LOAD_FATAL;
    }
    int r;
    try {
      r = e->load(ld);
    } catch (const Malformed&) {
      imsg_print(IMSG_ERR, "Unable to decode record at line %d\n", line);
      return LOAD_FATAL;
    }
    if (r == LOAD_FATAL) {
      imsg_print(IMSG_ERR, "Loading %s stopped at line %d\n", name.c_str(), line);
      return LOAD_FATAL;
    }
    if (r == LOAD_SKIP) ++*skipped;
    if (ld.eof) return LOAD_OK;
  }
}

int write_marker() {
  int fd = open(TVR_DB_LOADING_MARKER, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || fsync(fd) != 0) {
    imsg_print(IMSG_ERR, "Unable to create \"%s\": %s\n", TVR_DB_LOADING_MARKER, strerror(errno));
    if (fd >= 0) close(fd);
    return TBS_ST_INTERNAL;
  }
  close(fd);
  int dfd = open("db", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    fsync(dfd);
    close(dfd);
  }
  return 0;
}

}  // namespace

int tvr_db_load_db() {
  Load ld;
  process_identity(&ld);
  FILE* f = fopen(TVR_DB_DUMP_FILE, "rb");
  if (!f) {
    if (errno == ENOENT) return TBS_ST_NO_SUCH_NAME;
    imsg_print(IMSG_ERR, "Unable to open \"%s\": %s\n", TVR_DB_DUMP_FILE, strerror(errno));
    return TBS_ST_INTERNAL;
  }
  std::string home = tvr_db_storage_name();
  tvr_db_close_db();
  int st = tvr_db_state_file_open();
  // A database left by an interrupted load is never opened: it is rebuilt from nothing.
  if (st == 0 && fileutl_exists(TVR_DB_LOADING_MARKER) && fileutl_rm_tree("db") != 0) {
    imsg_print(IMSG_ERR, "Unable to remove the half-loaded database of %s\n", home.c_str());
    st = TBS_ST_INTERNAL;
  }
  if (st == 0) st = tvr_db_init_schema();
  if (st == 0) st = tvr_db_open_db(1, 512);
  if (st == 0) st = tvr_db_init_db();
  if (st == 0) st = write_marker();
  if (st != 0) {
    fclose(f);
    return st;
  }
  imsg_print(IMSG_OK, "Loading DB %s\n", home.c_str());

  dt_off_opt(DT_OPT_TXJOURNAL, view_db_task);
  st = tvr_db_trans_start_int(1, 0);
  if (st != 0) {
    dt_on_opt(DT_OPT_TXJOURNAL, view_db_task);
    fclose(f);
    return st;
  }
  long skipped = 0;
  int files = 0;
  int result = LOAD_OK;
  for (;;) {
    std::string name = tvr_db_dump_file_name(TVR_DB_DUMP_FILE, files);
    ld.file_number = files;
    result = load_file(ld, f, name, &skipped);
    fclose(f);
    f = nullptr;
    files++;
    if (result == LOAD_FATAL || ld.eof) break;
    std::string next = tvr_db_dump_file_name(TVR_DB_DUMP_FILE, files);
    f = fopen(next.c_str(), "rb");
    if (!f) {
      imsg_print(IMSG_ERR, "Dump of %s ends without \"Eof\": \"%s\": %s\n", home.c_str(), next.c_str(), strerror(errno));
      result = LOAD_FATAL;
      break;
    }
  }
  // Even a failed load commits what it wrote: with the journal off nothing can be undone, and the marker
  // makes the next start load again from the dump.
  st = tvr_db_trans_end(1);
  dt_on_opt(DT_OPT_TXJOURNAL, view_db_task);
  if (st == 0) {
    int est = dt_syncfiles(view_db_task);
    if (est != 0) st = tvr_engine_err("D_SYNCFILES", "tavrel_db", est);
  }
  if (st == 0 && tvr_db_cr_file_fd() >= 0 && fsync(tvr_db_cr_file_fd()) != 0) {
    imsg_print(IMSG_ERR, "Unable to sync the configuration records of %s: %s\n", home.c_str(), strerror(errno));
    st = TBS_ST_INTERNAL;
  }
  if (st != 0) return st;
  if (result == LOAD_FATAL) {
    imsg_print(IMSG_ERR, "Load failed for DB %s; the dump is kept\n", home.c_str());
    return TBS_ST_INTERNAL;
  }
  // The marker goes before the letter: a crash in between leaves a whole database in 'm', which a repair
  // dumps again; the other order could leave a stale marker that later makes a repair load an old dump.
  if (unlink(TVR_DB_LOADING_MARKER) != 0) {
    imsg_print(IMSG_ERR, "Unable to remove \"%s\": %s\n", TVR_DB_LOADING_MARKER, strerror(errno));
    return TBS_ST_INTERNAL;
  }
  st = tvr_db_state_change('i');
  if (st != 0) return st;
  if (skipped == 0) {
    for (int n = 0; n < files; n++) unlink(tvr_db_dump_file_name(TVR_DB_DUMP_FILE, n).c_str());
  } else {
    imsg_print(IMSG_WARN, "%ld record(s) of the dump of %s could not be loaded; the dump is kept\n", skipped,
               home.c_str());
  }
  return 0;
}
