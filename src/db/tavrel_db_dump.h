// tavrel_db_dump: the text dump of the view database, written by the dumper program (tavrel_dumper) and
// read back by the loader (tvr_db_load_db) to rebuild a database from scratch.
//
// Files: "tavrel_db.dump_file" in the view storage directory; when it passes TVR_DB_DUMP_SPLIT_BYTES the
// dump goes on in "tavrel_db.dump_file.1", ".2", ... ("%s.%d"). Every file starts with a "Ver" record; only
// the last one ends with "Eof". A dump without "Eof" is incomplete and is never loaded as a whole.
//
// Records: one per line, a tag token of at most 19 characters, then the fields separated by one space.
// Field forms:
//   hex        lower-case hexadecimal without prefix ("%x", "%lx", "%llx")
//   dec        decimal
//   uuid, oid  the 36-character text form (tbs.h); the null value is all zeros
//   counted    decimal length, ':', then exactly that many raw bytes (which may hold spaces or newlines);
//              at most 1023 bytes unless the record says otherwise
//   identity   a security identity as one token of at most 184 characters: "-" when empty, else its bytes
//              in lower-case hex (at most 34 bytes, so 68 characters)
//   fstat      11 hex numbers: file type, mode, link count, then atime, mtime, ctime and the extra pair,
//              each as seconds and microseconds. Namespace objects keep no link count: it is written as 0.
//
// Tags, in the order the writer emits them (references always point backwards, so a loader can build
// each row with the ordinary create functions as it reads):
//   Ver           dec schema version; dec file number (0 for the first file); hex dump id (random, the same
//                 in every file of one dump)
//   Vns-View      uuid view; hex view generation; hex initial generation
//   Silo          uuid replica; counted path (up to 65535 bytes); hex set-work flag; hex hard-link flag
//   Setwork       hex count; that many replica uuids (the silos whose set-work flag is on)
//   Lr-Scope      oid scope; hex generation; hex finished generation; hex reserved; hex operation state;
//                 counted name
//   Inode         uuid silo; oid; hex file type; hex mode; hex mtype; hex link count; hex fourth word;
//                 identity owner; identity group; hex size (64 bits); hex atime sec, usec, mtime sec,
//                 usec, ctime sec, usec; hex extra pair; counted text (up to 65535 bytes).
//                 Inodes without a silo (stranded: their container is waiting for the scrubber) are not
//                 dumped; the check after a load moves such containers to lost+found.
//   Name          uuid silo; oid directory; counted name (up to 255 bytes); oid object (null: a name
//                 without an inode); hex name state (as tvr_db_dir_entry_lookup reports it); hex position
//                 in the directory; hex file type of the object (0 without one); oid hijack version;
//                 oid hijack element. Names follow their directory's order.
//   Cr            hex header word; counted bytes (up to 16 MiB); hex count of derived objects, then for
//                 each: uuid replica, oid; hex count of sub-objects, then their oids; hex count of
//                 referring replicas, then their uuids
//   Vns-Element   uuid silo; oid element; oid checked-out version; hex mtype; hex event sec; hex event
//                 usec; hex checked-out flag; fstat
//   Vns-Root-Dir  uuid silo; oid version; oid element; oid scope; hex generation; hex event sec; hex event
//                 usec; hex validated; hex rddir_done; hex stale; hex saved rddir state; fstat
//   Vns-Version   uuid silo; oid parent directory version; oid element; oid version; oid scope; hex
//                 generation; hex mtype; hex event sec; hex event usec; hex validated; hex rddir_done;
//                 hex stale; hex saved rddir state; hex size (64 bits); fstat; counted name (up to 255).
//                 Written breadth-first from each root, so a directory comes before its names; a version
//                 with several names (hard links) has one record per name.
//   Vns-Slink     uuid silo; oid parent directory version; oid link; oid scope; hex generation; hex event
//                 sec; hex event usec; hex validated; fstat; counted name (up to 255); counted text
//   Eof           nothing; the end of the whole dump
//
// Order: Ver, Vns-View, Silo, Setwork, Lr-Scope, Inode, Name, Cr, Vns-Element, Vns-Root-Dir, Vns-Version,
// Vns-Slink, Eof.
//
// What a dump does not keep: DBAs, dbids and inode generations (the loader hands out new ones), the
// per-name scope removal marks, and directory positions with gaps (a reload numbers each directory's
// names densely from 2 in their order).
#pragma once

#include <cstdint>
#include <string>

struct DB_TASK;

constexpr const char* TVR_DB_DUMP_FILE = "tavrel_db.dump_file";
constexpr uint64_t TVR_DB_DUMP_SPLIT_BYTES = 1ull << 30;
constexpr size_t TVR_DB_DUMP_TAG_MAX = 19;
constexpr size_t TVR_DB_DUMP_COUNTED_MAX = 1023;
constexpr size_t TVR_DB_DUMP_LONG_TEXT_MAX = 65535;
constexpr size_t TVR_DB_DUMP_CR_MAX = 16u << 20;
constexpr size_t TVR_DB_DUMP_IDENTITY_MAX = 184;

// The name of file `number` of the dump at `path`: `path` itself for 0, "path.N" after.
std::string tvr_db_dump_file_name(const std::string& path, int number);

struct tvr_db_dump_stats {
  uint64_t records = 0;   // records written, "Ver" and "Eof" included
  uint64_t skipped = 0;   // rows that could not be read and were left out (each reported)
  int files = 0;          // files written
  uint32_t dump_id = 0;
};

// Opens the database in "db" below the working directory in `*task` (a new engine task). The engine's
// open replays committed transactions of the journal first. 0, or the engine's status.
int tvr_db_dump_open(DB_TASK** task);

// Writes the dump of the database open in `task` to `path` (and its continuation files, a new one each
// time a file passes `split_bytes`). `cr_file` is the side file of configuration-record bytes. A row that
// cannot be read is reported and left out; walks of chains and sets are bounded, so a damaged database
// cannot make the writer loop. Continuation files of an earlier dump beyond the last one written are
// removed. Returns 0 only when "Eof" was written and every file synced; TBS_ST_INTERNAL when a file could
// not be written (reported).
int tvr_db_dump_write(DB_TASK* task, const std::string& path, const std::string& cr_file, uint64_t split_bytes,
                      tvr_db_dump_stats* stats);
