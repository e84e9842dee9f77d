// rec_model.h: a deliberately naive in-memory model of the dt_ interface, for the differential test.
//
// Rows live in a std::map by DBA, set members in a vector per (owner, set), and key entries are computed
// from the rows on every call (decoded typed values, compared part by part, then by DBA). It shares only
// the schema tables (offsets, types, set and key definitions) with the engine. DBAs of new rows come from
// the engine; the model checks that none is live or was freed in the same transaction.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "db/rec/dt.h"
#include "db/rec/schema.h"

namespace rectest {

struct KeyPart {
  bool num = true;
  int64_t n = 0;
  std::string b;
};
struct KeyVal {
  std::vector<KeyPart> parts;
  int cmp(const KeyVal& o) const;  // part by part: numbers as numbers, bytes bytewise
};

class Model {
 public:
  static constexpr int kBadDba = -9999;  // the engine handed out a DBA that must not be used

  struct Pos {
    uint8_t state = 0;  // 0 none, 1 on, 2 before
    KeyVal key;
    DB_ADDR dba = 0;
  };
  struct Cur {
    DB_ADDR cr = 0;
    DB_ADDR co[TAVREL_DB_NUM_SETS] = {};
    DB_ADDR cm[TAVREL_DB_NUM_SETS] = {};
    int scan_rec = -1;
    DB_ADDR scan = 0;
    long last_key = -1;
    Pos kp[32];
  };

  int fillnew(int rec, const uint8_t* data, DB_ADDR engine_dba);
  int recread(std::vector<uint8_t>* out);
  int recwrite(const uint8_t* data);
  int crread(long field, std::vector<uint8_t>* out);
  int crwrite(long field, const uint8_t* value);
  int crget(DB_ADDR* out);
  int crset(DB_ADDR dba);
  int crtype(int* rec);
  int disdel();
  int del();
  int recfrst(int rec);
  int recnext();
  int recset(int rec);
  int setor(int set);
  int setro(int set);
  int setmr(int set);
  int setmo(int a, int b);
  int setoo(int a, int b);
  int csoget(int set, DB_ADDR* out);
  int csoset(int set, DB_ADDR dba);
  int csoread(int set, long field, std::vector<uint8_t>* out);
  int csowrite(int set, long field, const uint8_t* value);
  int connect(int set);
  int discon(int set);
  int ismember(int set);
  int findfm(int set);
  int findnm(int set);
  int findlm(int set);
  int members(int set, long* n);
  int keyfind(long field, const uint8_t* value);
  int keynext(long field);
  int keyprev(long field);
  int keylast(long field);
  int keystore(long field);
  int keydel(long field);
  int keyread(std::vector<uint8_t>* out);
  int trbegin();
  int trend();
  int trabort();
  void reopen() { cur = Cur(); }

  // The same text as rectest::dump of an engine holding the same content.
  std::string dump() const;
  // Rows of a type (for building probes that hit).
  std::vector<DB_ADDR> rows_of(int rec_index) const;
  const std::vector<uint8_t>* row_data(DB_ADDR dba) const;
  bool in_tx() const { return tx_; }

  Cur cur;

 private:
  struct Row {
    int rec;
    std::vector<uint8_t> data;
    uint32_t optmask = 0;
    std::map<int, DB_ADDR> owner;  // set index -> owner
  };
  struct State {
    std::map<DB_ADDR, Row> rows;
    std::map<std::pair<DB_ADDR, int>, std::vector<DB_ADDR>> members;
    uint32_t hw[TAVREL_DB_NUM_RECORDS] = {};
  };
  bool live(DB_ADDR d) const { return d != 0 && s_.rows.count(d); }
  const Row* row(DB_ADDR d) const;
  Row* row(DB_ADDR d);
  int classify(DB_ADDR d) const;  // 0 live, 6 dead, -6 invalid
  bool stored(const Row& r, int key) const;
  KeyVal key_of_row(int key, const Row& r) const;
  KeyVal key_of_buffer(int key, const uint8_t* buf) const;
  std::vector<std::pair<KeyVal, DB_ADDR>> entries(int key) const;
  bool unique_clash(int key, const KeyVal& v, DB_ADDR self) const;
  int field_check(long field, const Row& r, const tavrel::rec::FieldDesc** f) const;
  int write_row(DB_ADDR d, const std::vector<uint8_t>& data);
  int key_index(long field) const;
  void unlink(DB_ADDR d, int set);
  bool member_type(int set, int rec) const;
  void forget(DB_ADDR d);

  State s_, saved_;
  bool tx_ = false;
  std::set<DB_ADDR> freed_in_tx_;
};

}  // namespace rectest
