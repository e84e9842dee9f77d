#include "db/db_test_util.h"

#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "base/fileutl.h"
#include "base/imsg.h"

namespace dbtest {

Messages::Messages() {
  imsg_redirect_proc_t procs[11];
  for (auto& p : procs) p = &Messages::add;
  imsg_set_redirect_procs(procs, 11, this);
}

Messages::~Messages() { imsg_set_redirect_procs(nullptr, 0, nullptr); }

void Messages::add(void* self, const char* text) { static_cast<Messages*>(self)->lines_.emplace_back(text); }

bool Messages::contains(const std::string& needle) const { return all().find(needle) != std::string::npos; }

std::string Messages::all() const {
  std::string s;
  for (const auto& l : lines_) s += l;
  return s;
}

void Messages::clear() { lines_.clear(); }

Storage::Storage() {
  const char* under = getenv("TAVREL_TEST_STORAGE_UNDER");
  std::string tmpl = std::string(under && *under ? under : "/tmp") + "/tavrel_db_XXXXXX";
  if (!mkdtemp(tmpl.data())) abort();
  path_ = tmpl;
  char buf[4096];
  old_cwd_ = getcwd(buf, sizeof buf) ? buf : "/";
  setenv("TAVREL_PRODUCT_DIR", TAVREL_PRODUCT_DIR, 1);
  if (chdir(path_.c_str()) != 0) abort();
}

Storage::~Storage() {
  tvr_db_close_db();
  if (chdir(old_cwd_.c_str()) != 0) abort();
  fileutl_rm_tree(path_);
}

void Storage::write(const std::string& name, const std::string& data) const {
  std::ofstream(path_ + "/" + name, std::ios::binary | std::ios::trunc) << data;
}

std::string Storage::read(const std::string& name) const {
  std::ifstream in(path_ + "/" + name, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void DbTest::SetUp() {
  storage_ = std::make_unique<Storage>();
  int created = 0;
  ASSERT_EQ(tavrel_db_init(&created), 0);
  ASSERT_EQ(created, 1);
}

void DbTest::TearDown() { storage_.reset(); }

}  // namespace dbtest
