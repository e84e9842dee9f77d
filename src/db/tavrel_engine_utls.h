// tavrel_engine_utls: small pieces every record function of the view database shares.
//
// Identifiers: a row's DBA (database address, dt.h) is handed out of the database as a dbid, the DBA
// with the top bit set (TVR_DB_DBID_FLAG), so that 0 stays "none" and a stray small number is caught.
// Namespace objects are the exception: their dbid is a per-SILO counter without the flag (see the
// namespace records). tvr_db_dbid_to_dba checks the flagged form.
#pragma once

#include <cstddef>
#include <cstdint>

#include "db/rec/tavrel_db_schema.h"

constexpr uint32_t TVR_DB_DBID_FLAG = 0x80000000u;

// 0 and *dba = dbid without the flag; 1002 for a dbid of 0; 1008 when the flag is missing.
int tvr_db_dbid_to_dba(uint32_t dbid, DB_ADDR* dba);
inline uint32_t tvr_db_dba_to_dbid(DB_ADDR dba) { return dba == 0 ? 0 : (dba | TVR_DB_DBID_FLAG); }

// The name hash of the directory keys: h = rotl32(h, 5) + (signed char)byte, from 0.
uint32_t tvr_db_hash_name(const char* name, size_t len);

// Names longer than this give 1084.
constexpr size_t TVR_DB_MAX_NAME = 255;
