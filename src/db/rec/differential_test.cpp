// Randomised differential test: seeded programs of thousands of dt_ calls run against the engine (tiny
// pages and an 8-frame cache, so splits, evictions and spills happen all the time) and against the naive
// model (rec_model.h). Every status, every output and the current record after every call must agree;
// after every commit and abort the engine's invariant checker runs and the whole database is compared
// with the model's. A failure prints the seed and the last calls.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <deque>
#include <random>
#include <sstream>

#include "db/rec/dt.h"
#include "db/rec/io.h"
#include "db/rec/rec_model.h"
#include "db/rec/test_util.h"

using tavrel::rec::FieldDesc;
using tavrel::rec::FType;
using tavrel::rec::schema;

namespace {

class Differential {
 public:
  Differential(uint64_t seed, int page_size, int frames) : seed_(seed), rng_(seed), ps_(page_size), frames_(frames) {}

  // Runs `ops` calls; returns "" or a description of the first disagreement.
  std::string run(int ops) {
    if (dt_opentask(&t_) != 0) return "opentask";
    if (rectest::open_db(t_, dir_.path(), ps_, frames_) != 0) return "open";
    std::string err;
    for (n_ = 0; n_ < ops && err.empty(); n_++) err = step();
    if (err.empty() && m_.in_tx()) err = commit_or_abort(true);
    for (auto& b : blocks_) free(b.first);
    blocks_.clear();
    dt_closetask(t_);
    if (!err.empty()) {
      std::ostringstream o;
      o << "seed " << seed_ << " (page " << ps_ << ", frames " << frames_ << "), call " << n_ << ": " << err
        << "\nlast calls:\n";
      for (const auto& l : trace_) o << "  " << l << "\n";
      return o.str();
    }
    return "";
  }

 private:
  uint32_t pick(uint32_t n) { return (uint32_t)(rng_() % n); }
  bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(rng_) < p; }

  void note(const std::string& s) {
    trace_.push_back(s);
    if (trace_.size() > 40) trace_.pop_front();
  }

  void fill_value(FType t, uint8_t* p, uint16_t size) {
    if (t == FType::U32) {
      static const uint32_t odd[] = {0xffffffffu, 0x80000000u, 0x100u, 0xffu};
      uint32_t v = chance(0.8) ? pick(6) : chance(0.5) ? odd[pick(4)] : (uint32_t)rng_();
      memcpy(p, &v, 4);
    } else if (t == FType::I32) {
      static const int32_t odd[] = {INT_MIN, INT_MAX, -256, 256};
      int32_t v = chance(0.7) ? (int32_t)pick(5) - 2 : chance(0.6) ? odd[pick(4)] : (int32_t)rng_();
      memcpy(p, &v, 4);
    } else if (t == FType::U16) {
      uint16_t v = chance(0.8) ? (uint16_t)pick(4) : chance(0.5) ? 0xffff : 0x100;
      memcpy(p, &v, 2);
    } else if (t == FType::BYTES) {
      memset(p, 0, size);
      switch (pick(4)) {
        case 1: memset(p, 1, size); break;
        case 2: p[0] = 0x80; break;
        case 3: p[size - 1] = 0xff; break;
      }
    } else {
      for (int i = 0; i < size; i++) p[i] = (uint8_t)rng_();
    }
  }

  std::vector<uint8_t> random_record(int ri) {
    const auto& rd = schema().recs[ri];
    std::vector<uint8_t> d(rd.size, 0);
    for (const FieldDesc& f : rd.fields)
      if (f.type != FType::KEY && f.type != FType::STRUCT) fill_value(f.type, d.data() + f.offset, f.size);
    return d;
  }

  int random_rec() {
    static const int pool[] = {17, 17, 15, 15, 14, 14, 14, 13, 13, 16, 18, 18, 3, 3, 1, 2, 2, 4, 5, 5, 8, 8, 9, 10, 11, 0, 12, 6, 7, 19};
    return pool[pick(sizeof pool / sizeof pool[0])];
  }

  DB_ADDR random_dba() {
    if (dbas_.empty() || chance(0.05)) {
      switch (pick(3)) {
        case 0: return (DB_ADDR)25 << 26 | 1;
        case 1: return (DB_ADDR)(random_rec()) << 26;
        default: return (DB_ADDR)(random_rec()) << 26 | 5000;
      }
    }
    return dbas_[pick((uint32_t)dbas_.size())];
  }

  int cr_rec() {
    DB_ADDR d = m_.cur.cr;
    return d && m_.row_data(d) ? (int)(d >> 26) : -1;
  }

  long random_field() {
    int r = cr_rec();
    if (r >= 0 && chance(0.85)) {
      const auto& rd = schema().recs[r];
      return rd.fields[pick((uint32_t)rd.fields.size())].number;
    }
    if (chance(0.05)) return 99999;
    const auto& rd = schema().recs[random_rec()];
    return rd.fields[pick((uint32_t)rd.fields.size())].number;
  }

  int random_set() {
    int r = cr_rec();
    if (r >= 0 && chance(0.85)) {
      const auto& rd = schema().recs[r];
      std::vector<int> sets(rd.owned_sets);
      sets.insert(sets.end(), rd.member_sets.begin(), rd.member_sets.end());
      if (!sets.empty()) return 20000 + sets[pick((uint32_t)sets.size())];
    }
    return chance(0.03) ? 20011 : 20000 + (int)pick(TAVREL_DB_NUM_SETS);
  }

  long random_key() {
    if (chance(0.03)) return chance(0.5) ? 99999L : (long)SILO_PATH;
    const auto& keys = schema().keys;
    int r = cr_rec();
    if (r >= 0 && chance(0.5)) {
      const auto& rk = schema().recs[r].keys;
      if (!rk.empty()) return keys[rk[pick((uint32_t)rk.size())]].field;
    }
    return keys[pick((uint32_t)keys.size())].field;
  }

  // A value for field `f` (a nested struct is filled as plain bytes; a key field stays zero).
  std::vector<uint8_t> field_value(long f) {
    std::vector<uint8_t> v(256, 0);
    const FieldDesc* fd = schema().field(f);
    if (fd && fd->type != FType::KEY) fill_value(fd->type == FType::STRUCT ? FType::CHARS : FType(fd->type), v.data(), fd->size);
    return v;
  }

  std::vector<uint8_t> key_value(long field) {
    std::vector<uint8_t> buf(32, 0);
    int k = schema().key_of(field);
    if (k < 0) return buf;
    const auto& kd = schema().keys[k];
    auto rows = m_.rows_of(kd.rec);
    const std::vector<uint8_t>* src = nullptr;
    if (!rows.empty() && chance(0.6)) src = m_.row_data(rows[pick((uint32_t)rows.size())]);
    for (int i = 0; i < kd.nparts; i++) {
      const FieldDesc* f = schema().field(kd.parts[i]);
      if (src)
        memcpy(buf.data() + kd.buf_off[i], src->data() + f->offset, f->size);
      else
        fill_value(f->type, buf.data() + kd.buf_off[i], f->size);
    }
    return buf;
  }

  std::string check_cr() {
    DB_ADDR a = 0, b = 0;
    int sa = dt_crget(&a, t_, -1), sb = m_.crget(&b);
    if (sa != sb || a != b) {
      std::ostringstream o;
      o << "current record: engine " << sa << "/" << std::hex << a << " model " << std::dec << sb << "/" << std::hex << b;
      return o.str();
    }
    return "";
  }

  std::string same(const char* what, int se, int sm) {
    if (se == sm) return "";
    std::ostringstream o;
    o << what << ": engine " << se << " model " << sm;
    return o.str();
  }

  std::string compare_all() {
    std::string why;
    if (dt_check(&why, t_) != 0) return "checker: " + why;
    std::string de = rectest::dump(t_), dm = m_.dump();
    std::istringstream a(de), b(dm);
    std::string la, lb;
    for (int line = 1; de != dm; line++) {
      la.clear(), lb.clear();
      bool ga = (bool)std::getline(a, la), gb = (bool)std::getline(b, lb);
      if (ga != gb || la != lb) return "dump differs at line " + std::to_string(line) + "\n engine: " + la + "\n model:  " + lb;
    }
    return "";
  }

  std::string commit_or_abort(bool commit) {
    int se = commit ? dt_trend(t_) : dt_trabort(t_);
    int sm = commit ? m_.trend() : m_.trabort();
    note(commit ? "trend" : "trabort");
    std::string e = same(commit ? "trend" : "trabort", se, sm);
    return e.empty() ? compare_all() : e;
  }

  std::string bulk() {
    // A large transaction: many rows and connects, far more pages than the cache holds.
    int ri = chance(0.5) ? 14 : 15;
    int owner_set = ri == 14 ? VNS_DIR_ENT_SET : VNS_ELEM_VER_SET;
    int owner_rec = ri == 14 ? 13 : 17;
    int n = 60 + (int)pick(120);
    note("bulk " + std::to_string(n) + " rows of " + std::to_string(ri));
    auto od = random_record(owner_rec);
    int se = dt_fillnew(10000 + owner_rec, od.data(), t_, -1);
    DB_ADDR d = 0;
    if (se == 0) dt_crget(&d, t_, -1);
    int sm = m_.fillnew(10000 + owner_rec, od.data(), d);
    if (se != sm) return same("bulk owner", se, sm);
    if (se != 0) return "";
    dbas_.push_back(d);
    se = dt_setor(owner_set, t_, -1);
    sm = m_.setor(owner_set);
    if (se != sm) return same("bulk setor", se, sm);
    for (int i = 0; i < n; i++) {
      auto rd = random_record(ri);
      se = dt_fillnew(10000 + ri, rd.data(), t_, -1);
      DB_ADDR m = 0;
      if (se == 0) dt_crget(&m, t_, -1);
      sm = m_.fillnew(10000 + ri, rd.data(), m);
      if (se != sm) return same("bulk fillnew", se, sm);
      if (se != 0) continue;
      dbas_.push_back(m);
      se = dt_connect(owner_set, t_, -1);
      sm = m_.connect(owner_set);
      if (se != sm) return same("bulk connect", se, sm);
    }
    return "";
  }

  std::string step() {
    std::ostringstream o;
    if (!m_.in_tx()) {
      if (chance(0.05)) {
        note("reopen");
        int se = dt_close(t_);
        if (se != 0) return same("close", se, 0);
        se = rectest::open_db(t_, dir_.path(), ps_, frames_);
        if (se != 0) return same("reopen", se, 0);
        m_.reopen();
        return compare_all();
      }
      if (chance(0.5)) {
        note("trbegin");
        return same("trbegin", dt_trbegin("t", t_), m_.trbegin());
      }
    } else {
      if (chance(0.03)) return commit_or_abort(true);
      if (chance(0.012)) return commit_or_abort(false);
      if (chance(0.004)) return bulk();
    }
    int se = 0, sm = 0;
    std::string err;
    std::vector<uint8_t> oe(512), om;
    uint32_t op = pick(100);
    if (op < 16) {
      int ri = random_rec();
      auto d = random_record(ri);
      se = dt_fillnew(10000 + ri, d.data(), t_, -1);
      DB_ADDR dba = 0;
      if (se == 0) dt_crget(&dba, t_, -1);
      sm = m_.fillnew(10000 + ri, d.data(), dba);
      if (se == 0) dbas_.push_back(dba);
      o << "fillnew " << ri << " -> " << std::hex << dba;
    } else if (op < 22) {
      DB_ADDR d = random_dba();
      se = dt_crset(&d, t_, -1);
      sm = m_.crset(d);
      o << "crset " << std::hex << d;
    } else if (op < 25) {
      se = dt_recread(oe.data(), t_, -1);
      sm = m_.recread(&om);
      if (se == 0 && sm == 0 && memcmp(oe.data(), om.data(), om.size()) != 0) err = "recread data";
      o << "recread";
    } else if (op < 28) {
      long f = random_field();
      se = dt_crread(f, oe.data(), t_, -1);
      sm = m_.crread(f, &om);
      if (se == 0 && sm == 0 && memcmp(oe.data(), om.data(), om.size()) != 0) err = "crread data";
      o << "crread " << f;
    } else if (op < 32) {
      int r = cr_rec();
      auto d = random_record(r >= 0 ? r : 0);
      se = dt_recwrite(d.data(), t_, -1);
      sm = m_.recwrite(d.data());
      o << "recwrite";
    } else if (op < 36) {
      long f = random_field();
      auto v = field_value(f);
      se = dt_crwrite(f, v.data(), t_, -1);
      sm = m_.crwrite(f, v.data());
      o << "crwrite " << f;
    } else if (op < 38) {
      int re = 0, rm = 0;
      se = dt_crtype(&re, t_, -1);
      sm = m_.crtype(&rm);
      if (se == 0 && re != rm) err = "crtype value";
      o << "crtype";
    } else if (op < 42) {
      se = op < 41 ? dt_disdel(t_, -1) : dt_delete(t_, -1);
      sm = op < 41 ? m_.disdel() : m_.del();
      o << (op < 41 ? "disdel" : "delete");
    } else if (op < 44) {
      int r = 10000 + random_rec();
      se = dt_recfrst(r, t_, -1);
      sm = m_.recfrst(r);
      o << "recfrst " << r;
    } else if (op < 47) {
      se = dt_recnext(t_, -1);
      sm = m_.recnext();
      o << "recnext";
    } else if (op < 48) {
      int r = cr_rec() >= 0 && chance(0.8) ? 10000 + cr_rec() : 10000 + random_rec();
      se = dt_recset(r, t_, -1);
      sm = m_.recset(r);
      o << "recset " << r;
    } else if (op < 55) {
      int s = random_set(), which = op < 52 ? 0 : op < 53 ? 1 : 2;
      se = which == 0 ? dt_setor(s, t_, -1) : which == 1 ? dt_setro(s, t_, -1) : dt_setmr(s, t_, -1);
      sm = which == 0 ? m_.setor(s) : which == 1 ? m_.setro(s) : m_.setmr(s);
      o << (which == 0 ? "setor " : which == 1 ? "setro " : "setmr ") << s;
    } else if (op < 57) {
      int a = random_set(), b = random_set();
      se = op < 56 ? dt_setmo(a, b, t_, -1) : dt_setoo(a, b, t_, -1);
      sm = op < 56 ? m_.setmo(a, b) : m_.setoo(a, b);
      o << (op < 56 ? "setmo " : "setoo ") << a << " " << b;
    } else if (op < 58) {
      int s = random_set();
      DB_ADDR a = 0, b = 0;
      se = dt_csoget(s, &a, t_, -1);
      sm = m_.csoget(s, &b);
      if (se == 0 && a != b) err = "csoget value";
      o << "csoget " << s;
    } else if (op < 60) {
      int s = random_set();
      DB_ADDR d = random_dba();
      se = dt_csoset(s, &d, t_, -1);
      sm = m_.csoset(s, d);
      o << "csoset " << s << " " << std::hex << d;
    } else if (op < 61) {
      int s = random_set();
      long f = random_field();
      se = dt_csoread(s, f, oe.data(), t_, -1);
      sm = m_.csoread(s, f, &om);
      if (se == 0 && sm == 0 && memcmp(oe.data(), om.data(), om.size()) != 0) err = "csoread data";
      o << "csoread " << s << " " << f;
    } else if (op < 62) {
      int s = random_set();
      long f = random_field();
      auto v = field_value(f);
      se = dt_csowrite(s, f, v.data(), t_, -1);
      sm = m_.csowrite(s, f, v.data());
      o << "csowrite " << s << " " << f;
    } else if (op < 71) {
      int s = random_set(), which = op < 68 ? 0 : op < 70 ? 1 : 2;
      se = which == 0 ? dt_connect(s, t_, -1) : which == 1 ? dt_discon(s, t_, -1) : dt_ismember(s, t_, -1);
      sm = which == 0 ? m_.connect(s) : which == 1 ? m_.discon(s) : m_.ismember(s);
      o << (which == 0 ? "connect " : which == 1 ? "discon " : "ismember ") << s;
    } else if (op < 74) {
      int s = random_set();
      int which = (int)pick(3);
      se = which == 0 ? dt_findfm(s, t_, -1) : which == 1 ? dt_findnm(s, t_, -1) : dt_findlm(s, t_, -1);
      sm = which == 0 ? m_.findfm(s) : which == 1 ? m_.findnm(s) : m_.findlm(s);
      o << (which == 0 ? "findfm " : which == 1 ? "findnm " : "findlm ") << s;
    } else if (op < 76) {
      int s = random_set();
      long a = -1, b = -1;
      se = dt_members(s, &a, t_, -1);
      sm = m_.members(s, &b);
      if (se == 0 && a != b) err = "members count";
      o << "members " << s;
    } else if (op < 82) {
      long f = random_key();
      auto v = key_value(f);
      se = dt_keyfind(f, v.data(), t_, -1);
      sm = m_.keyfind(f, v.data());
      o << "keyfind " << f << " " << rectest::hex(v.data(), 12);
    } else if (op < 87) {
      long f = random_key();
      int which = (int)pick(3);
      se = which == 0 ? dt_keynext(f, t_, -1) : which == 1 ? dt_keyprev(f, t_, -1) : dt_keylast(f, t_, -1);
      sm = which == 0 ? m_.keynext(f) : which == 1 ? m_.keyprev(f) : m_.keylast(f);
      o << (which == 0 ? "keynext " : which == 1 ? "keyprev " : "keylast ") << f;
    } else if (op < 90) {
      long f = chance(0.7) ? (chance(0.5) ? VNS_ELEM_CHECKEDOUT : chance(0.5) ? DIR_ENT_HIJACK_KEY : DO_SESSION_HOLD)
                           : random_key();
      bool store = chance(0.6);
      se = store ? dt_keystore(f, t_, -1) : dt_keydel(f, t_, -1);
      sm = store ? m_.keystore(f) : m_.keydel(f);
      o << (store ? "keystore " : "keydel ") << f;
    } else if (op < 92) {
      se = dt_keyread(oe.data(), t_);
      sm = m_.keyread(&om);
      if (se == 0 && sm == 0 && memcmp(oe.data(), om.data(), om.size()) != 0) err = "keyread data";
      o << "keyread";
    } else if (op < 94) {
      if (blocks_.size() < 3 && chance(0.6)) {
        DB_ADDR* b;
        int size;
        se = dt_rdcurr(&b, &size, t_);
        if (se == 0) blocks_.push_back({b, m_.cur});
        o << "rdcurr";
      } else if (!blocks_.empty()) {
        auto blk = blocks_.back();
        blocks_.pop_back();
        se = dt_wrcurr(blk.first, t_);
        m_.cur = blk.second;
        o << "wrcurr";
      }
    } else {
      // A write outside a transaction or similar misuse, judged by both sides.
      se = dt_trbegin("t", t_);
      sm = m_.trbegin();
      o << "trbegin (in any state)";
    }
    note(o.str());
    if (err.empty()) err = same(o.str().c_str(), se, sm);
    if (sm == rectest::Model::kBadDba) err = "engine reused or misplaced a DBA";
    if (err.empty()) err = check_cr();
    return err;
  }

  uint64_t seed_;
  std::mt19937_64 rng_;
  int ps_, frames_;
  rectest::TempDir dir_;
  DB_TASK* t_ = nullptr;
  rectest::Model m_;
  std::vector<DB_ADDR> dbas_;
  std::vector<std::pair<DB_ADDR*, rectest::Model::Cur>> blocks_;
  std::deque<std::string> trace_;
  int n_ = 0;
};

uint64_t base_seed() {
  const char* s = getenv("TAVREL_REC_SEED");
  return s ? strtoull(s, nullptr, 10) : 20240601;
}

int op_count() {
  const char* s = getenv("TAVREL_REC_OPS");
  return s ? atoi(s) : 3000;
}

// Six seeds with tiny pages and cache, two with larger ones.
TEST(Differential, EngineAgreesWithTheModel) {
  for (uint64_t i = 0; i < 8; i++) {
    Differential d(base_seed() + (i < 6 ? i : 94 + i), i < 6 ? 512 : 4096, i < 6 ? 8 : 64);
    std::string err = d.run(op_count());
    ASSERT_EQ(err, "") << err;
  }
}

}  // namespace
