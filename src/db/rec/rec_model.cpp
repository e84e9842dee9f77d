#include "db/rec/rec_model.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "db/rec/test_util.h"

using tavrel::rec::FieldDesc;
using tavrel::rec::FType;
using tavrel::rec::KeyDesc;
using tavrel::rec::schema;

namespace rectest {
namespace {
int rec_of(DB_ADDR d) { return (int)(d >> 26); }
uint32_t slot_of(DB_ADDR d) { return d & ((1u << 26) - 1); }

KeyPart decode(FType t, const uint8_t* p, uint16_t size) {
  KeyPart k;
  if (t == FType::U32) {
    uint32_t v;
    memcpy(&v, p, 4);
    k.n = v;
  } else if (t == FType::I32) {
    int32_t v;
    memcpy(&v, p, 4);
    k.n = v;
  } else if (t == FType::U16) {
    uint16_t v;
    memcpy(&v, p, 2);
    k.n = v;
  } else {
    k.num = false;
    k.b.assign(reinterpret_cast<const char*>(p), size);
  }
  return k;
}

void encode(FType t, const KeyPart& k, uint8_t* p, uint16_t size) {
  if (t == FType::U32 || t == FType::I32) {
    uint32_t v = (uint32_t)k.n;
    memcpy(p, &v, 4);
  } else if (t == FType::U16) {
    uint16_t v = (uint16_t)k.n;
    memcpy(p, &v, 2);
  } else {
    memcpy(p, k.b.data(), size);
  }
}

int cmp_entry(const std::pair<KeyVal, DB_ADDR>& a, const KeyVal& k, DB_ADDR d) {
  int c = a.first.cmp(k);
  if (c != 0) return c;
  return a.second < d ? -1 : a.second > d ? 1 : 0;
}
}  // namespace

int KeyVal::cmp(const KeyVal& o) const {
  for (size_t i = 0; i < parts.size() && i < o.parts.size(); i++) {
    const KeyPart &a = parts[i], &b = o.parts[i];
    if (a.num) {
      if (a.n != b.n) return a.n < b.n ? -1 : 1;
    } else {
      int c = memcmp(a.b.data(), b.b.data(), a.b.size());
      if (c != 0) return c < 0 ? -1 : 1;
    }
  }
  return 0;
}

const Model::Row* Model::row(DB_ADDR d) const {
  auto it = s_.rows.find(d);
  return it == s_.rows.end() ? nullptr : &it->second;
}
Model::Row* Model::row(DB_ADDR d) {
  auto it = s_.rows.find(d);
  return it == s_.rows.end() ? nullptr : &it->second;
}

int Model::classify(DB_ADDR d) const {
  int r = rec_of(d);
  if (r >= TAVREL_DB_NUM_RECORDS || slot_of(d) == 0 || slot_of(d) > s_.hw[r]) return -6;
  return live(d) ? 0 : 6;
}

bool Model::stored(const Row& r, int key) const {
  const KeyDesc& k = schema().keys[key];
  return !k.optional || (r.optmask >> k.opt_bit & 1);
}

KeyVal Model::key_of_row(int key, const Row& r) const {
  const KeyDesc& k = schema().keys[key];
  KeyVal v;
  for (int i = 0; i < k.nparts; i++) {
    const FieldDesc* f = schema().field(k.parts[i]);
    v.parts.push_back(decode(f->type, r.data.data() + f->offset, f->size));
  }
  return v;
}

KeyVal Model::key_of_buffer(int key, const uint8_t* buf) const {
  const KeyDesc& k = schema().keys[key];
  KeyVal v;
  for (int i = 0; i < k.nparts; i++) {
    const FieldDesc* f = schema().field(k.parts[i]);
    v.parts.push_back(decode(f->type, buf + k.buf_off[i], f->size));
  }
  return v;
}

std::vector<std::pair<KeyVal, DB_ADDR>> Model::entries(int key) const {
  const KeyDesc& k = schema().keys[key];
  std::vector<std::pair<KeyVal, DB_ADDR>> out;
  for (const auto& [d, r] : s_.rows)
    if (r.rec == k.rec && stored(r, key)) out.push_back({key_of_row(key, r), d});
  std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return cmp_entry(a, b.first, b.second) < 0; });
  return out;
}

bool Model::unique_clash(int key, const KeyVal& v, DB_ADDR self) const {
  for (const auto& [kv, d] : entries(key))
    if (d != self && kv.cmp(v) == 0) return true;
  return false;
}

int Model::key_index(long field) const {
  const FieldDesc* f = schema().field(field);
  if (!f) return -5;
  return f->key >= 0 ? f->key : -17;
}

bool Model::member_type(int set, int rec) const {
  const auto& sd = schema().sets[set];
  for (int m = 0; m < sd.nmembers; m++)
    if (sd.members[m] == rec) return true;
  return false;
}

int Model::field_check(long field, const Row& r, const FieldDesc** f) const {
  *f = schema().field(field);
  if (!*f) return -5;
  if ((*f)->number / 1000 != r.rec) return -38;
  if ((*f)->type == FType::KEY) return -15;
  return 0;
}

// ---- rows -------------------------------------------------------------------------------------------------

int Model::fillnew(int rec, const uint8_t* data, DB_ADDR engine_dba) {
  const auto* rd = schema().rec(rec);
  if (!rd) return -3;
  if (!tx_) return -31;
  int ri = rec - 10000;
  Row r{ri, std::vector<uint8_t>(data, data + rd->size), 0, {}};
  for (int k : rd->keys) {
    const KeyDesc& kd = schema().keys[k];
    if (!kd.optional && kd.unique && unique_clash(k, key_of_row(k, r), 0)) return 3;
  }
  if (engine_dba == 0) return 0;  // the caller compares statuses first
  if (rec_of(engine_dba) != ri || slot_of(engine_dba) == 0 || live(engine_dba) || freed_in_tx_.count(engine_dba))
    return kBadDba;
  s_.rows[engine_dba] = r;
  s_.hw[ri] = std::max(s_.hw[ri], slot_of(engine_dba));
  cur.cr = engine_dba;
  return 0;
}

int Model::recread(std::vector<uint8_t>* out) {
  if (!live(cur.cr)) return -7;
  *out = row(cur.cr)->data;
  return 0;
}

int Model::write_row(DB_ADDR d, const std::vector<uint8_t>& data) {
  Row* r = row(d);
  Row n = *r;
  n.data = data;
  for (int k : schema().rec(10000 + r->rec)->keys) {
    if (!stored(*r, k) || !schema().keys[k].unique) continue;
    KeyVal nv = key_of_row(k, n);
    if (nv.cmp(key_of_row(k, *r)) != 0 && unique_clash(k, nv, d)) return 3;
  }
  r->data = data;
  return 0;
}

int Model::recwrite(const uint8_t* data) {
  if (!tx_) return -31;
  if (!live(cur.cr)) return -7;
  Row* r = row(cur.cr);
  return write_row(cur.cr, std::vector<uint8_t>(data, data + r->data.size()));
}

int Model::crread(long field, std::vector<uint8_t>* out) {
  if (!live(cur.cr)) return -7;
  const FieldDesc* f;
  int st = field_check(field, *row(cur.cr), &f);
  if (st != 0) return st;
  const Row* r = row(cur.cr);
  out->assign(r->data.begin() + f->offset, r->data.begin() + f->offset + f->size);
  return 0;
}

int Model::crwrite(long field, const uint8_t* value) {
  if (!tx_) return -31;
  if (!live(cur.cr)) return -7;
  const FieldDesc* f;
  int st = field_check(field, *row(cur.cr), &f);
  if (st != 0) return st;
  std::vector<uint8_t> d = row(cur.cr)->data;
  memcpy(d.data() + f->offset, value, f->size);
  return write_row(cur.cr, d);
}

int Model::crget(DB_ADDR* out) {
  if (cur.cr == 0) return -7;
  *out = cur.cr;
  return 0;
}

int Model::crset(DB_ADDR dba) {
  int c = classify(dba);
  if (c != 0) return c;
  cur.cr = dba;
  return 0;
}

int Model::crtype(int* rec) {
  if (cur.cr == 0) return -7;
  *rec = 10000 + rec_of(cur.cr);
  return 0;
}

void Model::unlink(DB_ADDR d, int set) {
  Row* r = row(d);
  auto it = r->owner.find(set);
  if (it == r->owner.end()) return;
  auto& v = s_.members[{it->second, set}];
  v.erase(std::find(v.begin(), v.end(), d));
  r->owner.erase(it);
}

void Model::forget(DB_ADDR d) {
  s_.rows.erase(d);
  freed_in_tx_.insert(d);
  if (cur.cr == d) cur.cr = 0;
  for (int i = 0; i < TAVREL_DB_NUM_SETS; i++) {
    if (cur.co[i] == d) cur.co[i] = 0;
    if (cur.cm[i] == d) cur.cm[i] = 0;
  }
}

int Model::disdel() {
  if (!tx_) return -31;
  if (!live(cur.cr)) return -7;
  DB_ADDR d = cur.cr;
  for (int set : schema().recs[row(d)->rec].owned_sets) {
    auto it = s_.members.find({d, set});
    if (it != s_.members.end() && !it->second.empty()) return -12;
  }
  while (!row(d)->owner.empty()) unlink(d, row(d)->owner.begin()->first);
  forget(d);
  return 0;
}

int Model::del() {
  if (!tx_) return -31;
  if (!live(cur.cr)) return -7;
  DB_ADDR d = cur.cr;
  if (!row(d)->owner.empty()) return -13;
  for (int set : schema().recs[row(d)->rec].owned_sets) {
    auto it = s_.members.find({d, set});
    if (it != s_.members.end() && !it->second.empty()) return -12;
  }
  forget(d);
  return 0;
}

int Model::recfrst(int rec) {
  if (!schema().rec(rec)) return -3;
  cur.scan_rec = rec - 10000;
  cur.scan = (DB_ADDR)cur.scan_rec << 26;
  return recnext();
}

int Model::recnext() {
  if (cur.scan_rec < 0) return -46;
  auto it = s_.rows.upper_bound(cur.scan);
  if (it == s_.rows.end() || rec_of(it->first) != cur.scan_rec) return 2;
  cur.scan = cur.cr = it->first;
  return 0;
}

int Model::recset(int rec) {
  if (!schema().rec(rec)) return -3;
  if (!live(cur.cr)) return -7;
  if (rec_of(cur.cr) != rec - 10000) return -3;
  cur.scan_rec = rec - 10000;
  cur.scan = cur.cr;
  return 0;
}

// ---- sets -------------------------------------------------------------------------------------------------

#define SET_INDEX(set)                     \
  if (!schema().set(set)) return -2;       \
  int si = (set)-20000;                    \
  const auto& sd = schema().sets[si];      \
  (void)sd

int Model::setor(int set) {
  SET_INDEX(set);
  if (!live(cur.cr)) return -7;
  if (row(cur.cr)->rec != sd.owner) return -18;
  cur.co[si] = cur.cr;
  cur.cm[si] = 0;
  return 0;
}

int Model::setro(int set) {
  SET_INDEX(set);
  if (!live(cur.co[si])) return -8;
  cur.cr = cur.co[si];
  return 0;
}

int Model::setmr(int set) {
  SET_INDEX(set);
  if (!live(cur.cr)) return -7;
  const Row* r = row(cur.cr);
  if (!member_type(si, r->rec)) return -19;
  auto it = r->owner.find(si);
  if (it == r->owner.end()) return -16;
  cur.cm[si] = cur.cr;
  cur.co[si] = it->second;
  return 0;
}

int Model::setmo(int a, int b) {
  if (!schema().set(a) || !schema().set(b)) return -2;
  int ai = a - 20000, bi = b - 20000;
  DB_ADDR d = cur.co[bi];
  if (!live(d)) return -8;
  const Row* r = row(d);
  if (!member_type(ai, r->rec)) return -19;
  auto it = r->owner.find(ai);
  if (it == r->owner.end()) return -16;
  cur.cm[ai] = d;
  cur.co[ai] = it->second;
  return 0;
}

int Model::setoo(int a, int b) {
  if (!schema().set(a) || !schema().set(b)) return -2;
  int ai = a - 20000, bi = b - 20000;
  DB_ADDR d = cur.co[bi];
  if (!live(d)) return -8;
  if (row(d)->rec != schema().sets[ai].owner) return -18;
  cur.co[ai] = d;
  cur.cm[ai] = 0;
  return 0;
}

int Model::csoget(int set, DB_ADDR* out) {
  SET_INDEX(set);
  if (cur.co[si] == 0) return -8;
  *out = cur.co[si];
  return 0;
}

int Model::csoset(int set, DB_ADDR dba) {
  SET_INDEX(set);
  int c = classify(dba);
  if (c != 0) return c;
  if (row(dba)->rec != sd.owner) return -18;
  cur.co[si] = dba;
  cur.cm[si] = 0;
  return 0;
}

int Model::csoread(int set, long field, std::vector<uint8_t>* out) {
  SET_INDEX(set);
  if (!live(cur.co[si])) return -8;
  const FieldDesc* f;
  int st = field_check(field, *row(cur.co[si]), &f);
  if (st != 0) return st;
  const Row* r = row(cur.co[si]);
  out->assign(r->data.begin() + f->offset, r->data.begin() + f->offset + f->size);
  return 0;
}

int Model::csowrite(int set, long field, const uint8_t* value) {
  SET_INDEX(set);
  if (!tx_) return -31;
  if (!live(cur.co[si])) return -8;
  const FieldDesc* f;
  int st = field_check(field, *row(cur.co[si]), &f);
  if (st != 0) return st;
  std::vector<uint8_t> d = row(cur.co[si])->data;
  memcpy(d.data() + f->offset, value, f->size);
  return write_row(cur.co[si], d);
}

int Model::connect(int set) {
  SET_INDEX(set);
  if (!tx_) return -31;
  if (!live(cur.cr)) return -7;
  Row* r = row(cur.cr);
  if (!member_type(si, r->rec)) return -19;
  if (!live(cur.co[si])) return -8;
  if (r->owner.count(si)) return -14;
  r->owner[si] = cur.co[si];
  s_.members[{cur.co[si], si}].push_back(cur.cr);
  cur.cm[si] = cur.cr;
  return 0;
}

int Model::discon(int set) {
  SET_INDEX(set);
  if (!tx_) return -31;
  DB_ADDR d = cur.cm[si];
  if (!live(d)) return 1;
  if (!member_type(si, row(d)->rec) || !row(d)->owner.count(si)) return 1;
  unlink(d, si);
  cur.cm[si] = 0;
  return 0;
}

int Model::ismember(int set) {
  SET_INDEX(set);
  if (!live(cur.cr)) return -7;
  const Row* r = row(cur.cr);
  if (!member_type(si, r->rec)) return 1;
  return r->owner.count(si) ? 0 : 1;
}

int Model::findfm(int set) {
  SET_INDEX(set);
  if (!live(cur.co[si])) return -8;
  const auto& v = s_.members[{cur.co[si], si}];
  if (v.empty()) return 1;
  cur.cr = cur.cm[si] = v.front();
  return 0;
}

int Model::findlm(int set) {
  SET_INDEX(set);
  if (!live(cur.co[si])) return -8;
  const auto& v = s_.members[{cur.co[si], si}];
  if (v.empty()) return 1;
  cur.cr = cur.cm[si] = v.back();
  return 0;
}

int Model::findnm(int set) {
  SET_INDEX(set);
  if (!live(cur.co[si])) return -8;
  DB_ADDR m = cur.cm[si];
  if (live(m) && member_type(si, row(m)->rec) && row(m)->owner.count(si)) {
    const auto& v = s_.members[{row(m)->owner.at(si), si}];
    auto it = std::find(v.begin(), v.end(), m);
    if (++it == v.end()) return 1;
    cur.cr = cur.cm[si] = *it;
    return 0;
  }
  return findfm(set);
}

int Model::members(int set, long* n) {
  SET_INDEX(set);
  if (!live(cur.co[si])) return -8;
  *n = (long)s_.members[{cur.co[si], si}].size();
  return 0;
}

// ---- keys -------------------------------------------------------------------------------------------------

int Model::keyfind(long field, const uint8_t* value) {
  int k = key_index(field);
  if (k < 0) return k;
  KeyVal v = key_of_buffer(k, value);
  cur.last_key = field;
  for (const auto& [kv, d] : entries(k)) {
    if (kv.cmp(v) == 0) {
      cur.kp[k] = {1, kv, d};
      cur.cr = d;
      return 0;
    }
  }
  cur.kp[k] = {2, v, 0};
  return 2;
}

int Model::keynext(long field) {
  int k = key_index(field);
  if (k < 0) return k;
  Pos& p = cur.kp[k];
  for (const auto& e : entries(k)) {
    int c = p.state == 0 ? 1 : cmp_entry(e, p.key, p.dba);
    if (c > 0 || (c == 0 && p.state == 2)) {
      p = {1, e.first, e.second};
      cur.cr = e.second;
      cur.last_key = field;
      return 0;
    }
  }
  return 2;
}

int Model::keyprev(long field) {
  int k = key_index(field);
  if (k < 0) return k;
  Pos& p = cur.kp[k];
  auto es = entries(k);
  for (auto it = es.rbegin(); it != es.rend(); ++it) {
    if (p.state == 0 || cmp_entry(*it, p.key, p.dba) < 0) {
      p = {1, it->first, it->second};
      cur.cr = it->second;
      cur.last_key = field;
      return 0;
    }
  }
  return 2;
}

int Model::keylast(long field) {
  int k = key_index(field);
  if (k < 0) return k;
  auto es = entries(k);
  if (es.empty()) return 2;
  cur.kp[k] = {1, es.back().first, es.back().second};
  cur.cr = es.back().second;
  cur.last_key = field;
  return 0;
}

int Model::keystore(long field) {
  int k = key_index(field);
  if (k < 0) return k;
  if (!tx_) return -31;
  if (!live(cur.cr)) return -7;
  const KeyDesc& kd = schema().keys[k];
  Row* r = row(cur.cr);
  if (kd.rec != r->rec) return -38;
  if (!kd.optional) return -37;
  r->optmask |= 1u << kd.opt_bit;
  return 0;
}

int Model::keydel(long field) {
  int k = key_index(field);
  if (k < 0) return k;
  if (!tx_) return -31;
  if (!live(cur.cr)) return -7;
  const KeyDesc& kd = schema().keys[k];
  Row* r = row(cur.cr);
  if (kd.rec != r->rec) return -38;
  if (!kd.optional) return -37;
  r->optmask &= ~(1u << kd.opt_bit);
  return 0;
}

int Model::keyread(std::vector<uint8_t>* out) {
  if (cur.last_key < 0) return -7;
  int k = key_index(cur.last_key);
  const Pos& p = cur.kp[k];
  if (p.state != 1) return -7;
  const KeyDesc& kd = schema().keys[k];
  out->assign(kd.buf_len, 0);
  for (int i = 0; i < kd.nparts; i++) {
    const FieldDesc* f = schema().field(kd.parts[i]);
    encode(f->type, p.key.parts[i], out->data() + kd.buf_off[i], f->size);
  }
  return 0;
}

// ---- transactions -----------------------------------------------------------------------------------------

int Model::trbegin() {
  if (tx_) return -26;
  tx_ = true;
  saved_ = s_;
  freed_in_tx_.clear();
  return 0;
}

int Model::trend() {
  if (!tx_) return -27;
  tx_ = false;
  freed_in_tx_.clear();
  return 0;
}

int Model::trabort() {
  if (!tx_) return -27;
  tx_ = false;
  s_ = saved_;
  freed_in_tx_.clear();
  cur = Cur();
  return 0;
}

// ---- inspection -------------------------------------------------------------------------------------------

std::vector<DB_ADDR> Model::rows_of(int rec_index) const {
  std::vector<DB_ADDR> out;
  for (const auto& [d, r] : s_.rows)
    if (r.rec == rec_index) out.push_back(d);
  return out;
}

const std::vector<uint8_t>* Model::row_data(DB_ADDR dba) const {
  const Row* r = row(dba);
  return r ? &r->data : nullptr;
}

std::string Model::dump() const {
  const auto& s = schema();
  std::ostringstream out;
  for (const auto& [d, r] : s_.rows) {
    const auto& rd = s.recs[r.rec];
    out << rd.name << " " << std::hex << d << std::dec << " " << hex(r.data.data(), r.data.size()) << "\n";
    for (int set : rd.owned_sets) {
      auto it = s_.members.find({d, set});
      size_t n = it == s_.members.end() ? 0 : it->second.size();
      out << "  set " << s.sets[set].name << " n=" << n << ":";
      if (n)
        for (DB_ADDR m : it->second) out << " " << std::hex << m << std::dec;
      out << "\n";
    }
  }
  for (size_t k = 0; k < s.keys.size(); k++) {
    const KeyDesc& kd = s.keys[k];
    out << "key " << kd.field << ":";
    for (const auto& [kv, d] : entries((int)k)) {
      std::vector<uint8_t> buf(kd.buf_len, 0);
      for (int i = 0; i < kd.nparts; i++) {
        const FieldDesc* f = s.field(kd.parts[i]);
        encode(f->type, kv.parts[i], buf.data() + kd.buf_off[i], f->size);
      }
      out << " " << hex(buf.data(), buf.size()) << "@" << std::hex << d << std::dec;
    }
    out << "\n";
  }
  return out.str();
}

}  // namespace rectest
