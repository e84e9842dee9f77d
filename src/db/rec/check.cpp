// check.cpp: Database::check, the invariant checker used by the tests and the dump tool.
//
// It verifies, outside a transaction:
// - data files: every slot up to the high-water mark is live or free, the free list links exactly the free
//   slots (no cycle), and the live count matches;
// - sets: each owner's chain runs first..last through matching prev/next links, every member names the
//   owner, the count matches, and every member that names an owner is found in that owner's chain;
// - keys: every tree is well formed, every live row has exactly its mandatory keys plus the optional keys
//   its mask says, and every entry names a live row whose fields re-encode to the entry.
#include <cstring>
#include <string>
#include <vector>

#include "db/rec/engine.h"

namespace tavrel::rec {
namespace {
inline uint32_t rd32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
inline void be32(uint8_t* p, uint32_t v) {
  p[0] = (uint8_t)(v >> 24);
  p[1] = (uint8_t)(v >> 16);
  p[2] = (uint8_t)(v >> 8);
  p[3] = (uint8_t)v;
}
}  // namespace

int Database::check(std::string* report) {
  report->clear();
  if (active_) {
    *report = "transaction active";
    return -26;
  }
  const Schema& s = schema();
  auto bad = [&](const std::string& why) {
    *report = why;
    return -910;
  };
  std::vector<uint64_t> key_rows(s.keys.size(), 0);
  for (int ri = 0; ri < TAVREL_DB_NUM_RECORDS; ri++) {
    DataFile& d = df(ri);
    const RecDesc* rd = d.rec();
    std::string rn = rd->name;
    uint32_t hw = d.high_water();
    std::vector<uint8_t> state(hw + 1, 0);
    uint32_t live = 0;
    for (uint32_t sl = 1; sl <= hw; sl++) {
      PageRef pg;
      uint8_t* p;
      int st = d.slot(sl, &pg, &p);
      if (st != 0) return st;
      state[sl] = p[0];
      if (p[0] == SLOT_LIVE) {
        live++;
        DB_ADDR dba = (DB_ADDR)ri << kSlotShift | sl;
        // Keys of the row.
        for (int k : rd->keys) {
          const KeyDesc& kd = s.keys[k];
          bool stored = !kd.optional || (p[1] >> kd.opt_bit & 1);
          if (!stored) continue;
          key_rows[k]++;
          uint8_t e[kMaxNormKey + 4], out[kMaxNormKey + 4];
          key_norm_from_record(kd, p + rd->data_off, e);
          be32(e + kd.norm_len, dba);
          bool found;
          Hint h;
          if ((st = kt(k).seek_ge(e, out, &found, &h)) != 0) return st;
          if (!found || std::memcmp(e, out, kd.norm_len + 4) != 0)
            return bad(rn + " row " + std::to_string(sl) + " lacks its key " + std::to_string(kd.field));
        }
        // Member pointers name a live owner of the right type.
        for (int set : rd->member_sets) {
          DB_ADDR owner = rd32(p + rd->member_off(set));
          if (owner == 0) continue;
          PageRef opg;
          uint8_t* op;
          const RecDesc* ord;
          if (live_slot(owner, &opg, &op, &ord) != 0 || ord->number - 10000 != s.sets[set].owner)
            return bad(rn + " row " + std::to_string(sl) + " names a bad owner in set " + s.sets[set].name);
        }
        // Owner chains.
        for (int set : rd->owned_sets) {
          int oo = rd->owner_off(set);
          DB_ADDR first = rd32(p + oo), last = rd32(p + oo + 4);
          uint32_t count = rd32(p + oo + 8), n = 0;
          DB_ADDR prev = 0, m = first;
          while (m != 0) {
            if (++n > count) return bad(std::string("chain longer than its count in ") + s.sets[set].name);
            PageRef mpg;
            uint8_t* mp;
            const RecDesc* mrd;
            if (live_slot(m, &mpg, &mp, &mrd) != 0 || mrd->member_off(set) < 0)
              return bad(std::string("dead or foreign member in ") + s.sets[set].name);
            int mo = mrd->member_off(set);
            if (rd32(mp + mo) != dba || rd32(mp + mo + 4) != prev)
              return bad(std::string("member links broken in ") + s.sets[set].name);
            prev = m;
            m = rd32(mp + mo + 8);
          }
          if (n != count || last != prev)
            return bad(std::string("count or last wrong in ") + s.sets[set].name + " of " + rn + " " +
                       std::to_string(sl));
        }
      } else if (p[0] != SLOT_FREE) {
        return bad(rn + " slot " + std::to_string(sl) + " below high water is unused");
      }
    }
    if (live != d.live()) return bad(rn + " live count mismatch");
    uint32_t nfree = 0;
    for (uint32_t f = d.free_head(); f != 0;) {
      if (f > hw || state[f] != SLOT_FREE) return bad(rn + " free list names a non-free slot");
      state[f] = 3;  // visited
      nfree++;
      PageRef pg;
      uint8_t* p;
      int st = d.slot(f, &pg, &p);
      if (st != 0) return st;
      f = rd32(p + 4);
    }
    if (nfree + live != hw) return bad(rn + " free list misses free slots");
  }
  // Member chains seen from the members' side: every connected member is reached from its owner, which
  // holds since counts match and every chain member names its owner; check the total per set.
  for (size_t k = 0; k < s.keys.size(); k++) {
    std::string why;
    int st = kt((int)k).check(&why);
    if (st != 0) return bad("key " + std::to_string(s.keys[k].field) + ": " + why);
    if (kt((int)k).count() != key_rows[k])
      return bad("key " + std::to_string(s.keys[k].field) + " has entries for missing rows");
  }
  for (int si = 0; si < TAVREL_DB_NUM_SETS; si++) {
    uint64_t owned = 0, connected = 0;
    const SetDesc& sd = s.sets[si];
    const RecDesc& ord = s.recs[sd.owner];
    DataFile& od = df(sd.owner);
    for (uint32_t sl = 1; sl <= od.high_water(); sl++) {
      PageRef pg;
      uint8_t* p;
      if (od.slot(sl, &pg, &p) != 0) return -914;
      if (p[0] == SLOT_LIVE) owned += rd32(p + ord.owner_off(si) + 8);
    }
    for (int m = 0; m < sd.nmembers; m++) {
      DataFile& md = df(sd.members[m]);
      const RecDesc& mrd = s.recs[sd.members[m]];
      for (uint32_t sl = 1; sl <= md.high_water(); sl++) {
        PageRef pg;
        uint8_t* p;
        if (md.slot(sl, &pg, &p) != 0) return -914;
        if (p[0] == SLOT_LIVE && rd32(p + mrd.member_off(si)) != 0) connected++;
      }
    }
    if (owned != connected) return bad(std::string("members outside any chain in ") + sd.name);
  }
  return 0;
}

}  // namespace tavrel::rec
