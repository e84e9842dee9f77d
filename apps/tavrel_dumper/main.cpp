// tavrel_dumper: writes the view database of a view storage directory to "tavrel_db.dump_file" there (see
// src/db/tavrel_db_dump.h for the format), or with -check runs the engine's invariant check.
//
// Exit codes: 0 the dump ends with "Eof" and every file is synced (or, with -check, every invariant holds);
// 2 usage; 3 the storage directory or the database cannot be opened; 4 a dump file cannot be written or
// synced; 5 the check found a broken invariant.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "db/rec/dt.h"
#include "db/tavrel_db_dump.h"

namespace {

enum : int { EXIT_OK = 0, EXIT_USAGE = 2, EXIT_OPEN = 3, EXIT_WRITE = 4, EXIT_CHECK = 5 };

void usage(FILE* out) {
  fprintf(out,
          "usage: tavrel_dumper [-check] <view storage directory>\n"
          "  Writes the view database of the directory to \"tavrel_db.dump_file\" in it (continued in\n"
          "  \"tavrel_db.dump_file.1\", ... past 1 GiB). Opening the database first replays its journal.\n"
          "  -check   check every invariant of the database instead; no dump is written\n"
          "  --help   this text\n"
          "exit codes:\n"
          "  0  done: the dump ends with \"Eof\" and is synced, or the check found nothing\n"
          "  2  usage\n"
          "  3  the directory or its database cannot be opened\n"
          "  4  a dump file cannot be written or synced\n"
          "  5  the check found a broken invariant\n");
}

}  // namespace

int main(int argc, char** argv) {
  bool check = false;
  const char* dir = nullptr;
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      usage(stdout);
      return EXIT_OK;
    }
    if (a == "-check") {
      check = true;
    } else if (!a.empty() && a[0] == '-') {
      fprintf(stderr, "tavrel_dumper: unknown option %s\n", a.c_str());
      usage(stderr);
      return EXIT_USAGE;
    } else if (dir) {
      fprintf(stderr, "tavrel_dumper: one storage directory only\n");
      usage(stderr);
      return EXIT_USAGE;
    } else {
      dir = argv[i];
    }
  }
  if (!dir) {
    usage(stderr);
    return EXIT_USAGE;
  }
  if (chdir(dir) != 0) {
    fprintf(stderr, "tavrel_dumper: cannot enter %s: %s\n", dir, strerror(errno));
    return EXIT_OPEN;
  }
  DB_TASK* task = nullptr;
  int st = tvr_db_dump_open(&task);
  if (st != 0) {
    fprintf(stderr, "tavrel_dumper: cannot open the view database in %s: %s\n", dir, dberr_code(st).c_str());
    return EXIT_OPEN;
  }
  int rc = EXIT_OK;
  if (check) {
    std::string report;
    st = dt_check(&report, task);
    if (st != 0) {
      fprintf(stdout, "View database %s fails its check:\n%s\n", dir, report.c_str());
      rc = EXIT_CHECK;
    } else {
      fprintf(stdout, "View database %s: every invariant holds\n", dir);
    }
  } else {
    tvr_db_dump_stats stats;
    st = tvr_db_dump_write(task, TVR_DB_DUMP_FILE, ".s/tavrel_db.crs_file", TVR_DB_DUMP_SPLIT_BYTES, &stats);
    if (st != 0) {
      rc = EXIT_WRITE;
    } else {
      fprintf(stdout, "Dumped view database %s: %llu records in %d file(s), %llu row(s) unreadable\n", dir,
              static_cast<unsigned long long>(stats.records), stats.files,
              static_cast<unsigned long long>(stats.skipped));
    }
  }
  dt_close(task);
  dt_closetask(task);
  return rc;
}
