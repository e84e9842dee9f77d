// The check after a load: makes the inode records and the container files under ".s" agree, and drops
// what a fresh database does not need.
//
//   1. Inodes, ten at a time in one write transaction: an inode with no link or no name goes (a directory
//      that still holds names stays), its container to ".s/lost+found"; a view-private file whose
//      container is missing goes; a container named by two inodes stays with the first, the later inode
//      goes.
//   2. Every file in the container directories ".s/NNNNN" that no inode names moves to ".s/lost+found".
//   3. Names of repository objects that carry no hijack state go, each taking its share off the size of
//      its directory.
//   4. Configuration records nothing refers to go.
// At the end the files are synced and the state letter is 'i'.
// A failure aborts the transaction it happened in and is returned; the dump is still there for another try.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/imsg.h"
#include "base/tbs.h"
#include "db/tavrel_db_container.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_cr.h"
#include "db/tvr_db_dir.h"
#include "db/tvr_db_inode.h"
#include "db/tvr_db_store.h"

namespace {

constexpr const char* POOL = ".s";
constexpr const char* LOST_FOUND = ".s/lost+found";

bool is_private(silo_mtype_t m) { return m == 4 || m == 19 || m == 21 || m == 22 || m == 23 || m == 26; }

using FileId = std::pair<dev_t, ino_t>;

// Moves `path` into lost+found under its leaf name, or under a fresh UUID when that name is taken.
void to_lost_found(const std::string& path) {
  std::string to;
  if (move_to_lost_and_found_at(POOL, path, &to) != 0) {
    imsg_print(IMSG_ERR, "Unable to move %s to %s\n", path.c_str(), LOST_FOUND);
    return;
  }
  imsg_print(IMSG_OK, "%s moved to %s\n", path.c_str(), to.c_str());
}

// One inode of step 1. *remove_container: the inode goes and its container with it.
int check_inode(uint32_t dbid, std::map<FileId, uint32_t>& used, tbs_oid_s* oid_out, uint32_t* silo_out) {
  tbs_oid_s oid;
  tbs_fstat_db_t f;
  silo_mtype_t mtype = 0;
  uint32_t silo = 0, gen = 0;
  int st = tvr_db_inode_read(dbid, &gen, &oid, &f, &mtype, &silo);
  if (st != 0) return st;
  *oid_out = oid;
  *silo_out = silo;
  std::vector<char> text(65536);
  st = tvr_db_inode_read_text(dbid, text.data(), text.size());
  if (st != 0) return st;
  std::string container = text[0] != '\0' && f.type != TBS_FTYPE_LINK ? std::string(POOL) + "/" + text.data() : "";
  std::string oid_text = tbs_oid_to_str(oid);

  bool unnamed = f.nlink == 0;
  if (!unnamed) {
    uint32_t parent = 0;
    std::string name;
    st = tvr_db_find_parent(dbid, &parent, &name);
    if (st == TBS_ST_NOT_FOUND) unnamed = true;
    else if (st != 0) return st;
  }
  if (unnamed && f.type == TBS_FTYPE_DIR && tvr_db_dir_empty(dbid) == TBS_ST_NOT_EMPTY) unnamed = false;
  bool drop = unnamed, move_container = unnamed;
  struct stat cs;
  if (!drop && !container.empty()) {
    if (stat(container.c_str(), &cs) != 0) {
      if (errno != ENOENT) {
        imsg_print(IMSG_ERR, "Unable to stat %s: %s\n", container.c_str(), strerror(errno));
        return TBS_ST_INTERNAL;
      }
      if (is_private(mtype)) {
        imsg_print(IMSG_ERR, "Missing cltxt '%s' for %s\n", container.c_str(), oid_text.c_str());
        drop = true;
      }
    } else {
      auto [it, fresh] = used.emplace(FileId(cs.st_dev, cs.st_ino), dbid);
      if (!fresh) {
        imsg_print(IMSG_ERR, "CLTXT %s used in multiple inodes, 0x%lx and 0x%lx\n", container.c_str(),
                   static_cast<unsigned long>(it->second), static_cast<unsigned long>(dbid));
        drop = true;
      }
    }
  }
  if (!drop) return 0;
  st = tvr_db_inode_delete(dbid, 0);
  if (st != 0) return st;
  imsg_print(IMSG_OK, "Inode %s removed\n", oid_text.c_str());
  if (move_container && !container.empty() && lstat(container.c_str(), &cs) == 0) to_lost_found(container);
  return 0;
}

int check_inodes(std::map<FileId, uint32_t>& used) {
  tbs_oid_s start = TBS_OID_NULL;
  uint32_t start_silo = 0;
  return tvr_db_in_trans(1, [&] {
    for (;;) {
      uint32_t dbids[10];
      size_t count = 0;
      int st = tvr_db_inode_inventory(start_silo, start, dbids, 10, &count, 1);
      if (st != 0) return st;
      const tbs_oid_s prev = start;
      const uint32_t prev_silo = start_silo;
      for (size_t i = 0; i < count; i++) {
        st = check_inode(dbids[i], used, &start, &start_silo);
        if (st != 0) return st;
      }
      // Each portion goes on after the last inode seen; a walk that does not move on is over.
      if (count < 10 || (start == prev && start_silo == prev_silo)) return 0;
    }
  });
}

// Step 2: the container directories, as a plain directory walk.
void sweep_pool(const std::map<FileId, uint32_t>& used) {
  DIR* top = opendir(POOL);
  if (!top) return;
  std::vector<std::string> dirs;
  while (dirent* e = readdir(top)) {
    std::string n = e->d_name;
    if (n == "." || n == ".." || n == "lost+found") continue;
    std::string p = std::string(POOL) + "/" + n;
    struct stat st;
    if (lstat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) dirs.push_back(p);
  }
  closedir(top);
  for (const auto& d : dirs) {
    DIR* dir = opendir(d.c_str());
    if (!dir) continue;
    std::vector<std::string> strays;
    while (dirent* e = readdir(dir)) {
      std::string n = e->d_name;
      if (n == "." || n == "..") continue;
      std::string p = d + "/" + n;
      struct stat st;
      if (lstat(p.c_str(), &st) != 0) continue;
      if (used.count(FileId(st.st_dev, st.st_ino)) == 0) strays.push_back(p);
    }
    closedir(dir);
    for (const auto& p : strays) to_lost_found(p);
  }
}

// Step 3.
int drop_silo_names() {
  uint32_t cursor = 0;
  int eof = 0;
  while (!eof) {
    int st = tvr_db_in_trans(1, [&] {
      std::vector<tvr_db_name_info> names;
      int st = tvr_db_inventory(&cursor, 8192, &names, &eof);
      if (st != 0) return st;
      for (const auto& n : names) {
        if (tbs_oid_is_null(n.oid) || (n.state & (TVR_DB_NS_HIJACK_OIDS | TVR_DB_NS_HIJACK_PART)) != 0 ||
            is_private(n.mtype))
          continue;
        st = tvr_db_dir_entry_delete(n.dir, n.name.data(), n.name.size(), 0, nullptr);
        if (st != 0) return st;
        tbs_fstat_db_t df;
        st = tvr_db_inode_read(n.dir, nullptr, nullptr, &df, nullptr, nullptr);
        if (st != 0) return st;
        uint64_t share = n.name.size() + TVR_DB_DIR_NAME_OVERHEAD;
        df.size = df.size > share ? df.size - share : 0;
        st = tvr_db_inode_rewrite(n.dir, df);
        if (st != 0) return st;
      }
      return 0;
    });
    if (st != 0) return st;
  }
  return 0;
}

}  // namespace

int tvr_db_fsck_db() {
  std::map<FileId, uint32_t> used;
  int st = check_inodes(used);
  if (st != 0) return st;
  sweep_pool(used);
  st = drop_silo_names();
  if (st != 0) return st;
  st = tvr_db_in_trans(1, [] { return tvr_db_fsck_crs(); });
  if (st != 0) return st;
  // The repaired database is synced and marked clean at once rather than after the next quiet spell.
  return tvr_db_state_purify();
}
