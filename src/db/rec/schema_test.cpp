// Schema tables, key normalisation and the dictionary file.
#include "db/rec/schema.h"

#include <gtest/gtest.h>

#include <cstring>

#include "db/rec/dt.h"
#include "db/rec/engine.h"
#include "db/rec/test_util.h"

using namespace tavrel::rec;

TEST(Schema, RecordSizesMatchTheStructs) {
  const Schema& s = schema();
  ASSERT_EQ(s.recs.size(), 20u);
  const size_t sizes[20] = {sizeof(db_silo),        sizeof(db_dir),        sizeof(db_dir_ent),
                            sizeof(db_inode),       sizeof(db_cr),         sizeof(db_do),
                            sizeof(db_sub_do),      sizeof(db_unelevated_ref), sizeof(db_cr_free),
                            sizeof(db_bytes),       sizeof(db_bytes_small), sizeof(db_bytes_med),
                            sizeof(vns_db_obj),     sizeof(vns_db_dir_ver), sizeof(vns_db_dir_ver_ent),
                            sizeof(vns_db_ver),     sizeof(vns_db_slink), sizeof(vns_db_elem),
                            sizeof(vns_db_lr_scope), sizeof(vns_db_view)};
  for (int i = 0; i < 20; i++) {
    EXPECT_EQ(s.recs[i].size, sizes[i]) << s.recs[i].name;
    // Every data field lies inside the record and no two overlap (nested members lie in their struct).
    for (const FieldDesc& f : s.recs[i].fields) {
      if (f.type == FType::KEY) continue;
      EXPECT_LE(f.offset + f.size, s.recs[i].size) << f.name;
    }
    EXPECT_LE(s.recs[i].slot_size, 512) << "a slot must fit the smallest page";
  }
}

TEST(Schema, FieldNumbersFollowTheNumberingRule) {
  const Schema& s = schema();
  struct Case {
    long field;
    const char* name;
    uint16_t off, size;
  } cases[] = {
      // The first field of a record, a text, a nested struct and the field after it, a number, bytes.
      {REPLICA_UUID, "REPLICA_UUID", 0, 16},   {SILO_PATH, "SILO_PATH", 40, 208},
      {INODE_FSTAT, "INODE_FSTAT", 20, 128},   {INODE_MTYPE, "INODE_MTYPE", 148, 4},
      {VNS_ELEM_CHECKEDOUT, "VNS_ELEM_CHECKEDOUT", 36, 4}, {BYTES_SMALL_DATA, "BYTES_SMALL_DATA", 4, 90},
  };
  for (const Case& c : cases) {
    const FieldDesc* f = s.field(c.field);
    ASSERT_NE(f, nullptr) << c.name;
    EXPECT_STREQ(f->name, c.name);
    EXPECT_EQ(f->offset, c.off) << c.name;
    EXPECT_EQ(f->size, c.size) << c.name;
  }
  EXPECT_EQ(s.field(3029), nullptr);
}

TEST(Schema, KeysAndSets) {
  const Schema& s = schema();
  EXPECT_EQ(s.keys.size(), 19u);
  struct Case {
    long field;
    bool unique, optional;
    uint16_t buf_len;
  } cases[] = {{INODE_KEY, true, false, 20}, {DIR_VER_ENT_NAME_LOOKUP, false, false, 12},
               {VNS_ELEM_CHECKEDOUT, false, true, 4}};  // one of each kind, compound and single
  for (const Case& c : cases) {
    int k = s.key_of(c.field);
    ASSERT_GE(k, 0) << c.field;
    EXPECT_EQ(s.keys[k].unique, c.unique) << c.field;
    EXPECT_EQ(s.keys[k].optional, c.optional) << c.field;
    EXPECT_EQ(s.keys[k].buf_len, c.buf_len) << c.field;
  }
  EXPECT_EQ(s.key_of(SILO_PATH), -1);
}

TEST(Schema, NormalisedKeysOrderAsTheirValues) {
  const Schema& s = schema();
  const KeyDesc& k = s.keys[s.key_of(VNS_ELEM_CHECKEDOUT)];  // i32
  int32_t vals[] = {INT32_MIN, -2, -1, 0, 1, 255, 256, INT32_MAX};
  uint8_t prev[8] = {}, cur[8];
  for (size_t i = 0; i < sizeof vals / sizeof vals[0]; i++) {
    key_norm_from_buffer(k, reinterpret_cast<const uint8_t*>(&vals[i]), cur);
    if (i > 0) {
      EXPECT_LT(memcmp(prev, cur, 4), 0) << vals[i];
    }
    int32_t back;
    key_buffer_from_norm(k, cur, reinterpret_cast<uint8_t*>(&back));
    EXPECT_EQ(back, vals[i]);
    memcpy(prev, cur, 4);
  }
  const KeyDesc& c = s.keys[s.key_of(DIR_VER_ENT_NAME_LOOKUP)];  // (u32, u32, u32)
  key_silo_dir_hash a{1, 0x100, 5}, b{1, 0xff, 0xffffffff}, r{};
  uint8_t na[12], nb[12];
  key_norm_from_buffer(c, reinterpret_cast<uint8_t*>(&a), na);
  key_norm_from_buffer(c, reinterpret_cast<uint8_t*>(&b), nb);
  EXPECT_GT(memcmp(na, nb, 12), 0) << "dir dbid 0x100 sorts after 0xff whatever the hash";
  key_buffer_from_norm(c, na, reinterpret_cast<uint8_t*>(&r));
  EXPECT_EQ(r.dir_dbid, 0x100u);
  EXPECT_EQ(r.hash, 5u);
}

TEST(Schema, DictionaryRoundTripAndMismatch) {
  std::string img = schema().serialize();
  EXPECT_EQ(check_dictionary(img), 0);
  std::string bad = img;
  bad[20] ^= 1;
  EXPECT_EQ(check_dictionary(bad), -21);
  EXPECT_EQ(check_dictionary(img.substr(0, img.size() - 1)), -21);
}

TEST(Schema, BuildProducedTheProductFiles) {
  std::string dir = TAVREL_PRODUCT_DIR;
  EXPECT_EQ(rectest::read_file(dir + "/tavrel_db_schema_version"), "1\n");
  EXPECT_EQ(check_dictionary(rectest::read_file(dir + "/tavrel_db.dbd")), 0);
}

TEST(Schema, OpenRefusesAMissingOrForeignDictionary) {
  rectest::TempDir dir;
  rectest::Capture cap;
  DB_TASK* t;
  ASSERT_EQ(dt_opentask(&t), 0);
  d_setpagesize(512);
  d_setpages(16, 0);
  dt_dbwdir(dir.path().c_str(), t);
  EXPECT_EQ(dt_open("tavrel_db", "o", t), S_NOFILE);
  EXPECT_EQ(db_status, S_NOFILE);
  std::string img = schema().serialize();
  img[img.size() - 1] ^= 0x55;
  rectest::write_file(dir.file("tavrel_db.dbd"), img);
  EXPECT_EQ(dt_open("tavrel_db", "o", t), S_INCOMPAT);
  EXPECT_EQ(dt_open("tavrel_db", "x", t), S_INVDB);
  dt_closetask(t);
}
