// Tests of the base layer's helpers that carry real logic: paths, atomic files, the view lock between
// processes, the event loop, signal dispatch and the trace filter.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include "base/credutl.h"
#include "base/fileutl.h"
#include "base/imsg.h"
#include "base/olthread.h"
#include "base/pfm.h"
#include "base/rt.h"
#include "base/server.h"
#include "base/strutl.h"

namespace {

// A fresh directory, removed with everything in it at the end of the scope.
struct TempDir {
  std::string path;
  TempDir() {
    char tmpl[] = "/tmp/tavrel-base-XXXXXX";
    const char* d = mkdtemp(tmpl);
    EXPECT_NE(d, nullptr);
    path = d ? d : "";
  }
  ~TempDir() { std::filesystem::remove_all(path); }
};

TEST(Fileutl, PathTables) {
  for (auto [in, out] : {std::pair{"/a/b/../c/./d//", "/a/c/d"}, {"/", "/"}, {"/..", "/"}})
    EXPECT_EQ(fileutl_abspn(in), out) << in;
  EXPECT_EQ(fileutl_abspn("rel")[0], '/');
  for (auto [in, out] : {std::pair{"/a/b/c", "/a/b"}, {"c", ""}, {"/c", "/"}})
    EXPECT_EQ(fileutl_strip_leaf(in), out) << in;
  for (auto [parent, path, want] : {std::tuple{"/a", "/a", true}, {"/a", "/a/b", true}, {"/a", "/ab", false},
                                    {"/a/", "/a/b", true}, {"/", "/x", true}, {"/a/b", "/a", false}, {"", "/a", false}})
    EXPECT_EQ(fileutl_pname_equal_or_parent(parent, path), want) << parent << " " << path;
}

TEST(Fileutl, MkpathAndAtomicWrite) {
  TempDir t;
  const std::string& dir = t.path;
  ASSERT_EQ(fileutl_mkpath(dir + "/x/y/z", 0700), 0);
  struct stat st;
  ASSERT_EQ(stat((dir + "/x/y/z").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  // A file in the way is an error, not silently accepted.
  ASSERT_EQ(fileutl_write_atomic(dir + "/f", "one", 0600), 0);
  EXPECT_NE(fileutl_mkpath(dir + "/f/g", 0700), 0);

  ASSERT_EQ(fileutl_write_atomic(dir + "/f", "two\n", 0640), 0);
  std::string text;
  ASSERT_EQ(fileutl_read_file(dir + "/f", &text, 100), 0);
  EXPECT_EQ(text, "two\n");
  ASSERT_EQ(stat((dir + "/f").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  EXPECT_NE(fileutl_read_file(dir + "/f", &text, 2), 0);  // over the limit
  EXPECT_EQ(errno, EFBIG);
  ASSERT_EQ(fileutl_cp(dir + "/f", dir + "/g"), 0);
  ASSERT_EQ(fileutl_read_file(dir + "/g", &text, 100), 0);
  EXPECT_EQ(text, "two\n");
}

TEST(Server, LockIsExclusiveBetweenProcessesAndDiesWithHolder) {
  TempDir t;
  std::string lock = t.path + "/.pid";
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    pid_t o;
    int c = server_lock_set(lock, &o);
    char b = c >= 0 ? 'y' : 'n';
    (void)!write(ready[1], &b, 1);
    pause();
    _exit(0);
  }
  char b = 0;
  ASSERT_EQ(read(ready[0], &b, 1), 1);
  ASSERT_EQ(b, 'y');
  pid_t owner = 0;
  EXPECT_EQ(server_lock_set(lock, &owner), -2);
  EXPECT_EQ(owner, child);
  EXPECT_EQ(server_lock_holder(lock), child);
  std::string text;
  ASSERT_EQ(fileutl_read_file(lock, &text, 100), 0);
  EXPECT_EQ(text, std::to_string(child) + "\n");

  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(server_lock_holder(lock), 0);
  int cookie = server_lock_set(lock, &owner);
  ASSERT_GE(cookie, 0);
  ASSERT_EQ(fileutl_read_file(lock, &text, 100), 0);
  EXPECT_EQ(text, std::to_string(getpid()) + "\n");
  EXPECT_EQ(server_lock_clear(lock, cookie), 0);
  close(ready[0]);
  close(ready[1]);
}

TEST(Server, HostnameFile) {
  TempDir t;
  const std::string& dir = t.path;
  std::string rec;
  EXPECT_EQ(server_validate_hostname(dir, "h1", &rec), -1);
  credutl_creds_t me;
  ASSERT_EQ(credutl_get_sid_credentials(&me), 0);
  EXPECT_EQ(me.uid, geteuid());
  EXPECT_EQ(me.gid, getegid());
  // A directory that hands down another group (set-group-id): the file is still the process's.
  if (geteuid() == 0) {
    ASSERT_EQ(chown(dir.c_str(), static_cast<uid_t>(-1), 54321), 0);
    ASSERT_EQ(chmod(dir.c_str(), 02700), 0);
  }
  ASSERT_EQ(server_create_hostname_file(dir, "h1", me), 0);
  struct stat st;
  ASSERT_EQ(stat((dir + "/" SERVER_HOSTNAME_FILE).c_str(), &st), 0);
  EXPECT_EQ(st.st_gid, me.gid);
  EXPECT_EQ(server_validate_hostname(dir, "h1", &rec), 1);
  EXPECT_EQ(server_validate_hostname(dir, "h2", &rec), 0);
  EXPECT_EQ(rec, "h1");
  EXPECT_EQ(server_validate_hostname(dir, "h", &rec), 0);  // exact, not prefix
}

// The event loop and the signal dispatcher are process-wide: run them in a child so that this test
// binary's other cases see a fresh state.
template <typename F>
int in_child(F f) {
  pid_t pid = fork();
  if (pid == 0) _exit(f());
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : 100 + WTERMSIG(st);
}

std::atomic<int> g_fd_calls{0};
std::atomic<int> g_timer_calls{0};
std::atomic<int> g_signal_seen{0};
std::atomic<bool> g_signal_on_main{false};

TEST(Rt, FdCallbacksTimersAndShutdown) {
  int rc = in_child([] {
    int p[2];
    if (pipe(p) != 0) return 1;
    rt_handle_fd(
        p[0],
        [](void*, int fd) {
          char b;
          if (read(fd, &b, 1) == 1) g_fd_calls++;
          if (g_fd_calls == 3) rt_shutdown();
        },
        nullptr);
    rt_sched(10, [](void*) { g_timer_calls++; }, nullptr);
    long gone = rt_sched(10, [](void*) { g_timer_calls += 100; }, nullptr);
    rt_unsched(gone);
    std::thread writer([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      for (int i = 0; i < 3; i++) (void)!write(p[1], "x", 1);
    });
    rt_run();
    writer.join();
    if (g_fd_calls != 3) return 2;
    if (g_timer_calls != 1) return 3;
    rt_run();  // sticky shutdown: returns at once
    return 0;
  });
  EXPECT_EQ(rc, 0);
}

TEST(Pfm, SignalHandlerRunsOnDispatcherThreadAndSurvivesFork) {
  int rc = in_child([] {
    pfm_signal(SIGUSR1, [](int sig) {
      g_signal_seen = sig;
      g_signal_on_main = olthread_is_main_thread();
    });
    pfm_signal(SIGPIPE, PFM_SIG_IGNORE);
    pid_t pid = olthread_fork(2);
    if (pid == 0) {
      // In the forked child the handler must still be delivered.
      kill(getpid(), SIGUSR1);
      for (int i = 0; i < 200 && !g_signal_seen; i++) usleep(5000);
      _exit(g_signal_seen == SIGUSR1 && !g_signal_on_main ? 0 : 7);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    if (!WIFEXITED(st) || WEXITSTATUS(st) != 0) return 4;
    if (g_signal_seen) return 5;  // the child's signal must not reach the parent
    raise(SIGPIPE);               // ignored: no death
    kill(getpid(), SIGUSR1);
    for (int i = 0; i < 200 && !g_signal_seen; i++) usleep(5000);
    return g_signal_seen == SIGUSR1 && !g_signal_on_main ? 0 : 6;
  });
  EXPECT_EQ(rc, 0);
}

TEST(Pfm, ExitRunsHandlersInReverseAfterInhibitEnds) {
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  static int s_fd;
  s_fd = p[1];
  pid_t pid = fork();
  if (pid == 0) {
    pfm_on_exit([](int st, void*) { (void)!write(s_fd, st == 9 ? "a" : "?", 1); }, nullptr);
    pfm_on_exit([](int, void*) { (void)!write(s_fd, "b", 1); }, nullptr);
    pfm_inhibit();
    std::thread t([] {
      usleep(50000);
      (void)!write(s_fd, "e", 1);
      pfm_enable();
    });
    t.detach();
    pfm_exit(9);
  }
  close(p[1]);
  int st = 0;
  waitpid(pid, &st, 0);
  char buf[8] = {};
  ssize_t n = read(p[0], buf, sizeof buf);
  close(p[0]);
  EXPECT_EQ(std::string(buf, n > 0 ? n : 0), "eba");
  EXPECT_TRUE(WIFEXITED(st));
  EXPECT_EQ(WEXITSTATUS(st), 9);
}

TEST(Imsg, TraceFilterTable) {
  struct {
    const char* list;
    int verbosity;
    const char* subsys;
    int level;
    bool want;
  } cases[] = {
      {"TAVREL", 3, "TAVREL", 3, true},        {"TAVREL", 3, "TAVREL", 4, false},
      {"TAVREL", 3, "RCLIENT", 1, false},      {"TAVREL:RCLIENT", 5, "RCLIENT", 5, true},
      {"", 5, "TAVREL", 1, false},             {"TAVREL_DB", 5, "TAVREL", 1, false},
      {":TAVREL::", 2, "TAVREL", 2, true},
  };
  for (auto& c : cases) {
    imsg_set_trace_subsys(c.list);
    imsg_set_trace_verbosity(c.verbosity);
    EXPECT_EQ(imsg_should_trace(c.subsys, c.level), c.want) << c.list << " " << c.subsys << " " << c.level;
  }
  imsg_set_trace_subsys(nullptr);
  imsg_set_trace_verbosity(0);
}

TEST(Imsg, CatalogueExpansion) {
  static const char* const texts[] = {"a %s b\n", "n=%d\n"};
  static const _imsg_message_table_t table = {"sect", "pre", 2, texts};
  EXPECT_EQ(imsg_format(&table, 0, "x"), "a x b\n");
  EXPECT_EQ(imsg_format(&table, 1, 42), "n=42\n");
  EXPECT_EQ(imsg_format(&table, 2), "pre: unknown message 2");
  char small[4];
  EXPECT_EQ(strutl_cpy_buf(small, sizeof small, "abcdef"), 3u);
  EXPECT_STREQ(small, "abc");
}

TEST(Strutl, NumbersAndTrim) {
  long v = 0;
  EXPECT_TRUE(strutl_strtol("-12", &v));
  EXPECT_EQ(v, -12);
  for (const char* bad : {"", " 1", "1 ", "1x", "99999999999999999999999"}) EXPECT_FALSE(strutl_strtol(bad, &v)) << bad;
  unsigned long u = 0;
  EXPECT_FALSE(strutl_strtoul("-1", &u));
  EXPECT_TRUE(strutl_strtoul("4096", &u));
  EXPECT_EQ(u, 4096u);
  EXPECT_EQ(strutl_trim(" \t a b \r\n"), "a b");
  EXPECT_EQ(strutl_trim("   "), "");
}

}  // namespace
