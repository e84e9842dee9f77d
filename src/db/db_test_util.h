// db_test_util.h: a scratch view storage directory with the view database in it, for the tests of the
// database layers, and a capture of the messages the layers print.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db/tavrel_engine_db.h"

namespace dbtest {

// Messages printed through imsg while the object lives.
class Messages {
 public:
  Messages();
  ~Messages();
  bool contains(const std::string& needle) const;
  std::string all() const;
  void clear();

 private:
  static void add(void* self, const char* text);
  std::vector<std::string> lines_;
};

// Makes a scratch storage directory, points the product directory at the build's product files, and
// enters the directory (the database works relative to the working directory). Leaves it, and removes it,
// at the end; a database still open is closed first. The directory is made in /tmp, or in
// $TAVREL_TEST_STORAGE_UNDER when set: a death test's child process never reaches its destructor, so
// its storage must lie inside the parent's, which the parent removes.
class Storage {
 public:
  Storage();
  ~Storage();
  const std::string& path() const { return path_; }
  void write(const std::string& name, const std::string& data) const;
  std::string read(const std::string& name) const;

 private:
  std::string path_, old_cwd_;
};

// A fixture whose database is created (state 'n' on an empty storage) before each test.
class DbTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  std::unique_ptr<Storage> storage_;
};

}  // namespace dbtest
