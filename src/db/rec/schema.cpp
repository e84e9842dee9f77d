#include "db/rec/schema.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace tavrel::rec {
namespace {

using F = FType;

struct FieldRow {
  const char* name;
  uint16_t offset;
  uint16_t size;
  F type;
};

struct RecRow {
  const char* name;
  uint16_t size;
  std::vector<FieldRow> fields;  // by position
};

// Compound key positions are listed as fields with type KEY; their parts are in kKeys.
std::vector<RecRow> rec_rows() {
  std::vector<RecRow> r;
  r.push_back({"DB_SILO", 248,
               {{"REPLICA_UUID", 0, 16, F::BYTES},
                {"SILO_REF_CNT", 16, 4, F::U32},
                {"SILO_NEXT_DBID", 20, 4, F::U32},
                {"SILO_GEN_NUM", 24, 4, F::U32},
                {"SILO_ROOT_DBID", 28, 4, F::U32},
                {"SILO_BYTES_DBA", 32, 4, F::U32},
                {"SILO_FLAGS", 36, 2, F::U16},
                {"SILO_PATH_LEN", 38, 2, F::U16},
                {"SILO_PATH", 40, 208, F::CHARS}}});
  r.push_back({"DB_DIR", 4, {{"DIR_FILLER", 0, 4, F::U32}}});
  r.push_back({"DB_DIR_ENT", 84,
               {{"DIR_ENT_DIR_DBA", 0, 4, F::U32},
                {"DIR_ENT_SILO_DBA", 4, 4, F::U32},
                {"DIR_ENT_HIJACK_VER", 8, 16, F::BYTES},
                {"DIR_ENT_HIJACK_ELEM", 24, 16, F::BYTES},
                {"DIR_ENT_HASH", 40, 4, F::U32},
                {"DIR_ENT_OFFSET", 44, 4, F::U32},
                {"DIR_ENT_BYTES_DBA", 48, 4, F::U32},
                {"DIR_ENT_NAME_STATE", 52, 2, F::U16},
                {"DIR_ENT_NAME_LEN", 54, 2, F::U16},
                {"DIR_ENT_NAME", 56, 25, F::CHARS},
                {"DIR_ENT_KEY", 0, 0, F::KEY},
                {"DIR_ENT_HIJACK_KEY", 0, 0, F::KEY}}});
  r.push_back({"DB_INODE", 236,
               {{"INODE_SILO_DBA", 0, 4, F::U32},
                {"INODE_OID", 4, 16, F::BYTES},
                {"INODE_FSTAT", 20, 128, F::STRUCT},
                {"INODE_FSTAT_FTYPE", 20, 4, F::U32},
                {"INODE_FSTAT_MODE", 24, 4, F::U32},
                {"INODE_FSTAT_NLINK", 28, 4, F::U32},
                {"INODE_FSTAT_USAGE", 32, 4, F::U32},
                {"INODE_FSTAT_SIZE_W0", 36, 4, F::U32},
                {"INODE_FSTAT_SIZE_W1", 40, 4, F::U32},
                {"INODE_FSTAT_ATIME_SEC", 44, 4, F::U32},
                {"INODE_FSTAT_ATIME_USEC", 48, 4, F::U32},
                {"INODE_FSTAT_MTIME_SEC", 52, 4, F::U32},
                {"INODE_FSTAT_MTIME_USEC", 56, 4, F::U32},
                {"INODE_FSTAT_CTIME_SEC", 60, 4, F::U32},
                {"INODE_FSTAT_CTIME_USEC", 64, 4, F::U32},
                {"INODE_FSTAT_EXTRA0", 68, 4, F::U32},
                {"INODE_FSTAT_EXTRA1", 72, 4, F::U32},
                {"INODE_FSTAT_USID_BYTES_DBA", 76, 4, F::U32},
                {"INODE_FSTAT_GSID_BYTES_DBA", 80, 4, F::U32},
                {"INODE_FSTAT_USID_LEN", 84, 2, F::U16},
                {"INODE_FSTAT_GSID_LEN", 86, 2, F::U16},
                {"INODE_FSTAT_USID", 88, 30, F::CHARS},
                {"INODE_FSTAT_GSID", 118, 30, F::CHARS},
                {"INODE_MTYPE", 148, 4, F::U32},
                {"INODE_GEN", 152, 4, F::U32},
                {"INODE_TEXT_DBA", 156, 4, F::U32},
                {"INODE_TEXT_LEN", 160, 2, F::U16},
                {"INODE_TEXT", 162, 74, F::CHARS},
                {"INODE_KEY", 0, 0, F::KEY}}});
  r.push_back({"DB_CR", 20,
               {{"CR_PARENT_REF_CNT", 0, 4, F::I32},
                {"CR_CRC", 4, 4, F::U32},
                {"CR_FILE_OFFSET", 8, 4, F::U32},
                {"CR_HDR_WORD", 12, 4, F::U32},
                {"CR_LENGTH", 16, 4, F::U32}}});
  r.push_back({"DB_DO", 36,
               {{"DO_REPLICA_UUID", 0, 16, F::BYTES},
                {"DO_OID", 16, 16, F::BYTES},
                {"DO_SESSION_HOLD", 32, 4, F::U32}}});
  {
    RecRow sub{"DB_SUB_DO", 224, {}};
    static const char* names[SUB_DO_SLOTS] = {
        "SUB_DO_OID0", "SUB_DO_OID1", "SUB_DO_OID2",  "SUB_DO_OID3",  "SUB_DO_OID4",  "SUB_DO_OID5",  "SUB_DO_OID6",
        "SUB_DO_OID7", "SUB_DO_OID8", "SUB_DO_OID9", "SUB_DO_OID10", "SUB_DO_OID11", "SUB_DO_OID12", "SUB_DO_OID13"};
    for (int i = 0; i < SUB_DO_SLOTS; i++) sub.fields.push_back({names[i], uint16_t(16 * i), 16, F::BYTES});
    r.push_back(sub);
  }
  r.push_back({"DB_UNELEVATED_REF", 16, {{"UNELEVATED_REF_UUID", 0, 16, F::BYTES}}});
  r.push_back({"DB_CR_FREE", 8, {{"CR_FREE_LEN", 0, 4, F::U32}, {"CR_FREE_OFFSET", 4, 4, F::U32}}});
  r.push_back({"DB_BYTES", 96, {{"OWNER_DBA", 0, 4, F::U32}, {"BYTES_DATA", 4, 90, F::CHARS}}});
  r.push_back(
      {"DB_BYTES_SMALL", 96, {{"BYTES_SMALL_OWNER_DBA", 0, 4, F::U32}, {"BYTES_SMALL_DATA", 4, 90, F::CHARS}}});
  r.push_back({"DB_BYTES_MED", 236, {{"BYTES_MED_OWNER_DBA", 0, 4, F::U32}, {"BYTES_MED_DATA", 4, 232, F::CHARS}}});
  r.push_back({"VNS_DB_OBJ", 72,
               {{"VNS_OBJ_SILO_DBA", 0, 4, F::U32},
                {"VNS_OBJ_OID", 4, 16, F::BYTES},
                {"VNS_OBJ_MTYPE", 20, 4, F::U32},
                {"VNS_OBJ_DBID", 24, 4, F::U32},
                {"VNS_OBJ_FTYPE", 28, 4, F::U32},
                {"VNS_OBJ_MODE", 32, 4, F::U32},
                {"VNS_OBJ_NODEID", 36, 4, F::U32},
                {"VNS_OBJ_ATIME_SEC", 40, 4, F::U32},
                {"VNS_OBJ_ATIME_USEC", 44, 4, F::U32},
                {"VNS_OBJ_MTIME_SEC", 48, 4, F::U32},
                {"VNS_OBJ_MTIME_USEC", 52, 4, F::U32},
                {"VNS_OBJ_CTIME_SEC", 56, 4, F::U32},
                {"VNS_OBJ_CTIME_USEC", 60, 4, F::U32},
                {"VNS_OBJ_EXTRA0", 64, 4, F::U32},
                {"VNS_OBJ_EXTRA1", 68, 4, F::U32},
                {"VNS_OBJ_KEY", 0, 0, F::KEY},
                {"VNS_OBJ_OID_KEY", 0, 0, F::KEY}}});
  r.push_back({"VNS_DB_DIR_VER", 20,
               {{"VNS_DIR_VER_SILO_DBA", 0, 4, F::U32},
                {"VNS_DIR_VER_DBID", 4, 4, F::U32},
                {"VNS_DIR_VER_PARENT_DBID", 8, 4, F::U32},
                {"VNS_DIR_VER_TYPE", 12, 4, F::U32},
                {"VNS_DIR_VER_RDDIR_DONE", 16, 2, F::U16},
                {"VNS_DIR_VER_SAVED_STATE", 18, 2, F::U16},
                {"VNS_DIR_VER_KEY", 0, 0, F::KEY}}});
  r.push_back({"VNS_DB_DIR_VER_ENT", 200,
               {{"VNS_DIR_VER_ENT_SILO_DBA", 0, 4, F::U32},
                {"VNS_DIR_VER_ENT_NAME_DBA", 4, 4, F::U32},
                {"VNS_DIR_VER_ENT_OBJ_DBID", 8, 4, F::U32},
                {"VNS_DIR_VER_ENT_DIR_DBID", 12, 4, F::U32},
                {"VNS_DIR_VER_ENT_SCOPE", 16, 16, F::BYTES},
                {"VNS_DIR_VER_ENT_HASH", 32, 4, F::U32},
                {"VNS_DIR_VER_ENT_RESERVED", 36, 4, F::U32},
                {"VNS_DIR_VER_ENT_MTYPE", 40, 4, F::U32},
                {"VNS_DIR_VER_ENT_VALIDATED", 44, 4, F::U32},
                {"VNS_DIR_VER_ENT_SCOPE_GN", 48, 4, F::U32},
                {"VNS_DIR_VER_ENT_NAME_LEN", 52, 2, F::U16},
                {"VNS_DIR_VER_ENT_REMOVE", 54, 2, F::U16},
                {"VNS_DIR_VER_ENT_NAME", 56, 144, F::CHARS},
                {"DIR_VER_ENT_LOOKUP", 0, 0, F::KEY},
                {"DIR_VER_ENT_NAME_LOOKUP", 0, 0, F::KEY}}});
  r.push_back({"VNS_DB_VER", 36,
               {{"VNS_VER_SILO_DBA", 0, 4, F::U32},
                {"VNS_VER_DBID", 4, 4, F::U32},
                {"VNS_VER_EVENT_SEC", 8, 4, F::U32},
                {"VNS_VER_SIZE_W0", 12, 4, F::U32},
                {"VNS_VER_SIZE_W1", 16, 4, F::U32},
                {"VNS_VER_EVENT_USEC", 20, 4, F::U32},
                {"VNS_VER_USAGE", 24, 4, F::U32},
                {"VNS_VER_MTYPE", 28, 4, F::U32},
                {"VNS_VER_STALE", 32, 4, F::U32},
                {"VNS_VER_KEY", 0, 0, F::KEY}}});
  r.push_back({"VNS_DB_SLINK", 96,
               {{"VNS_SLINK_SILO_DBA", 0, 4, F::U32},
                {"VNS_SLINK_DBID", 4, 4, F::U32},
                {"VNS_SLINK_TEXT_DBA", 8, 4, F::U32},
                {"VNS_SLINK_EVENT_SEC", 12, 4, F::U32},
                {"VNS_SLINK_EVENT_USEC", 16, 4, F::U32},
                {"VNS_SLINK_TEXT_LEN", 20, 2, F::U16},
                {"VNS_SLINK_TEXT", 22, 72, F::CHARS},
                {"VNS_SLINK_KEY", 0, 0, F::KEY}}});
  r.push_back({"VNS_DB_ELEM", 40,
               {{"VNS_ELEM_SILO_DBA", 0, 4, F::U32},
                {"VNS_ELEM_DBID", 4, 4, F::U32},
                {"VNS_ELEM_CO_VER", 8, 16, F::BYTES},
                {"VNS_ELEM_EVENT_SEC", 24, 4, F::U32},
                {"VNS_ELEM_EVENT_USEC", 28, 4, F::U32},
                {"VNS_ELEM_RESERVED", 32, 4, F::U32},
                {"VNS_ELEM_CHECKEDOUT", 36, 4, F::I32},
                {"VNS_ELEM_KEY", 0, 0, F::KEY}}});
  r.push_back({"VNS_DB_LR_SCOPE", 96,
               {{"VNS_LR_SCOPE_OID", 0, 16, F::BYTES},
                {"VNS_LR_SCOPE_NAME_HASH", 16, 4, F::U32},
                {"VNS_LR_SCOPE_GN", 20, 4, F::U32},
                {"VNS_LR_SCOPE_FINISHED_GN", 24, 4, F::U32},
                {"VNS_LR_SCOPE_NAME_LEN", 28, 4, F::U32},
                {"VNS_LR_SCOPE_NAME_DBA", 32, 4, F::U32},
                {"VNS_LR_SCOPE_RESERVED", 36, 2, F::U16},
                {"VNS_LR_SCOPE_OP_STATE", 38, 2, F::U16},
                {"VNS_LR_SCOPE_NAME", 40, 54, F::CHARS}}});
  r.push_back({"VNS_DB_VIEW", 24,
               {{"VNS_VIEW_UUID", 0, 16, F::BYTES},
                {"VNS_VIEW_GN", 16, 4, F::U32},
                {"VNS_VIEW_INITIAL_GN", 20, 4, F::U32}}});
  return r;
}

struct KeyRow {
  long field;
  bool unique;
  bool optional;
  std::vector<long> parts;
};

std::vector<KeyRow> key_rows() {
  return {
      {REPLICA_UUID, true, false, {REPLICA_UUID}},
      {DIR_ENT_KEY, false, false, {DIR_ENT_DIR_DBA, DIR_ENT_HASH}},
      {DIR_ENT_HIJACK_KEY, false, true, {DIR_ENT_HIJACK_VER}},
      {INODE_KEY, true, false, {INODE_SILO_DBA, INODE_OID}},
      {DO_OID, true, false, {DO_OID}},
      {DO_SESSION_HOLD, false, true, {DO_SESSION_HOLD}},
      {CR_FREE_LEN, false, false, {CR_FREE_LEN}},
      {CR_FREE_OFFSET, true, false, {CR_FREE_OFFSET}},
      {VNS_OBJ_KEY, true, false, {VNS_OBJ_SILO_DBA, VNS_OBJ_DBID}},
      {VNS_OBJ_OID_KEY, true, false, {VNS_OBJ_SILO_DBA, VNS_OBJ_OID}},
      {VNS_DIR_VER_KEY, true, false, {VNS_DIR_VER_SILO_DBA, VNS_DIR_VER_DBID}},
      {DIR_VER_ENT_LOOKUP, false, false, {VNS_DIR_VER_ENT_SILO_DBA, VNS_DIR_VER_ENT_OBJ_DBID}},
      {DIR_VER_ENT_NAME_LOOKUP,
       false,
       false,
       {VNS_DIR_VER_ENT_SILO_DBA, VNS_DIR_VER_ENT_DIR_DBID, VNS_DIR_VER_ENT_HASH}},
      {VNS_VER_KEY, true, false, {VNS_VER_SILO_DBA, VNS_VER_DBID}},
      {VNS_SLINK_KEY, true, false, {VNS_SLINK_SILO_DBA, VNS_SLINK_DBID}},
      {VNS_ELEM_CHECKEDOUT, false, true, {VNS_ELEM_CHECKEDOUT}},
      {VNS_ELEM_KEY, true, false, {VNS_ELEM_SILO_DBA, VNS_ELEM_DBID}},
      {VNS_LR_SCOPE_OID, true, false, {VNS_LR_SCOPE_OID}},
      {VNS_LR_SCOPE_NAME_HASH, false, false, {VNS_LR_SCOPE_NAME_HASH}},
  };
}

struct SetRow {
  const char* name;
  int owner;
  std::vector<int> members;
};

std::vector<SetRow> set_rows() {
  return {
      {"DO_OID_SET", DB_CR, {DB_DO}},
      {"SUB_DO_SET", DB_CR, {DB_SUB_DO}},
      {"UNELEVATED_CR_SET", DB_CR, {DB_UNELEVATED_REF}},
      {"DB_BYTES_SET", DB_BYTES, {DB_BYTES_SMALL, DB_BYTES_MED}},
      {"DIR_ENT_SET", DB_DIR, {DB_DIR_ENT}},
      {"INODE_OID_SET", DB_INODE, {DB_DIR, DB_DIR_ENT}},
      {"VNS_DIR_ENT_SET", VNS_DB_DIR_VER, {VNS_DB_DIR_VER_ENT}},
      {"VNS_VER_NAME_SET", VNS_DB_VER, {VNS_DB_DIR_VER_ENT}},
      {"VNS_SLINK_NAME_SET", VNS_DB_SLINK, {VNS_DB_DIR_VER_ENT}},
      {"VNS_ELEM_VER_SET", VNS_DB_ELEM, {VNS_DB_VER}},
      {"VNS_SCOPE_ENT_SET", VNS_DB_LR_SCOPE, {VNS_DB_DIR_VER_ENT}},
  };
}

uint16_t part_align(FType t) { return t == FType::U16 ? 2 : (t == FType::BYTES || t == FType::CHARS) ? 1 : 4; }

void put32(std::string& s, uint32_t v) { s.append(reinterpret_cast<const char*>(&v), 4); }
void putstr(std::string& s, const char* t) {
  put32(s, (uint32_t)strlen(t));
  s.append(t);
}

uint32_t fnv1a(const std::string& s) {
  uint32_t h = 2166136261u;
  for (unsigned char c : s) h = (h ^ c) * 16777619u;
  return h;
}

Schema build() {
  Schema s;
  auto rows = rec_rows();
  for (size_t i = 0; i < rows.size(); i++) {
    RecDesc d;
    d.number = 10000 + (int)i;
    d.name = rows[i].name;
    d.size = rows[i].size;
    for (size_t p = 0; p < rows[i].fields.size(); p++) {
      const FieldRow& f = rows[i].fields[p];
      d.fields.push_back({(long)(i * 1000 + p), f.name, f.offset, f.size, f.type, -1});
    }
    s.recs.push_back(d);
  }
  auto srows = set_rows();
  for (size_t i = 0; i < srows.size(); i++) {
    SetDesc sd{20000 + (int)i, srows[i].name, srows[i].owner - 10000, (int)srows[i].members.size(), {-1, -1}};
    for (size_t m = 0; m < srows[i].members.size(); m++) sd.members[m] = srows[i].members[m] - 10000;
    s.sets.push_back(sd);
    s.recs[sd.owner].owned_sets.push_back((int)i);
    for (int m = 0; m < sd.nmembers; m++) s.recs[sd.members[m]].member_sets.push_back((int)i);
  }
  auto krows = key_rows();
  std::sort(krows.begin(), krows.end(), [](const KeyRow& a, const KeyRow& b) { return a.field < b.field; });
  for (size_t k = 0; k < krows.size(); k++) {
    KeyDesc kd{};
    kd.field = krows[k].field;
    kd.rec = (int)(kd.field / 1000);
    kd.unique = krows[k].unique;
    kd.optional = krows[k].optional;
    kd.nparts = (int)krows[k].parts.size();
    kd.file_slot = kKeyFileSlotBase + (int)k;
    uint16_t off = 0;
    for (int p = 0; p < kd.nparts; p++) {
      kd.parts[p] = krows[k].parts[p];
      const FieldDesc& f = s.recs[kd.rec].fields[kd.parts[p] % 1000];
      uint16_t a = part_align(f.type);
      off = (uint16_t)((off + a - 1) / a * a);
      kd.buf_off[p] = off;
      off = (uint16_t)(off + f.size);
      kd.norm_len = (uint16_t)(kd.norm_len + f.size);
    }
    kd.buf_len = (uint16_t)((off + 3) / 4 * 4);
    if (kd.nparts == 1) kd.buf_len = s.recs[kd.rec].fields[kd.parts[0] % 1000].size;
    RecDesc& rd = s.recs[kd.rec];
    kd.opt_bit = -1;
    if (kd.optional) {
      int n = 0;
      for (int other : rd.keys)
        if (s.keys[other].optional) n++;
      kd.opt_bit = n;
    }
    rd.keys.push_back((int)k);
    rd.fields[kd.field % 1000].key = (int)k;
    s.keys.push_back(kd);
  }
  for (RecDesc& d : s.recs) {
    d.data_off = (uint16_t)(4 + 12 * (d.owned_sets.size() + d.member_sets.size()));
    d.slot_size = (uint16_t)((d.data_off + d.size + 3) / 4 * 4);
  }
  std::string img = s.serialize();
  s.hash = fnv1a(img.substr(0, img.size() - 4));
  return s;
}

}  // namespace

int RecDesc::owner_off(int set) const {
  for (size_t i = 0; i < owned_sets.size(); i++)
    if (owned_sets[i] == set) return 4 + 12 * (int)i;
  return -1;
}

int RecDesc::member_off(int set) const {
  for (size_t i = 0; i < member_sets.size(); i++)
    if (member_sets[i] == set) return 4 + 12 * (int)(owned_sets.size() + i);
  return -1;
}

const FieldDesc* Schema::field(long number) const {
  if (number < 0) return nullptr;
  long r = number / 1000, p = number % 1000;
  if (r >= (long)recs.size() || p >= (long)recs[r].fields.size()) return nullptr;
  return &recs[r].fields[p];
}

int Schema::key_of(long number) const {
  const FieldDesc* f = field(number);
  return f ? f->key : -1;
}

std::string Schema::serialize() const {
  std::string s = "TVRDBD01";
  put32(s, TAVREL_DB_SCHEMA_VERSION);
  put32(s, (uint32_t)recs.size());
  for (const RecDesc& r : recs) {
    put32(s, (uint32_t)r.number);
    putstr(s, r.name);
    put32(s, r.size);
    put32(s, (uint32_t)r.fields.size());
    for (const FieldDesc& f : r.fields) {
      put32(s, (uint32_t)f.number);
      putstr(s, f.name);
      put32(s, f.offset);
      put32(s, f.size);
      put32(s, (uint32_t)f.type);
    }
  }
  put32(s, (uint32_t)sets.size());
  for (const SetDesc& d : sets) {
    put32(s, (uint32_t)d.number);
    putstr(s, d.name);
    put32(s, (uint32_t)d.owner);
    put32(s, (uint32_t)d.nmembers);
    for (int m = 0; m < d.nmembers; m++) put32(s, (uint32_t)d.members[m]);
  }
  put32(s, (uint32_t)keys.size());
  for (const KeyDesc& k : keys) {
    put32(s, (uint32_t)k.field);
    put32(s, (k.unique ? 1u : 0u) | (k.optional ? 2u : 0u));
    put32(s, (uint32_t)k.nparts);
    for (int p = 0; p < k.nparts; p++) put32(s, (uint32_t)k.parts[p]);
  }
  put32(s, fnv1a(s));
  return s;
}

const Schema& schema() {
  static const Schema s = build();
  return s;
}

int check_dictionary(const std::string& image) {
  const Schema& s = schema();
  return image == s.serialize() ? 0 : -21;
}

}  // namespace tavrel::rec
