#include "db/rec/engine.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "db/rec/io.h"

namespace tavrel::rec {
namespace {

inline uint32_t rd32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
inline void wr32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }
inline void be32(uint8_t* p, uint32_t v) {
  p[0] = (uint8_t)(v >> 24);
  p[1] = (uint8_t)(v >> 16);
  p[2] = (uint8_t)(v >> 8);
  p[3] = (uint8_t)v;
}
inline uint32_t getbe32(const uint8_t* p) {
  return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

inline int rec_index(DB_ADDR dba) { return (int)(dba >> kSlotShift); }
inline uint32_t slot_of(DB_ADDR dba) { return dba & kSlotMask; }
inline DB_ADDR make_dba(int rec, uint32_t slot) { return (DB_ADDR)rec << kSlotShift | slot; }

void norm_part(FType t, const uint8_t* src, uint16_t size, uint8_t* out) {
  switch (t) {
    case FType::U32: {
      uint32_t v;
      std::memcpy(&v, src, 4);
      be32(out, v);
      break;
    }
    case FType::I32: {
      uint32_t v;
      std::memcpy(&v, src, 4);
      be32(out, v ^ 0x80000000u);
      break;
    }
    case FType::U16: {
      uint16_t v;
      std::memcpy(&v, src, 2);
      out[0] = (uint8_t)(v >> 8);
      out[1] = (uint8_t)v;
      break;
    }
    default:
      std::memcpy(out, src, size);
  }
}

void denorm_part(FType t, const uint8_t* norm, uint16_t size, uint8_t* dst) {
  switch (t) {
    case FType::U32: {
      uint32_t v = getbe32(norm);
      std::memcpy(dst, &v, 4);
      break;
    }
    case FType::I32: {
      uint32_t v = getbe32(norm) ^ 0x80000000u;
      std::memcpy(dst, &v, 4);
      break;
    }
    case FType::U16: {
      uint16_t v = (uint16_t)(norm[0] << 8 | norm[1]);
      std::memcpy(dst, &v, 2);
      break;
    }
    default:
      std::memcpy(dst, norm, size);
  }
}

std::string file_name(const std::string& db, int slot) {
  char b[32];
  if (slot < kKeyFileSlotBase)
    snprintf(b, sizeof b, ".d%02d", slot);
  else
    snprintf(b, sizeof b, ".k%05ld", schema().keys[slot - kKeyFileSlotBase].field);
  return db + b;
}

std::string join(const std::string& dir, const std::string& name) {
  if (dir.empty()) return name;
  return dir.back() == '/' ? dir + name : dir + "/" + name;
}

}  // namespace

void key_norm_from_record(const KeyDesc& k, const uint8_t* rec, uint8_t* out) {
  const Schema& s = schema();
  for (int i = 0; i < k.nparts; i++) {
    const FieldDesc* f = s.field(k.parts[i]);
    norm_part(f->type, rec + f->offset, f->size, out);
    out += f->size;
  }
}

void key_norm_from_buffer(const KeyDesc& k, const uint8_t* buf, uint8_t* out) {
  const Schema& s = schema();
  for (int i = 0; i < k.nparts; i++) {
    const FieldDesc* f = s.field(k.parts[i]);
    norm_part(f->type, buf + k.buf_off[i], f->size, out);
    out += f->size;
  }
}

void key_buffer_from_norm(const KeyDesc& k, const uint8_t* norm, uint8_t* buf) {
  const Schema& s = schema();
  std::memset(buf, 0, k.buf_len);
  for (int i = 0; i < k.nparts; i++) {
    const FieldDesc* f = s.field(k.parts[i]);
    denorm_part(f->type, norm, f->size, buf + k.buf_off[i]);
    norm += f->size;
  }
}

Database::Database() = default;
Database::~Database() { abandon(); }

// ---- open / close -----------------------------------------------------------------------------------------

int Database::open(const OpenParams& p, const MsgFn& msg) {
  params_ = p;
  msg_ = msg;
  const Schema& s = schema();
  // The dictionary must be the one this engine was built with.
  {
    std::string path = join(p.dbd_dir, p.name + ".dbd");
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      msg_(2, "Unable to open the dictionary file \"" + path + "\"\n");
      return S_NOFILE;
    }
    std::stringstream ss;
    ss << in.rdbuf();
    if (check_dictionary(ss.str()) != 0) {
      msg_(2, "Dictionary file \"" + path + "\" does not match this engine\n");
      return -21;
    }
  }
  // Files.
  int nfiles = kKeyFileSlotBase + (int)s.keys.size();
  files_.assign(nfiles, CacheFile());
  for (int i = 0; i < nfiles; i++) {
    files_[i].name = file_name(p.name, i);
    files_[i].path = join(p.file_dir, files_[i].name);
    if (files_[i].path.size() >= 4096) return -35;
  }
  std::string tjf = join(p.taf_dir, p.name + ".tjf"), tcf = join(p.taf_dir, p.name + ".tcf");
  int st = journal_.open(tjf, msg_);
  if (st != 0) return st;
  for (CacheFile& f : files_) {
    f.fd = ::open(f.path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    if (f.fd < 0) {
      msg_(2, "Unable to open database file \"" + f.path + "\"\n");
      close_files();
      return S_NOFILE;
    }
  }
  if (journal_.needs_recovery()) {
    st = tjf_roll_forward(
        journal_.fd(), tjf, tcf,
        [&](int slot, const std::string& name) {
          return slot < nfiles && files_[slot].name == name ? files_[slot].fd : -1;
        },
        msg_);
    if (st == 0) st = journal_.reload(msg_);
    if (st != 0) {
      close_files();
      return st;
    }
  }
  std::vector<std::string> names;
  for (CacheFile& f : files_) names.push_back(f.name);
  st = tcf_write(tcf, names, msg_);
  if (st != 0) {
    close_files();
    return st;
  }
  // Page size: the one the files were made with, else the requested one.
  ps_ = p.page_size;
  bool any = false;
  for (CacheFile& f : files_)
    if (io_size(f.fd) > 0) any = true;
  bool fresh = !any;
  if (any) {
    uint8_t h[16];
    if (io_read(files_[0].fd, h, 16, 0) != 0) {
      close_files();
      return S_BADREAD;
    }
    ps_ = rd32(h + 12);
    if (ps_ < 512 || ps_ > 32768 || (ps_ & (ps_ - 1))) {
      close_files();
      return -21;
    }
  }
  for (CacheFile& f : files_) f.pages = (io_size(f.fd) + ps_ - 1) / ps_;
  cache_ = std::make_unique<PageCache>(ps_);
  st = cache_->allocate(p.frames);
  if (st != 0) {
    close_files();
    return st;
  }
  cache_->attach(&files_, &journal_);
  for (int i = 0; i < TAVREL_DB_NUM_RECORDS; i++) data_.push_back(std::make_unique<DataFile>(cache_.get(), i, &s.recs[i]));
  for (size_t k = 0; k < s.keys.size(); k++)
    keys_.push_back(std::make_unique<BTree>(cache_.get(), s.keys[k].file_slot, s.keys[k].field, s.keys[k].norm_len + 4));
  open_ = true;
  st = fresh ? create_files() : load_files();
  if (st != 0) {
    abandon();
    return st;
  }
  cur_ = Currency();
  return 0;
}

int Database::create_files() {
  const Schema& s = schema();
  cache_->tx_begin(true);
  int st = 0;
  for (auto& d : data_)
    if ((st = d->create(s.hash)) != 0) break;
  if (st == 0)
    for (auto& k : keys_)
      if ((st = k->create(s.hash)) != 0) break;
  bool applying = false;
  if (st == 0) st = cache_->tx_commit(false, &applying);
  if (st != 0) {
    cache_->tx_abort();
    return st;
  }
  return checkpoint();
}

int Database::load_files() {
  const Schema& s = schema();
  for (auto& d : data_) {
    if (files_[&d - &data_[0]].pages == 0) return -21;
    int st = d->load(s.hash);
    if (st != 0) return st;
  }
  for (size_t k = 0; k < keys_.size(); k++) {
    if (files_[s.keys[k].file_slot].pages == 0) return -21;
    int st = keys_[k]->load(s.hash);
    if (st != 0) return st;
  }
  return 0;
}

int Database::reload_headers() {
  for (auto& d : data_) {
    d->drop_pending();
    int st = d->reload();
    if (st != 0) return st;
  }
  for (auto& k : keys_) {
    int st = k->reload();
    if (st != 0) return st;
  }
  return 0;
}

void Database::close_files() {
  for (CacheFile& f : files_)
    if (f.fd >= 0) ::close(f.fd);
  files_.clear();
  journal_.close();
}

void Database::abandon() {
  data_.clear();
  keys_.clear();
  cache_.reset();
  close_files();
  open_ = false;
  active_ = false;
}

int Database::close() {
  int st = 0;
  if (active_) st = trabort();
  int st2 = checkpoint();
  abandon();
  return st ? st : st2;
}

int Database::checkpoint() {
  if (active_) return -26;
  failpoint("checkpoint.before_sync");
  int st = cache_->write_back();
  if (st == 0) st = cache_->sync_files();
  if (st != 0) return st;
  failpoint("checkpoint.after_data_sync");
  if (journal_.length() > kTjfHeader) st = journal_.truncate();
  failpoint("checkpoint.after_truncate");
  return st;
}

int Database::syncfiles() {
  if (!active_) return checkpoint();
  // Inside a transaction only committed pages may go to the files; the journal stays.
  int st = cache_->write_back();
  if (st == 0) st = cache_->sync_files();
  return st ? st : journal_.sync();
}

int Database::initialize() {
  if (active_) return -26;
  int st = checkpoint();
  if (st != 0) return st;
  cache_->drop_all();
  for (CacheFile& f : files_) {
    if ((st = io_truncate(f.fd, 0)) != 0) return st;
    f.pages = 0;
  }
  st = create_files();
  cur_ = Currency();
  return st;
}

// ---- transactions -----------------------------------------------------------------------------------------

int Database::trbegin(bool journaled) {
  if (active_) return -26;
  journaled_ = journaled;
  cache_->tx_begin(journaled);
  active_ = true;
  return 0;
}

int Database::trend(bool sync_files) {
  if (!active_) return -27;
  int st = 0;
  for (auto& d : data_)
    if ((st = d->release_pending()) != 0) return st;
  bool applying = false;
  st = cache_->tx_commit(sync_files, &applying);
  if (st != 0) {
    if (applying) {
      msg_(2, "*** view database engine error during commit, exiting\n");
      fflush(nullptr);
      ::_exit(1);
    }
    return st;
  }
  active_ = false;
  if (journal_.length() > kTjfCheckpointLimit) st = checkpoint();
  return st;
}

int Database::trabort() {
  if (!active_) return -27;
  if (!journaled_) {
    // Without the journal the changes cannot be undone: keep what was done and say so.
    bool applying;
    for (auto& d : data_) d->release_pending();
    cache_->tx_commit(false, &applying);
    active_ = false;
    return S_TAFSYNC;
  }
  int st = cache_->tx_abort();
  active_ = false;
  int st2 = reload_headers();
  cur_ = Currency();
  return st ? st : st2;
}

// ---- rows -------------------------------------------------------------------------------------------------

int Database::live_slot(DB_ADDR dba, PageRef* pg, uint8_t** p, const RecDesc** rd) {
  int ri = rec_index(dba);
  if (ri >= TAVREL_DB_NUM_RECORDS) return -6;
  int st = df(ri).slot(slot_of(dba), pg, p);
  if (st != 0) return st;
  if ((*p)[0] != SLOT_LIVE) return 6;
  *rd = df(ri).rec();
  return 0;
}

// A currency position: `missing` when it is none or names a row that is gone.
int Database::cur_slot(DB_ADDR dba, int missing, PageRef* pg, uint8_t** p, const RecDesc** rd) {
  if (dba == 0) return missing;
  int st = live_slot(dba, pg, p, rd);
  if (st == 6 || st == -6) return missing;
  return st;
}

bool Database::key_stored(const KeyDesc& k, const uint8_t* slot) const {
  return !k.optional || (slot[1] >> k.opt_bit & 1);
}

int Database::probe_unique(int key, const uint8_t* norm, DB_ADDR self, bool* clash) {
  const KeyDesc& k = schema().keys[key];
  uint8_t probe[kMaxNormKey + 4] = {}, out[kMaxNormKey + 4];
  std::memcpy(probe, norm, k.norm_len);
  bool found;
  Hint h;
  int st = kt(key).seek_ge(probe, out, &found, &h);
  if (st != 0) return st;
  *clash = false;
  // Any entry with this value other than `self` is a clash.
  while (found && std::memcmp(out, norm, k.norm_len) == 0) {
    if (getbe32(out + k.norm_len) != self) {
      *clash = true;
      return 0;
    }
    bool used;
    st = kt(key).step(1, &h, out, &found, &used);
    if (st != 0) return st;
    if (!used) break;
  }
  return 0;
}

int Database::fillnew(int rec, const void* values) {
  const RecDesc* rd = schema().rec(rec);
  if (!rd) return -3;
  if (!active_) return -31;
  if (!values) return -10;
  const Schema& s = schema();
  const auto* data = static_cast<const uint8_t*>(values);
  uint8_t norm[kMaxNormKey + 4];
  for (int k : rd->keys) {
    const KeyDesc& kd = s.keys[k];
    if (kd.optional || !kd.unique) continue;
    key_norm_from_record(kd, data, norm);
    bool clash;
    int st = probe_unique(k, norm, 0, &clash);
    if (st != 0) return st;
    if (clash) return 3;
  }
  int ri = rd->number - 10000;
  uint32_t sl;
  PageRef pg;
  uint8_t* p;
  int st = df(ri).alloc(&sl, &pg, &p);
  if (st != 0) return st;
  std::memcpy(p + rd->data_off, data, rd->size);
  DB_ADDR dba = make_dba(ri, sl);
  for (int k : rd->keys) {
    const KeyDesc& kd = s.keys[k];
    if (kd.optional) continue;
    key_norm_from_record(kd, data, norm);
    be32(norm + kd.norm_len, dba);
    if ((st = kt(k).insert(norm)) != 0) return st;
  }
  cur_.cr = dba;
  return 0;
}

int Database::recread(void* buf) {
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(cur_.cr, -7, &pg, &p, &rd);
  if (st != 0) return st;
  std::memcpy(buf, p + rd->data_off, rd->size);
  return 0;
}

// Replace the row's bytes with `data`, moving every stored key whose value changed. Unique keys are
// probed first, so a 3 leaves the row and its keys untouched.
int Database::update_row(DB_ADDR dba, PageRef& pg, uint8_t* slot, const RecDesc* rd, const uint8_t* data) {
  const Schema& s = schema();
  const uint8_t* old = slot + rd->data_off;
  uint8_t on[kMaxNormKey + 4], nn[kMaxNormKey + 4];
  int changed[8], nchanged = 0;
  for (int k : rd->keys) {
    const KeyDesc& kd = s.keys[k];
    if (!key_stored(kd, slot)) continue;
    key_norm_from_record(kd, old, on);
    key_norm_from_record(kd, data, nn);
    if (std::memcmp(on, nn, kd.norm_len) == 0) continue;
    if (kd.unique) {
      bool clash;
      int st = probe_unique(k, nn, dba, &clash);
      if (st != 0) return st;
      if (clash) return 3;
    }
    changed[nchanged++] = k;
  }
  for (int i = 0; i < nchanged; i++) {
    const KeyDesc& kd = s.keys[changed[i]];
    key_norm_from_record(kd, old, on);
    key_norm_from_record(kd, data, nn);
    be32(on + kd.norm_len, dba);
    be32(nn + kd.norm_len, dba);
    int st = kt(changed[i]).erase(on);
    if (st == 2) st = -910;
    if (st == 0) st = kt(changed[i]).insert(nn);
    if (st != 0) return st;
  }
  int st = pg.dirty();
  if (st != 0) return st;
  std::memmove(slot + rd->data_off, data, rd->size);
  return 0;
}

int Database::recwrite(const void* buf) {
  if (!active_) return -31;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(cur_.cr, -7, &pg, &p, &rd);
  if (st != 0) return st;
  return update_row(cur_.cr, pg, p, rd, static_cast<const uint8_t*>(buf));
}

static int field_check(const FieldDesc* f, const RecDesc* rd) {
  if (!f) return -5;
  if (f->number / 1000 != rd->number - 10000) return -38;
  if (f->type == FType::KEY) return -15;
  return 0;
}

int Database::crread(long field, void* buf) {
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(cur_.cr, -7, &pg, &p, &rd);
  if (st != 0) return st;
  const FieldDesc* f = schema().field(field);
  if ((st = field_check(f, rd)) != 0) return st;
  std::memcpy(buf, p + rd->data_off + f->offset, f->size);
  return 0;
}

int Database::write_field(DB_ADDR dba, long field, const void* value, int missing) {
  if (!active_) return -31;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(dba, missing, &pg, &p, &rd);
  if (st != 0) return st;
  const FieldDesc* f = schema().field(field);
  if ((st = field_check(f, rd)) != 0) return st;
  uint8_t img[512];
  std::memcpy(img, p + rd->data_off, rd->size);
  std::memcpy(img + f->offset, value, f->size);
  return update_row(dba, pg, p, rd, img);
}

int Database::crwrite(long field, const void* value) { return write_field(cur_.cr, field, value, -7); }

int Database::crget(DB_ADDR* dba) {
  if (cur_.cr == 0) return -7;
  *dba = cur_.cr;
  return 0;
}

int Database::crset(DB_ADDR dba) {
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = live_slot(dba, &pg, &p, &rd);
  if (st != 0) return st;
  cur_.cr = dba;
  return 0;
}

int Database::crtype(int* rec) {
  if (cur_.cr == 0) return -7;
  *rec = 10000 + rec_index(cur_.cr);
  return 0;
}

int Database::unlink(DB_ADDR, uint8_t* slot, const RecDesc* rd, int set) {
  int mo = rd->member_off(set);
  DB_ADDR owner = rd32(slot + mo), prev = rd32(slot + mo + 4), next = rd32(slot + mo + 8);
  // which: 0 owner.first, 1 owner.last, 2 owner.count minus one, 4 member.prev, 5 member.next
  auto patch = [&](DB_ADDR row, int which, DB_ADDR value) -> int {
    PageRef pg;
    uint8_t* p;
    const RecDesc* r;
    int st = live_slot(row, &pg, &p, &r);
    if (st != 0) return st == 6 ? -910 : st;
    int base = which < 3 ? r->owner_off(set) : r->member_off(set);
    if (base < 0) return -910;
    int off = base + 4 * (which < 3 ? which : which - 3);
    if ((st = pg.dirty()) != 0) return st;
    wr32(p + off, which == 2 ? rd32(p + off) - 1 : value);
    return 0;
  };
  int st;
  if ((st = prev ? patch(prev, 5, next) : patch(owner, 0, next)) != 0) return st;
  if ((st = next ? patch(next, 4, prev) : patch(owner, 1, prev)) != 0) return st;
  if ((st = patch(owner, 2, 0)) != 0) return st;
  std::memset(slot + mo, 0, 12);
  return 0;
}

int Database::delete_row(DB_ADDR dba, PageRef& pg, uint8_t* slot, const RecDesc* rd) {
  const Schema& s = schema();
  uint8_t e[kMaxNormKey + 4];
  for (int k : rd->keys) {
    const KeyDesc& kd = s.keys[k];
    if (!key_stored(kd, slot)) continue;
    key_norm_from_record(kd, slot + rd->data_off, e);
    be32(e + kd.norm_len, dba);
    int st = kt(k).erase(e);
    if (st != 0) return st == 2 ? -910 : st;
  }
  pg.release();
  int st = df(rec_index(dba)).release(slot_of(dba));
  if (st != 0) return st;
  if (cur_.cr == dba) cur_.cr = 0;
  for (int i = 0; i < TAVREL_DB_NUM_SETS; i++) {
    if (cur_.co[i] == dba) cur_.co[i] = 0;
    if (cur_.cm[i] == dba) cur_.cm[i] = 0;
  }
  return 0;
}

int Database::disdel() {
  if (!active_) return -31;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(cur_.cr, -7, &pg, &p, &rd);
  if (st != 0) return st;
  for (int set : rd->owned_sets)
    if (rd32(p + rd->owner_off(set) + 8) != 0) return -12;
  DB_ADDR dba = cur_.cr;
  if ((st = pg.dirty()) != 0) return st;
  for (int set : rd->member_sets)
    if (rd32(p + rd->member_off(set)) != 0 && (st = unlink(dba, p, rd, set)) != 0) return st;
  return delete_row(dba, pg, p, rd);
}

int Database::del() {
  if (!active_) return -31;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(cur_.cr, -7, &pg, &p, &rd);
  if (st != 0) return st;
  for (int set : rd->member_sets)
    if (rd32(p + rd->member_off(set)) != 0) return -13;
  for (int set : rd->owned_sets)
    if (rd32(p + rd->owner_off(set) + 8) != 0) return -12;
  return delete_row(cur_.cr, pg, p, rd);
}

int Database::recfrst(int rec) {
  const RecDesc* rd = schema().rec(rec);
  if (!rd) return -3;
  cur_.scan_rec = rd->number - 10000;
  cur_.scan = make_dba(cur_.scan_rec, 0);
  return recnext();
}

int Database::recnext() {
  if (cur_.scan_rec < 0) return -46;
  DataFile& d = df(cur_.scan_rec);
  uint32_t spp = d.slots_per_page(), ss = d.rec()->slot_size;
  uint32_t s = slot_of(cur_.scan) + 1;
  while (s <= d.high_water()) {
    PageRef pg;
    uint8_t* p;
    int st = d.slot(s, &pg, &p);
    if (st != 0) return st;
    // Walk the rest of this page without another lookup.
    uint32_t in_page = (s - 1) % spp;
    for (; in_page < spp && s <= d.high_water(); in_page++, s++, p += ss) {
      if (p[0] == SLOT_LIVE) {
        cur_.scan = cur_.cr = make_dba(cur_.scan_rec, s);
        return 0;
      }
    }
  }
  return 2;
}

int Database::recset(int rec) {
  const RecDesc* rd = schema().rec(rec);
  if (!rd) return -3;
  PageRef pg;
  uint8_t* p;
  const RecDesc* crd;
  int st = cur_slot(cur_.cr, -7, &pg, &p, &crd);
  if (st != 0) return st;
  if (crd != rd) return -3;
  cur_.scan_rec = rd->number - 10000;
  cur_.scan = cur_.cr;
  return 0;
}

// ---- sets -------------------------------------------------------------------------------------------------

static bool is_member_type(const SetDesc* sd, const RecDesc* rd) {
  for (int m = 0; m < sd->nmembers; m++)
    if (sd->members[m] == rd->number - 10000) return true;
  return false;
}

int Database::setor(int set) {
  const SetDesc* sd = schema().set(set);
  if (!sd) return -2;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(cur_.cr, -7, &pg, &p, &rd);
  if (st != 0) return st;
  if (sd->owner != rd->number - 10000) return -18;
  int si = set - 20000;
  cur_.co[si] = cur_.cr;
  cur_.cm[si] = 0;
  return 0;
}

int Database::setro(int set) {
  const SetDesc* sd = schema().set(set);
  if (!sd) return -2;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int si = set - 20000;
  int st = cur_slot(cur_.co[si], -8, &pg, &p, &rd);
  if (st != 0) return st;
  cur_.cr = cur_.co[si];
  return 0;
}

int Database::setmr(int set) {
  const SetDesc* sd = schema().set(set);
  if (!sd) return -2;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(cur_.cr, -7, &pg, &p, &rd);
  if (st != 0) return st;
  if (!is_member_type(sd, rd)) return -19;
  DB_ADDR owner = rd32(p + rd->member_off(set - 20000));
  if (owner == 0) return -16;
  cur_.cm[set - 20000] = cur_.cr;
  cur_.co[set - 20000] = owner;
  return 0;
}

int Database::setmo(int seta, int setb) {
  const SetDesc* a = schema().set(seta);
  const SetDesc* b = schema().set(setb);
  if (!a || !b) return -2;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  DB_ADDR row = cur_.co[setb - 20000];
  int st = cur_slot(row, -8, &pg, &p, &rd);
  if (st != 0) return st;
  if (!is_member_type(a, rd)) return -19;
  DB_ADDR owner = rd32(p + rd->member_off(seta - 20000));
  if (owner == 0) return -16;
  cur_.cm[seta - 20000] = row;
  cur_.co[seta - 20000] = owner;
  return 0;
}

int Database::setoo(int seta, int setb) {
  const SetDesc* a = schema().set(seta);
  const SetDesc* b = schema().set(setb);
  if (!a || !b) return -2;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  DB_ADDR row = cur_.co[setb - 20000];
  int st = cur_slot(row, -8, &pg, &p, &rd);
  if (st != 0) return st;
  if (a->owner != rd->number - 10000) return -18;
  cur_.co[seta - 20000] = row;
  cur_.cm[seta - 20000] = 0;
  return 0;
}

int Database::csoget(int set, DB_ADDR* dba) {
  if (!schema().set(set)) return -2;
  if (cur_.co[set - 20000] == 0) return -8;
  *dba = cur_.co[set - 20000];
  return 0;
}

int Database::csoset(int set, DB_ADDR dba) {
  const SetDesc* sd = schema().set(set);
  if (!sd) return -2;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = live_slot(dba, &pg, &p, &rd);
  if (st != 0) return st;
  if (sd->owner != rd->number - 10000) return -18;
  cur_.co[set - 20000] = dba;
  cur_.cm[set - 20000] = 0;
  return 0;
}

int Database::csoread(int set, long field, void* buf) {
  if (!schema().set(set)) return -2;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(cur_.co[set - 20000], -8, &pg, &p, &rd);
  if (st != 0) return st;
  const FieldDesc* f = schema().field(field);
  if ((st = field_check(f, rd)) != 0) return st;
  std::memcpy(buf, p + rd->data_off + f->offset, f->size);
  return 0;
}

int Database::csowrite(int set, long field, const void* value) {
  if (!schema().set(set)) return -2;
  return write_field(cur_.co[set - 20000], field, value, -8);
}

int Database::connect(int set) {
  const SetDesc* sd = schema().set(set);
  if (!sd) return -2;
  if (!active_) return -31;
  int si = set - 20000;
  PageRef mpg;
  uint8_t* mp;
  const RecDesc* mrd;
  int st = cur_slot(cur_.cr, -7, &mpg, &mp, &mrd);
  if (st != 0) return st;
  if (!is_member_type(sd, mrd)) return -19;
  PageRef opg;
  uint8_t* op;
  const RecDesc* ord;
  DB_ADDR owner = cur_.co[si];
  if ((st = cur_slot(owner, -8, &opg, &op, &ord)) != 0) return st;
  int mo = mrd->member_off(si), oo = ord->owner_off(si);
  if (rd32(mp + mo) != 0) return -14;
  DB_ADDR m = cur_.cr, last = rd32(op + oo + 4);
  if ((st = mpg.dirty()) != 0 || (st = opg.dirty()) != 0) return st;
  if (last) {
    PageRef lpg;
    uint8_t* lp;
    const RecDesc* lrd;
    if ((st = live_slot(last, &lpg, &lp, &lrd)) != 0) return st == 6 ? -910 : st;
    if ((st = lpg.dirty()) != 0) return st;
    wr32(lp + lrd->member_off(si) + 8, m);
  } else {
    wr32(op + oo, m);
  }
  wr32(op + oo + 4, m);
  wr32(op + oo + 8, rd32(op + oo + 8) + 1);
  wr32(mp + mo, owner);
  wr32(mp + mo + 4, last);
  wr32(mp + mo + 8, 0);
  cur_.cm[si] = m;
  return 0;
}

int Database::discon(int set) {
  const SetDesc* sd = schema().set(set);
  if (!sd) return -2;
  if (!active_) return -31;
  int si = set - 20000;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(cur_.cm[si], 1, &pg, &p, &rd);
  if (st != 0) return st;
  if (!is_member_type(sd, rd) || rd32(p + rd->member_off(si)) == 0) return 1;
  if ((st = pg.dirty()) != 0) return st;
  if ((st = unlink(cur_.cm[si], p, rd, si)) != 0) return st;
  cur_.cm[si] = 0;
  return 0;
}

int Database::ismember(int set) {
  const SetDesc* sd = schema().set(set);
  if (!sd) return -2;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(cur_.cr, -7, &pg, &p, &rd);
  if (st != 0) return st;
  if (!is_member_type(sd, rd)) return 1;
  return rd32(p + rd->member_off(set - 20000)) != 0 ? 0 : 1;
}

// which: 0 first, 1 next, 2 last.
int Database::find_member(int set, int which) {
  const SetDesc* sd = schema().set(set);
  if (!sd) return -2;
  int si = set - 20000;
  PageRef opg;
  uint8_t* op;
  const RecDesc* ord;
  int st = cur_slot(cur_.co[si], -8, &opg, &op, &ord);
  if (st != 0) return st;
  int oo = ord->owner_off(si);
  DB_ADDR target;
  if (which == 1) {
    PageRef mpg;
    uint8_t* mp;
    const RecDesc* mrd;
    st = cur_slot(cur_.cm[si], 1, &mpg, &mp, &mrd);
    if (st < 0) return st;
    if (st == 0 && is_member_type(sd, mrd) && rd32(mp + mrd->member_off(si)) != 0)
      target = rd32(mp + mrd->member_off(si) + 8);
    else
      target = rd32(op + oo);  // no current member: start from the first
  } else {
    target = rd32(op + oo + (which == 0 ? 0 : 4));
  }
  if (target == 0) return 1;
  cur_.cr = cur_.cm[si] = target;
  return 0;
}

int Database::findfm(int set) { return find_member(set, 0); }
int Database::findnm(int set) { return find_member(set, 1); }
int Database::findlm(int set) { return find_member(set, 2); }

int Database::members(int set, long* count) {
  const SetDesc* sd = schema().set(set);
  if (!sd) return -2;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int si = set - 20000;
  int st = cur_slot(cur_.co[si], -8, &pg, &p, &rd);
  if (st != 0) return st;
  *count = (long)rd32(p + rd->owner_off(si) + 8);
  return 0;
}

// ---- keys -------------------------------------------------------------------------------------------------

static int key_index(long field) {
  const FieldDesc* f = schema().field(field);
  if (!f) return -5;
  return f->key >= 0 ? f->key : -17;
}

int Database::key_found(int key, long field, const uint8_t* entry, const Hint& h) {
  const KeyDesc& kd = schema().keys[key];
  KeyPos& kp = cur_.kp[key];
  kp.state = 1;
  std::memcpy(kp.entry, entry, kd.norm_len + 4);
  kp.hint = h;
  cur_.last_key = field;
  cur_.cr = getbe32(entry + kd.norm_len);
  return 0;
}

int Database::keyfind(long field, const void* value) {
  int k = key_index(field);
  if (k < 0) return k;
  if (!value) return -10;
  const KeyDesc& kd = schema().keys[k];
  uint8_t probe[kMaxNormKey + 4] = {}, out[kMaxNormKey + 4];
  key_norm_from_buffer(kd, static_cast<const uint8_t*>(value), probe);
  bool found;
  Hint h;
  int st = kt(k).seek_ge(probe, out, &found, &h);
  if (st != 0) return st;
  if (found && std::memcmp(out, probe, kd.norm_len) == 0) return key_found(k, field, out, h);
  KeyPos& kp = cur_.kp[k];
  kp.state = 2;
  std::memcpy(kp.entry, probe, kd.norm_len + 4);
  kp.hint = Hint();
  cur_.last_key = field;
  return 2;
}

int Database::keynext(long field) {
  int k = key_index(field);
  if (k < 0) return k;
  KeyPos& kp = cur_.kp[k];
  uint8_t out[kMaxNormKey + 4], from[kMaxNormKey + 4];
  bool found = false, used = false;
  Hint h = kp.hint;
  int st = 0;
  if (kp.state == 1) st = kt(k).step(1, &h, out, &found, &used);
  if (st != 0) return st;
  if (!used) {
    std::memcpy(from, kp.entry, sizeof from);
    if (kp.state == 0)
      st = kt(k).first(out, &found, &h);
    else if (kp.state == 1)
      st = kt(k).seek_gt(from, out, &found, &h);
    else
      st = kt(k).seek_ge(from, out, &found, &h);
    if (st != 0) return st;
  }
  if (!found) return 2;
  return key_found(k, field, out, h);
}

int Database::keyprev(long field) {
  int k = key_index(field);
  if (k < 0) return k;
  KeyPos& kp = cur_.kp[k];
  uint8_t out[kMaxNormKey + 4], from[kMaxNormKey + 4];
  bool found = false, used = false;
  Hint h = kp.hint;
  int st = 0;
  if (kp.state == 1) st = kt(k).step(-1, &h, out, &found, &used);
  if (st != 0) return st;
  if (!used) {
    std::memcpy(from, kp.entry, sizeof from);
    st = kp.state == 0 ? kt(k).last(out, &found, &h) : kt(k).seek_lt(from, out, &found, &h);
    if (st != 0) return st;
  }
  if (!found) return 2;
  return key_found(k, field, out, h);
}

int Database::keylast(long field) {
  int k = key_index(field);
  if (k < 0) return k;
  uint8_t out[kMaxNormKey + 4];
  bool found;
  Hint h;
  int st = kt(k).last(out, &found, &h);
  if (st != 0) return st;
  if (!found) return 2;
  return key_found(k, field, out, h);
}

int Database::keystore(long field) {
  int k = key_index(field);
  if (k < 0) return k;
  if (!active_) return -31;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(cur_.cr, -7, &pg, &p, &rd);
  if (st != 0) return st;
  const KeyDesc& kd = schema().keys[k];
  if (kd.rec != rd->number - 10000) return -38;
  if (!kd.optional) return -37;
  if (key_stored(kd, p)) return 0;
  uint8_t e[kMaxNormKey + 4];
  key_norm_from_record(kd, p + rd->data_off, e);
  if (kd.unique) {
    bool clash;
    if ((st = probe_unique(k, e, cur_.cr, &clash)) != 0) return st;
    if (clash) return 3;
  }
  be32(e + kd.norm_len, cur_.cr);
  if ((st = kt(k).insert(e)) != 0) return st;
  if ((st = pg.dirty()) != 0) return st;
  p[1] = (uint8_t)(p[1] | 1 << kd.opt_bit);
  return 0;
}

int Database::keydel(long field) {
  int k = key_index(field);
  if (k < 0) return k;
  if (!active_) return -31;
  PageRef pg;
  uint8_t* p;
  const RecDesc* rd;
  int st = cur_slot(cur_.cr, -7, &pg, &p, &rd);
  if (st != 0) return st;
  const KeyDesc& kd = schema().keys[k];
  if (kd.rec != rd->number - 10000) return -38;
  if (!kd.optional) return -37;
  if (!key_stored(kd, p)) return 0;
  uint8_t e[kMaxNormKey + 4];
  key_norm_from_record(kd, p + rd->data_off, e);
  be32(e + kd.norm_len, cur_.cr);
  st = kt(k).erase(e);
  if (st != 0) return st == 2 ? -910 : st;
  if ((st = pg.dirty()) != 0) return st;
  p[1] = (uint8_t)(p[1] & ~(1 << kd.opt_bit));
  return 0;
}

int Database::keyread(void* buf) {
  if (cur_.last_key < 0) return -7;
  int k = key_index(cur_.last_key);
  if (k < 0) return k;
  const KeyPos& kp = cur_.kp[k];
  if (kp.state != 1) return -7;
  key_buffer_from_norm(schema().keys[k], kp.entry, static_cast<uint8_t*>(buf));
  return 0;
}

}  // namespace tavrel::rec
