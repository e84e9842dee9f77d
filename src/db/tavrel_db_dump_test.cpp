// Dump, load and check of the view database: round trips, hand-made dumps, and repair at start-up with the
// product's dumper, including after a kill -9 in the middle of a stream of commits.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/fileutl.h"
#include "db/db_test_util.h"
#include "db/rec/dt.h"
#include "db/rec/schema.h"
#include "db/tavrel_db_dump.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_cr.h"
#include "db/tvr_db_dir.h"
#include "db/tvr_db_inode.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"

namespace {

using dbtest::DbTest;
using dbtest::Messages;

tbs_uuid_s uuid_n(uint8_t n) {
  tbs_uuid_s u{};
  for (int i = 0; i < 16; i++) u.bytes[i] = uint8_t(n * 7 + i);
  return u;
}
tbs_oid_s oid_n(uint8_t n) {
  tbs_oid_s o{};
  for (int i = 0; i < 16; i++) o.bytes[i] = uint8_t(n * 13 + i + 1);
  return o;
}

tbs_fstat_db_t fstat_of(uint32_t type, uint32_t mode) {
  tbs_fstat_db_t f{};
  f.type = type;
  f.mode = mode;
  f.owner.len = 3;
  memcpy(f.owner.bytes, "501", 3);
  f.group.len = 33;  // longer than the inline head: exercises the identity chain
  memset(f.group.bytes, 'g', 33);
  f.size = 1234567890123ull;
  f.mtime = {1700000000, 5};
  f.atime = {1700000001, 6};
  f.ctime = {1700000002, 7};
  f.fourth_time = {11, 12};
  return f;
}

// The dump of the closed database of the working directory, as text, with the dump id blanked out.
std::string dump_now(uint64_t split = 0, tvr_db_dump_stats* stats = nullptr) {
  tvr_db_close_db();
  DB_TASK* task = nullptr;
  EXPECT_EQ(tvr_db_dump_open(&task), 0);
  if (!task) return "";
  tvr_db_dump_stats local;
  EXPECT_EQ(tvr_db_dump_write(task, TVR_DB_DUMP_FILE, ".s/tavrel_db.crs_file", split, stats ? stats : &local), 0);
  dt_close(task);
  dt_closetask(task);
  std::string all, part;
  for (int n = 0; fileutl_read_file(tvr_db_dump_file_name(TVR_DB_DUMP_FILE, n), &part, 1u << 30) == 0; n++) {
    // "Ver <schema> <number> <id>": drop the id, which is new in every dump.
    size_t eol = part.find('\n');
    all += part.substr(0, part.rfind(' ', eol)) + part.substr(eol);
  }
  return all;
}

// A database with a bit of everything, made through the ordinary record functions.
void build_sample(bool with_tree) {
  ASSERT_EQ(mkdir(".s/00001", 0700), 0);
  int fd = open(".s/00001/f.c", O_CREAT | O_WRONLY, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  ASSERT_EQ(tvr_db_in_trans(1, [&] {
    uint32_t silo = 0, dir = 0, file = 0, gen = 0, cr = 0;
    std::string long_path = "/proj/" + std::string(300, 'p');
    int st = tvr_db_create_def_scope();
    if (st == 0) st = tvr_db_create_vns_view(uuid_n(9), 4);
    if (st == 0) st = tvr_db_set_vns_view_gn(6);
    if (st == 0) st = tvr_db_silo_create(uuid_n(1), long_path, &silo);
    if (st == 0) st = tvr_db_silo_set_setwork_flag(silo, 1);
    if (st == 0) st = tvr_db_create_lr_scope(oid_n(50), 3, ("scope-" + std::string(80, 's')).c_str());
    tbs_fstat_db_t df = fstat_of(2, 0755);
    df.nlink = 1;
    df.size = 89;
    if (st == 0) st = tvr_db_inode_create(silo, oid_n(1), df, 19, &dir, &gen);
    if (st == 0) st = tvr_db_dir_create(dir);
    if (st == 0) st = tvr_db_inode_create(silo, oid_n(2), fstat_of(1, 0644), 19, &file, &gen);
    if (st == 0) st = tvr_db_inode_write_text(file, "00001/f.c");
    std::string long_name = "a-name-longer-than-the-inline-head-of-25-bytes.c";
    if (st == 0) st = tvr_db_link(dir, long_name.data(), long_name.size(), file, 0, nullptr, nullptr, 1, nullptr, nullptr);
    if (st == 0) st = tvr_db_link(dir, "gone", 4, 0, 0, nullptr, nullptr, 1, nullptr, nullptr);
    tvr_db_cr_data data;
    data.header = 0x77;
    data.bytes = {1, 2, 3, '\n', ' ', 9};
    tbs_oid_s dos[2] = {oid_n(2), oid_n(3)};
    if (st == 0) st = tvr_db_cr_create(dos, uuid_n(1), 2, nullptr, 0, data, 0, 0, &cr);
    if (st == 0) st = tvr_db_cr_add_silo_ref(cr, uuid_n(1));
    if (st != 0 || !with_tree) return st;
    struct timeval ev = {1600000000, 42};
    tbs_fstat_db_t vf = fstat_of(2, 0755);
    uint32_t root = 0, sub = 0, ver = 0, link = 0, elem = 0;
    const tbs_oid_s co = oid_n(30), scope = oid_n(50);
    st = tvr_db_create_vns_elem(silo, oid_n(20), 2, ev, vf, 0, nullptr, &elem);
    if (st == 0) st = tvr_db_create_vns_elem(silo, oid_n(21), 5, ev, fstat_of(1, 0444), 1, &co, &elem);
    if (st == 0) st = tvr_db_create_vns_elem(silo, oid_n(26), 2, ev, vf, 0, nullptr, &elem);
    if (st == 0) st = tvr_db_create_root_dir(silo, oid_n(22), oid_n(20), ev, vf, nullptr, 1, 0, &root);
    if (st == 0) st = tvr_db_create_vns_ver(silo, root, oid_n(23), oid_n(26), 3, ev, "sub", vf, nullptr, 1, 0, &sub, nullptr, nullptr);
    if (st == 0) st = tvr_db_create_vns_ver(silo, sub, oid_n(24), oid_n(21), 6, ev, "file.c", fstat_of(1, 0444), &scope, 3, 0, &ver, nullptr, nullptr);
    if (st == 0) st = tvr_db_create_vns_ver(silo, root, oid_n(24), oid_n(21), 6, ev, "hard", fstat_of(1, 0444), nullptr, 1, 0, &ver, nullptr, nullptr);
    if (st == 0) st = tvr_db_create_vns_slink(silo, sub, oid_n(25), ev, "ln", "../file.c", nullptr, 1, &link);
    if (st == 0) st = tvr_db_ver_set_stale(silo, ver, 1);
    bool removed = false;
    if (st == 0) st = tvr_db_ver_set_readdir_done(silo, sub, 1, removed);
    return st;
  }), 0);
}

TEST_F(DbTest, DumpLoadDumpIsIdentical) {
  build_sample(true);
  tvr_db_dump_stats stats;
  std::string first = dump_now(0, &stats);
  EXPECT_EQ(stats.skipped, 0u);
  for (const char* tag : {"\nVns-View ", "\nSilo ", "\nSetwork 1 ", "\nLr-Scope ", "\nInode ", "\nName ", "\nCr ",
                          "\nVns-Element ", "\nVns-Root-Dir ", "\nVns-Version ", "\nVns-Slink ", "\nEof\n"})
    EXPECT_NE(first.find(tag), std::string::npos) << tag;
  Messages msgs;
  ASSERT_EQ(tvr_db_load_db(), 0) << msgs.all();
  EXPECT_TRUE(msgs.contains("Loading DB "));
  EXPECT_EQ(tvr_db_state(), 'i');
  EXPECT_FALSE(fileutl_exists(TVR_DB_DUMP_FILE)) << "nothing was skipped, so the dump goes";
  EXPECT_FALSE(fileutl_exists(TVR_DB_LOADING_MARKER));
  EXPECT_EQ(dump_now(), first);
  // A dump split into many files loads to the same database.
  std::string split = dump_now(200, &stats);
  EXPECT_GT(stats.files, 3);
  ASSERT_EQ(tvr_db_load_db(), 0) << msgs.all();
  EXPECT_EQ(dump_now(), first);
}

struct HandDump {
  const char* what;
  std::vector<std::string> files;
  int status;
  const char* message;
  char state;  // after the load
  int silos;   // in the loaded database; -1 when the load fails
};

TEST_F(DbTest, HandMadeDumps) {
  const std::string u = tbs_uuid_to_str(uuid_n(1));
  const HandDump cases[] = {
      {"Ver and Eof alone", {"Ver 1 0 7\nEof\n"}, 0, "Loading DB", 'i', 0},
      {"split in two", {"Ver 1 0 7\nSilo " + u + " 1:a 0 0\n", "Ver 1 1 7\nEof\n"}, 0, "Loading DB", 'i', 1},
      {"wrong file number", {"Ver 1 0 7\n", "Ver 1 2 7\nEof\n"}, TBS_ST_INTERNAL,
       "Load file number mismatch, expecting 1:7l, got 2:7l", 'm', -1},
      {"wrong dump id", {"Ver 1 0 7\n", "Ver 1 1 8\nEof\n"}, TBS_ST_INTERNAL, "Load file number mismatch", 'm', -1},
      {"no Eof", {"Ver 1 0 7\n"}, TBS_ST_INTERNAL, "ends without \"Eof\"", 'm', -1},
      {"unknown tag", {"Ver 1 0 7\nBogus 1\nEof\n"}, TBS_ST_INTERNAL, "Unable to decode record at line 2", 'm', -1},
      {"short counted string", {"Ver 1 0 7\nSilo " + u + " 9:ab"}, TBS_ST_INTERNAL, "Unable to decode record", 'm', -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    tvr_db_close_db();
    storage_->write("tavrel_db.state", "m\n");
    for (size_t n = 0; n < c.files.size(); n++) storage_->write(tvr_db_dump_file_name(TVR_DB_DUMP_FILE, int(n)), c.files[n]);
    Messages msgs;
    EXPECT_EQ(tvr_db_load_db(), c.status) << msgs.all();
    EXPECT_TRUE(msgs.contains(c.message)) << msgs.all();
    EXPECT_EQ(tvr_db_state(), c.state);
    // A failed load keeps the dump and its marker; a good one removes both.
    EXPECT_EQ(fileutl_exists(TVR_DB_DUMP_FILE), c.status != 0);
    EXPECT_EQ(fileutl_exists(TVR_DB_LOADING_MARKER), c.status != 0);
    if (c.silos >= 0) {
      std::vector<tvr_db_silo_info> silos;
      EXPECT_EQ(tvr_db_in_trans(0, [&] { return tvr_db_inventory_silos(&silos, 0); }), 0);
      EXPECT_EQ(int(silos.size()), c.silos);
    }
    for (size_t n = 0; n < c.files.size(); n++) unlink(tvr_db_dump_file_name(TVR_DB_DUMP_FILE, int(n)).c_str());
  }
  EXPECT_EQ(tvr_db_load_db(), TBS_ST_NO_SUCH_NAME) << "without a dump there is nothing to load";
}

TEST_F(DbTest, SkippedRecordsKeepTheDump) {
  const std::string u = tbs_uuid_to_str(uuid_n(1)), o = tbs_oid_to_str(oid_n(1));
  const std::string inode = "Inode " + u + " " + o;
  const std::string tail = " - - 0 0 0 0 0 0 0 0 0 0:\n";
  storage_->write(TVR_DB_DUMP_FILE, "Ver 1 0 7\nSilo " + u + " 1:a 0 0\nSilo " + u + " 1:b 0 0\n" +
                                        inode + " 1 1000 13 1 0" + tail +  // mode beyond 0xfff
                                        inode + " 1 1a4 1b 1 0" + tail +   // mtype 27
                                        inode + " 2 1a4 5 1 0" + tail +    // a file element as a directory
                                        inode + " 1 9a4 13 1 0" + tail +   // setuid for another owner: loaded
                                        "Eof\n");
  tvr_db_close_db();
  Messages msgs;
  ASSERT_EQ(tvr_db_load_db(), 0) << msgs.all();
  for (const char* m : {"Unable to load silo record", "Invalid mode 4096", "Invalid mtype 27", "Invalid ftype 2",
                        "Unable to load inode ", "record(s) of the dump"})
    EXPECT_TRUE(msgs.contains(m)) << m << "\n" << msgs.all();
  EXPECT_EQ(msgs.contains("setuid stripped"), geteuid() != 0);
  EXPECT_EQ(tvr_db_state(), 'i');
  EXPECT_TRUE(fileutl_exists(TVR_DB_DUMP_FILE));
  uint32_t silo = 0, dbid = 0;
  tbs_fstat_db_t f;
  ASSERT_EQ(tvr_db_in_trans(0, [&] {
    int st = tvr_db_silo_lookup(uuid_n(1), &silo);
    if (st == 0) st = tvr_db_inode_lookup(silo, oid_n(1), &dbid);
    return st == 0 ? tvr_db_inode_read(dbid, nullptr, nullptr, &f, nullptr, nullptr) : st;
  }), 0);
  EXPECT_EQ(f.mode & 04000u, geteuid() == 0 ? 04000u : 0u);
}

// A database in 'm' is dumped by the product's dumper and loaded again at the next start.
TEST_F(DbTest, StartInModifiedStateRepairsWithTheDumper) {
  build_sample(false);
  std::string before = dump_now();
  unlink(TVR_DB_DUMP_FILE);
  storage_->write("tavrel_db.state", "m\n");
  Messages msgs;
  int created = 0;
  ASSERT_EQ(tavrel_db_init(&created), 0) << msgs.all();
  EXPECT_TRUE(msgs.contains("Dumping DB ")) << msgs.all();
  EXPECT_TRUE(msgs.contains("Loading DB ")) << msgs.all();
  EXPECT_EQ(tvr_db_state(), 'i');
  EXPECT_TRUE(tvr_db_is_open());
  EXPECT_EQ(dump_now(), before);
}

// The check after a load: containers no inode names go to lost+found; a private file without its
// container goes.
TEST_F(DbTest, CheckMatchesInodesAndContainers) {
  build_sample(false);
  ASSERT_EQ(mkdir(".s/00002", 0700), 0);
  storage_->write(".s/00002/stray", "x");
  unlink(".s/00001/f.c");
  Messages msgs;
  ASSERT_EQ(tvr_db_fsck_db(), 0) << msgs.all();
  EXPECT_TRUE(msgs.contains("Missing cltxt '.s/00001/f.c' for " + tbs_oid_to_str(oid_n(2)))) << msgs.all();
  EXPECT_TRUE(msgs.contains("Inode " + tbs_oid_to_str(oid_n(2)) + " removed")) << msgs.all();
  EXPECT_TRUE(msgs.contains(".s/00002/stray moved to .s/lost+found/stray")) << msgs.all();
  EXPECT_TRUE(fileutl_exists(".s/lost+found/stray"));
  uint32_t silo = 0, dbid = 0;
  EXPECT_EQ(tvr_db_in_trans(0, [&] {
    int st = tvr_db_silo_lookup(uuid_n(1), &silo);
    return st == 0 ? tvr_db_inode_lookup(silo, oid_n(2), &dbid) : st;
  }), TBS_ST_NOT_FOUND);
}

// Transaction i of the writer below: a silo, a private directory in it, and a file named "f" there.
int write_step(uint8_t i, uint8_t tag) {
  uint32_t silo = 0, dir = 0, file = 0, gen = 0;
  tbs_uuid_s u = uuid_n(uint8_t(100 + i));
  u.bytes[15] = tag;
  tbs_fstat_db_t df = fstat_of(2, 0755);
  df.nlink = 1;
  df.size = 89;
  int st = tvr_db_silo_create(u, "/w/" + std::string(i + 1, 'x'), &silo);
  if (st == 0) st = tvr_db_inode_create(silo, oid_n(i), df, 19, &dir, &gen);
  if (st == 0) st = tvr_db_dir_create(dir);
  if (st == 0) st = tvr_db_inode_create(silo, oid_n(uint8_t(i + 128)), fstat_of(1, 0644), 19, &file, &gen);
  if (st == 0) st = tvr_db_link(dir, "f", 1, file, 0, nullptr, nullptr, 0, nullptr, nullptr);
  return st;
}

// A writer killed with -9 between and inside commits: the next start repairs the database, and every
// transaction the writer saw committed is there whole.
TEST_F(DbTest, KillNineMidStreamIsRepairedWhole) {
  for (tvr_db_sync_mode_t mode : {TVR_DB_SYNC_COMMIT, TVR_DB_SYNC_DEFERRED}) {
    for (int kill_after : {1, 9, 40}) {
      SCOPED_TRACE("mode " + std::to_string(mode) + ", kill after " + std::to_string(kill_after));
      const uint8_t tag = uint8_t(kill_after + 64 * mode);  // marks this round's silos
      tvr_db_close_db();
      int fds[2];
      ASSERT_EQ(pipe(fds), 0);
      pid_t pid = fork();
      ASSERT_GE(pid, 0);
      if (pid == 0) {
        close(fds[0]);
        tvr_db_set_sync_mode(mode);
        int created = 0;
        if (tavrel_db_init(&created) != 0) _exit(3);
        for (uint8_t i = 0;; i++) {
          int st = tvr_db_in_trans(1, [&] { return write_step(i, tag); });
          if (st != 0) _exit(4);
          if (write(fds[1], &i, 1) != 1) _exit(5);
          if (i == 120) pause();
        }
      }
      close(fds[1]);
      std::vector<uint8_t> committed;
      uint8_t b;
      while (int(committed.size()) < kill_after && read(fds[0], &b, 1) == 1) committed.push_back(b);
      kill(pid, SIGKILL);
      int status = 0;
      waitpid(pid, &status, 0);
      close(fds[0]);
      ASSERT_EQ(int(committed.size()), kill_after) << "writer status " << status;
      Messages msgs;
      int created = 0;
      ASSERT_EQ(tavrel_db_init(&created), 0) << msgs.all();
      ASSERT_EQ(tvr_db_state(), 'i') << msgs.all();
      EXPECT_TRUE(msgs.contains("Dumping DB ") && msgs.contains("Loading DB ")) << msgs.all();
      std::vector<tvr_db_silo_info> silos;
      ASSERT_EQ(tvr_db_in_trans(0, [&] { return tvr_db_inventory_silos(&silos, 0); }), 0);
      int mine = 0;
      for (const auto& s : silos) {
        if (s.uuid.bytes[15] != tag) continue;
        mine++;
        // Transaction i made the silo whose path holds i + 1 letters.
        ASSERT_GE(s.path.size(), 4u);
        const uint8_t i = uint8_t(s.path.size() - 4);
        tbs_uuid_s want = uuid_n(uint8_t(100 + i));
        want.bytes[15] = tag;
        EXPECT_EQ(tbs_uuid_to_str(s.uuid), tbs_uuid_to_str(want));
        EXPECT_EQ(s.path, "/w/" + std::string(i + 1, 'x'));
        uint32_t dir = 0, file = 0, named = 0, state = 0;
        EXPECT_EQ(tvr_db_in_trans(0, [&] {
          int st = tvr_db_inode_lookup(s.dbid, oid_n(i), &dir);
          if (st == 0) st = tvr_db_inode_lookup(s.dbid, oid_n(uint8_t(i + 128)), &file);
          return st == 0 ? tvr_db_dir_entry_lookup(dir, "f", 1, &named, &state) : st;
        }), 0) << "transaction " << int(i) << " is not whole";
        EXPECT_EQ(named, file);
      }
      EXPECT_GE(mine, kill_after);
    }
  }
}

}  // namespace

namespace {

// Overwrites `n` bytes at `at` of the slot of row `dba` in its data file (the database must be closed).
void poke_slot(DB_ADDR dba, size_t at, const void* bytes, size_t n) {
  int rec = (int)(dba >> 26);
  uint32_t slot = dba & ((1u << 26) - 1);
  char name[32];
  snprintf(name, sizeof name, "db/tavrel_db.d%02d", rec);
  int fd = open(name, O_RDWR);
  ASSERT_GE(fd, 0) << name;
  uint32_t hdr[6];
  ASSERT_EQ(pread(fd, hdr, sizeof hdr, 0), (ssize_t)sizeof hdr);
  uint32_t page = hdr[3], slot_size = hdr[4], per_page = hdr[5];
  off_t off = (off_t)page * (1 + (slot - 1) / per_page) + (off_t)((slot - 1) % per_page) * slot_size + (off_t)at;
  ASSERT_EQ(pwrite(fd, bytes, n, off), (ssize_t)n);
  close(fd);
}

struct DumperRun {
  int code;
  std::string out;
};

DumperRun run_dumper_check() {
  std::string cmd = std::string(TAVREL_PRODUCT_DIR) + "/tavrel_dumper_1 -check . 2>&1";
  DumperRun r{-1, ""};
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return r;
  char buf[4096];
  while (size_t n = fread(buf, 1, sizeof buf, p)) r.out.append(buf, n);
  int st = pclose(p);
  r.code = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

}  // namespace

// Damage the check must find and name: a broken set chain and a key whose row is gone (the engine's
// invariants, through the dumper's check), and a container two inodes claim (the check after a load).
TEST_F(DbTest, ChecksFindInjectedDamage) {
  build_sample(true);
  ASSERT_EQ(tvr_db_close_db(), 0);
  DumperRun clean = run_dumper_check();
  ASSERT_EQ(clean.code, 0) << clean.out;
  // The first name row of the namespace: its next-member pointer in the directory's set goes astray.
  const tavrel::rec::RecDesc* ent = tavrel::rec::schema().rec(VNS_DB_DIR_VER_ENT);
  ASSERT_NE(ent, nullptr);
  DB_ADDR first_ent = (DB_ADDR)(VNS_DB_DIR_VER_ENT - 10000) << 26 | 2;
  uint32_t bogus = (DB_ADDR)(VNS_DB_DIR_VER_ENT - 10000) << 26 | 999;
  poke_slot(first_ent, (size_t)ent->member_off(VNS_DIR_ENT_SET) + 8, &bogus, 4);
  DumperRun broken = run_dumper_check();
  EXPECT_EQ(broken.code, 5) << broken.out;
  EXPECT_NE(broken.out.find("fails its check"), std::string::npos) << broken.out;
  poke_slot(first_ent, (size_t)ent->member_off(VNS_DIR_ENT_SET) + 8, "\0\0\0\0", 4);
  // The silo row marked free (and no longer counted) while its key still names it.
  uint8_t free_state = 2;
  poke_slot((DB_ADDR)(DB_SILO - 10000) << 26 | 1, 0, &free_state, 1);
  int fd = open("db/tavrel_db.d00", O_RDWR);
  ASSERT_GE(fd, 0);
  uint32_t live = 0;
  ASSERT_EQ(pread(fd, &live, 4, 8 * 4), 4);
  live--;
  ASSERT_EQ(pwrite(fd, &live, 4, 8 * 4), 4);
  close(fd);
  DumperRun orphan_key = run_dumper_check();
  EXPECT_EQ(orphan_key.code, 5) << orphan_key.out;
  EXPECT_NE(orphan_key.out.find("DB_SILO"), std::string::npos) << orphan_key.out;
}

TEST_F(DbTest, CheckRemovesTheLaterOfTwoInodesSharingAContainer) {
  build_sample(false);
  uint32_t silo = 0, second = 0, gen = 0, dir = 0;
  ASSERT_EQ(tvr_db_in_trans(1, [&] {
    int st = tvr_db_silo_lookup(uuid_n(1), &silo);
    if (st == 0) st = tvr_db_inode_lookup(silo, oid_n(1), &dir);
    if (st == 0) st = tvr_db_inode_create(silo, oid_n(4), fstat_of(1, 0644), 19, &second, &gen);
    if (st == 0) st = tvr_db_inode_write_text(second, "00001/f.c");
    if (st == 0) st = tvr_db_link(dir, "twin", 4, second, 0, nullptr, nullptr, 1, nullptr, nullptr);
    return st;
  }), 0);
  Messages msgs;
  ASSERT_EQ(tvr_db_fsck_db(), 0) << msgs.all();
  EXPECT_TRUE(msgs.contains("CLTXT .s/00001/f.c used in multiple inodes") || msgs.contains("CLTXT 00001/f.c used in multiple inodes"))
      << msgs.all();
  uint32_t found = 0;
  EXPECT_EQ(tvr_db_in_trans(0, [&] { return tvr_db_inode_lookup(silo, oid_n(2), &found); }), 0) << "the first stays";
  EXPECT_EQ(tvr_db_in_trans(0, [&] { return tvr_db_inode_lookup(silo, oid_n(4), &found); }), TBS_ST_NOT_FOUND);
}
