// tavrel_dbd_gen: writes the product files of the view database schema into a directory:
//   tavrel_db.dbd              the dictionary of the compiled-in schema (checked by dt_open)
//   tavrel_db_schema_version   the schema version as a decimal number and a newline
#include <cstdio>
#include <string>

#include "db/rec/dt.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: tavrel_dbd_gen <output directory>\n");
    return 2;
  }
  std::string dir = argv[1];
  if (dt_write_dictionary((dir + "/tavrel_db.dbd").c_str()) != 0) {
    fprintf(stderr, "tavrel_dbd_gen: cannot write %s/tavrel_db.dbd\n", dir.c_str());
    return 1;
  }
  std::string path = dir + "/tavrel_db_schema_version";
  FILE* f = fopen(path.c_str(), "w");
  if (!f || fprintf(f, "%d\n", TAVREL_DB_SCHEMA_VERSION) < 0 || fclose(f) != 0) {
    fprintf(stderr, "tavrel_dbd_gen: cannot write %s\n", path.c_str());
    return 1;
  }
  return 0;
}
