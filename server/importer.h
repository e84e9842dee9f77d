// Import of a real directory tree as a new SILO.
//
// Regular files, directories and symbolic links become elements (or links) with one version each,
// main/1, carrying the file's bytes, its permission bits and its modification time as creation time.
// The whole import is one write transaction: either the SILO exists afterwards with everything, or
// the store is unchanged. A symbolic link keeps its text as it is, relative or absolute. Entries that
// cannot be represented are skipped and counted: other file types (devices, FIFOs, sockets), links
// whose text is over 1023 bytes, paths longer than 1023 bytes, files larger than the size limit.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "server/store.h"

namespace tavrel_server {

struct ImportOptions {
  bool is_public = false;
  bool is_project = false;
  std::string storage;  // reported as SiloStorage; default "<store path>#<tag>"
  uint64_t max_file_size = 512ull << 20;
};

struct ImportStats {
  Silo silo;
  uint64_t files = 0, dirs = 0, links = 0, bytes = 0;
  std::vector<std::string> skipped;  // "path: reason"
};

// Fails with ServerError (1067 if the tag exists, 1072 for a bad tag or source, 1008 for I/O errors).
ImportStats import_tree(Store& store, const std::string& tag, const std::string& source, const ImportOptions& opt);

}  // namespace tavrel_server
