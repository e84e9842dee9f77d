// schema.h: the compiled-in dictionary of "tavrel_db" (record, field, set and key descriptors) and the
// derived slot layout the engine stores rows in.
//
// The tables are the single source of the schema: the engine uses them directly, and the build-time tool
// tavrel_dbd_gen serialises them into "tavrel_db.dbd". dt_open reads that file and refuses (-21) a
// dictionary whose content differs from the compiled one, which catches a stale product installation.
//
// Slot layout of a row of record type R (all native little-endian):
//   [0]     u8  state          0 never used, 1 live, 2 free
//   [1]     u8  optional-key mask (bit i = i-th optional key of R is stored)
//   [2..3]  u16 reserved
//   then for each set R owns, in set order:          u32 first, u32 last, u32 count
//   then for each set R can be a member of, in order: u32 owner, u32 prev, u32 next
//   then the record bytes (RecDesc::size), then padding to a multiple of 4.
// A free slot keeps the next free slot number (u32) at offset 4.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "db/rec/tavrel_db_schema.h"

namespace tavrel::rec {

enum class FType : uint8_t { U32 = 1, I32 = 2, U16 = 3, BYTES = 4, CHARS = 5, STRUCT = 6, KEY = 7 };

struct FieldDesc {
  long number;
  const char* name;
  uint16_t offset;  // in the record; 0 for a compound key position
  uint16_t size;    // 0 for a compound key position
  FType type;
  int key;  // index into Schema::keys when this field (data or key position) is a key, else -1
};

constexpr int kMaxKeyParts = 3;
constexpr int kMaxNormKey = 24;  // longest normalised key value (without the DBA suffix)

struct KeyDesc {
  long field;
  int rec;  // record index
  bool unique;
  bool optional;
  int opt_bit;  // bit in the slot's optional-key mask, -1 when mandatory
  int nparts;
  long parts[kMaxKeyParts];        // data field numbers
  uint16_t buf_off[kMaxKeyParts];  // offset of each part in the caller's key buffer (native struct)
  uint16_t buf_len;                // size of that buffer
  uint16_t norm_len;               // bytes of the normalised value; the entry adds a 4-byte DBA
  int file_slot;                   // slot of the key file in the journal's file table
};

struct SetDesc {
  int number;
  const char* name;
  int owner;  // record index
  int nmembers;
  int members[2];
};

struct RecDesc {
  int number;
  const char* name;
  uint16_t size;
  std::vector<FieldDesc> fields;  // by position
  // Derived.
  std::vector<int> owned_sets;   // set indexes, in order
  std::vector<int> member_sets;  // set indexes, in order
  std::vector<int> keys;         // key indexes, in order of their field numbers
  uint16_t slot_size;
  uint16_t data_off;  // offset of the record bytes in the slot
  int owner_off(int set) const;   // offset of (first,last,count) of `set` in the slot, -1 if not owned
  int member_off(int set) const;  // offset of (owner,prev,next), -1 if not a member
};

struct Schema {
  std::vector<RecDesc> recs;
  std::vector<SetDesc> sets;
  std::vector<KeyDesc> keys;
  uint32_t hash;  // FNV-1a of serialize() without its trailing hash word

  const RecDesc* rec(int number) const {  // by record number 10000+i; null when out of range
    int i = number - 10000;
    return i >= 0 && i < (int)recs.size() ? &recs[i] : nullptr;
  }
  const SetDesc* set(int number) const {
    int i = number - 20000;
    return i >= 0 && i < (int)sets.size() ? &sets[i] : nullptr;
  }
  // The field with this number, or null.
  const FieldDesc* field(long number) const;
  // Key index of this field number, or -1.
  int key_of(long field) const;

  // The dictionary file image: magic "TVRDBD01", u32 schema version, tables, u32 hash.
  std::string serialize() const;
};

const Schema& schema();

// File slots in the journal's file table: data file of record i is slot i, key file k is 20 + k.
constexpr int kKeyFileSlotBase = TAVREL_DB_NUM_RECORDS;

// Check a dictionary file image against the compiled schema: 0, or -21 when it differs or is malformed.
int check_dictionary(const std::string& image);

}  // namespace tavrel::rec
