#include "db/rec/test_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "db/rec/io.h"
#include "db/rec/schema.h"

namespace rectest {

namespace {
// The tests imitate crashes by killing processes or dropping state, never a power loss, so data syncs
// only cost time here; DurableCommit (dt_test.cpp) turns them back on.
class NoSync : public ::testing::Environment {
 public:
  void SetUp() override { tavrel::rec::io_set_nosync(true); }
};
[[maybe_unused]] auto* const g_nosync = ::testing::AddGlobalTestEnvironment(new NoSync);
}  // namespace

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/tavrel_rec_XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back(0);
  if (!mkdtemp(buf.data())) abort();
  path_ = buf.data();
}

TempDir::~TempDir() {
  DIR* d = opendir(path_.c_str());
  if (d) {
    while (dirent* e = readdir(d)) {
      if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
      unlink((path_ + "/" + e->d_name).c_str());
    }
    closedir(d);
  }
  rmdir(path_.c_str());
}

static void sink(int, const char* text, void* ctx) { static_cast<Capture*>(ctx)->lines.push_back(text); }

Capture::Capture() { dt_set_msg_sink(sink, this); }
Capture::~Capture() { dt_set_msg_sink(nullptr, nullptr); }

bool Capture::contains(const std::string& needle) const {
  for (const auto& l : lines)
    if (l.find(needle) != std::string::npos) return true;
  return false;
}

int open_db(DB_TASK* task, const std::string& dir, int page_size, int frames) {
  std::string dbd = dir + "/tavrel_db.dbd";
  if (read_file(dbd) != tavrel::rec::schema().serialize()) dt_write_dictionary(dbd.c_str());
  d_setpagesize(page_size);
  d_setpages(frames, 0);
  dt_dbwdir(dir.c_str(), task);
  return dt_open("tavrel_db", "o", task);
}

std::string hex(const void* p, size_t n) {
  static const char* d = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; i++) {
    uint8_t b = static_cast<const uint8_t*>(p)[i];
    s += d[b >> 4];
    s += d[b & 15];
  }
  return s;
}

std::string dump(DB_TASK* task) {
  const auto& s = tavrel::rec::schema();
  DB_ADDR* saved;
  int size;
  dt_rdcurr(&saved, &size, task);
  std::ostringstream out;
  uint8_t buf[512];
  for (const auto& rd : s.recs) {
    for (int st = dt_recfrst(rd.number, task, -1); st == 0; st = dt_recnext(task, -1)) {
      DB_ADDR dba;
      dt_crget(&dba, task, -1);
      dt_recread(buf, task, -1);
      out << rd.name << " " << std::hex << dba << std::dec << " " << hex(buf, rd.size) << "\n";
      for (int set : rd.owned_sets) {
        int sn = 20000 + set;
        dt_setor(sn, task, -1);
        long n = -1;
        dt_members(sn, &n, task, -1);
        out << "  set " << s.sets[set].name << " n=" << n << ":";
        for (int m = dt_findfm(sn, task, -1); m == 0; m = dt_findnm(sn, task, -1)) {
          DB_ADDR md;
          dt_crget(&md, task, -1);
          out << " " << std::hex << md << std::dec;
        }
        out << "\n";
        dt_crset(&dba, task, -1);
      }
    }
  }
  // Keys: walk each one backwards from its last entry (independent of any key position).
  for (const auto& kd : s.keys) {
    std::vector<std::string> entries;
    for (int st = dt_keylast(kd.field, task, -1); st == 0; st = dt_keyprev(kd.field, task, -1)) {
      DB_ADDR dba;
      dt_crget(&dba, task, -1);
      dt_keyread(buf, task);
      std::ostringstream e;
      e << " " << hex(buf, kd.buf_len) << "@" << std::hex << dba;
      entries.push_back(e.str());
    }
    out << "key " << kd.field << ":";
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) out << *it;
    out << "\n";
  }
  dt_wrcurr(saved, task);
  return out.str();
}

void copy_dir(const std::string& from, const std::string& to) {
  DIR* d = opendir(from.c_str());
  if (!d) return;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    write_file(to + "/" + e->d_name, read_file(from + "/" + e->d_name));
  }
  closedir(d);
}

void sync_dir(const std::string& from, const std::string& to) {
  DIR* d = opendir(from.c_str());
  if (!d) return;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::string want = read_file(from + "/" + e->d_name);
    if (read_file(to + "/" + e->d_name) != want) write_file(to + "/" + e->d_name, want);
  }
  closedir(d);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void write_file(const std::string& path, const std::string& data) {
  // Overwrite in place and then cut to size: truncating to zero first would make the file system flush
  // the file at close, which costs a disk round trip per call.
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
  if (fd < 0) abort();
  if (!data.empty() && pwrite(fd, data.data(), data.size(), 0) != (ssize_t)data.size()) abort();
  if (ftruncate(fd, (off_t)data.size()) != 0) abort();
  ::close(fd);
}

}  // namespace rectest
