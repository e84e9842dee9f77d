// engine.h: one open database: its files, page cache, journal, transaction and currency.
//
// The dt_ functions (dt.h) are thin wrappers over this class; see dt.h for the contract of every call.
// Not thread-safe: the caller serialises all calls (the agent holds its engine mutex).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "db/rec/btree.h"
#include "db/rec/data_file.h"
#include "db/rec/journal.h"
#include "db/rec/page_cache.h"
#include "db/rec/schema.h"

namespace tavrel::rec {

// Positions kept per task. Key positions are values (entry bytes), so deleting the entry under a cursor
// is harmless: the next step continues from the value.
struct KeyPos {
  uint8_t state = 0;  // 0 none, 1 on an entry, 2 before the smallest entry >= `entry`
  uint8_t entry[kMaxNormKey + 4] = {};
  Hint hint;
};

struct Currency {
  DB_ADDR cr = 0;
  DB_ADDR co[TAVREL_DB_NUM_SETS] = {};
  DB_ADDR cm[TAVREL_DB_NUM_SETS] = {};
  int scan_rec = -1;  // record index of the scan, -1 none
  DB_ADDR scan = 0;
  long last_key = -1;
  KeyPos kp[32];
};

struct OpenParams {
  std::string name;
  std::string dbd_dir, file_dir, taf_dir;
  uint32_t page_size = 4096;
  size_t frames = 516;
  int options = 0;
};

class Database {
 public:
  Database();
  ~Database();
  int open(const OpenParams& p, const MsgFn& msg);
  int close();
  // Drop everything without flushing or checkpointing, as a crash would (tests).
  void abandon();
  int initialize();
  int checkpoint();
  int syncfiles();

  // Transactions.
  int trbegin(bool journaled);
  int trend(bool sync_files);
  int trabort();
  bool in_tx() const { return active_; }
  // Deferred durability of commits (journal.h, SyncPoint).
  void set_deferred_sync(bool on) { journal_.set_deferred(on); }
  std::shared_ptr<SyncPoint> sync_point() const { return journal_.sync_point(); }

  // Rows.
  int fillnew(int rec, const void* values);
  int recread(void* buf);
  int recwrite(const void* buf);
  int crread(long field, void* buf);
  int crwrite(long field, const void* value);
  int crget(DB_ADDR* dba);
  int crset(DB_ADDR dba);
  int crtype(int* rec);
  int disdel();
  int del();
  int recfrst(int rec);
  int recnext();
  int recset(int rec);

  // Sets.
  int setor(int set);
  int setro(int set);
  int setmr(int set);
  int setmo(int seta, int setb);
  int setoo(int seta, int setb);
  int csoget(int set, DB_ADDR* dba);
  int csoset(int set, DB_ADDR dba);
  int csoread(int set, long field, void* buf);
  int csowrite(int set, long field, const void* value);
  int connect(int set);
  int discon(int set);
  int ismember(int set);
  int findfm(int set);
  int findnm(int set);
  int findlm(int set);
  int members(int set, long* count);

  // Keys.
  int keyfind(long field, const void* value);
  int keynext(long field);
  int keyprev(long field);
  int keylast(long field);
  int keystore(long field);
  int keydel(long field);
  int keyread(void* buf);

  Currency& currency() { return cur_; }
  void clear_currency() { cur_ = Currency(); }

  // Invariant check of every file, set chain and key (outside a transaction). "" when all holds.
  int check(std::string* report);
  const CacheStats& stats() const { return cache_->stats(); }
  Journal& journal() { return journal_; }
  uint32_t page_size() const { return ps_; }
  size_t frames() const { return cache_ ? cache_->frames() : 0; }

 private:
  int open_files(bool* fresh);
  int create_files();
  int load_files();
  void close_files();
  int reload_headers();
  int live_slot(DB_ADDR dba, PageRef* pg, uint8_t** p, const RecDesc** rd);
  int cur_slot(DB_ADDR dba, int missing, PageRef* pg, uint8_t** p, const RecDesc** rd);
  int update_row(DB_ADDR dba, PageRef& pg, uint8_t* slot, const RecDesc* rd, const uint8_t* data);
  int delete_row(DB_ADDR dba, PageRef& pg, uint8_t* slot, const RecDesc* rd);
  int unlink(DB_ADDR dba, uint8_t* slot, const RecDesc* rd, int set);
  int probe_unique(int key, const uint8_t* norm, DB_ADDR self, bool* clash);
  int write_field(DB_ADDR dba, long field, const void* value, int missing);
  int find_member(int set, int which);
  int key_found(int key, long field, const uint8_t* entry, const Hint& h);
  bool key_stored(const KeyDesc& k, const uint8_t* slot) const;
  DataFile& df(int rec_index) { return *data_[rec_index]; }
  BTree& kt(int key) { return *keys_[key]; }

  OpenParams params_;
  MsgFn msg_;
  uint32_t ps_ = 4096;
  std::vector<CacheFile> files_;
  std::unique_ptr<PageCache> cache_;
  Journal journal_;
  std::vector<std::unique_ptr<DataFile>> data_;
  std::vector<std::unique_ptr<BTree>> keys_;
  Currency cur_;
  bool open_ = false;
  bool active_ = false;
  bool journaled_ = true;
};

// Key normalisation (see btree.h): from a record image and from a caller's key buffer, and back.
void key_norm_from_record(const KeyDesc& k, const uint8_t* rec, uint8_t* out);
void key_norm_from_buffer(const KeyDesc& k, const uint8_t* buf, uint8_t* out);
void key_buffer_from_norm(const KeyDesc& k, const uint8_t* norm, uint8_t* buf);

}  // namespace tavrel::rec
