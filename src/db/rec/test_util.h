// test_util.h: helpers shared by the record engine's tests: scratch directories, opening a database with
// a chosen geometry, capturing engine messages, and a logical dump of a whole database.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "db/rec/dt.h"

namespace rectest {

// A fresh scratch directory, removed (with its files) when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Messages the engine reported since the last clear (installed as the message sink by Capture's ctor).
struct Capture {
  Capture();
  ~Capture();
  std::vector<std::string> lines;
  bool contains(const std::string& needle) const;
};

// Write the dictionary into `dir`, set the geometry, open "tavrel_db" there. Returns the dt_open status.
int open_db(DB_TASK* task, const std::string& dir, int page_size = 512, int frames = 8);

// A text dump of every row (type, DBA, bytes), every set chain and every key entry of the open database,
// walked through the public interface; equal dumps mean equal logical content. Positions are saved and
// restored around the walk.
std::string dump(DB_TASK* task);

std::string hex(const void* p, size_t n);

// Copy every regular file of `from` into `to` (which must exist).
void copy_dir(const std::string& from, const std::string& to);
// Make the files of `to` equal to those of `from`, rewriting only the ones that differ.
void sync_dir(const std::string& from, const std::string& to);
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& data);

}  // namespace rectest
