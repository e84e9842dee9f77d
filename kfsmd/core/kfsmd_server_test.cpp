// The module socket: hostile frames end only the connection that sent them; another user's process
// cannot drive a view it did not register.
#include "kfsmd/core/kfsmd_server.h"

#include <poll.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "kfsmd/core/kfsmd_test_util.h"

namespace {

using namespace kfsmd_test;

// A raw connection to the daemon, for frames the library would never send.
struct Raw {
  int fd = -1;
  explicit Raw(const std::string& path) {
    fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    struct sockaddr_un a;
    memset(&a, 0, sizeof a);
    a.sun_family = AF_UNIX;
    strcpy(a.sun_path, path.c_str());
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  }
  ~Raw() { close(fd); }
  void send_raw(const std::string& bytes) { EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size())); }
  void frame(uint16_t type, const std::string& body, uint32_t seq = 1) { EXPECT_EQ(kfsm_frame_send(fd, type, seq, body), 0); }
  bool hello() {
    frame(KFSM_FRAME_HELLO, kfsm_hello_body(1, 1));
    kfsm_frame f;
    int32_t st = -1;
    return kfsm_frame_recv(fd, &f) == 0 && f.type == KFSM_FRAME_HELLO_OK && kfsm_parse_status(f.body, &st) && st == 0;
  }
  // True when the daemon closed the connection (within 10 s), reading past any answer it sent first.
  bool closed() {
    for (;;) {
      struct pollfd p = {fd, POLLIN, 0};
      if (poll(&p, 1, 10000) != 1) return false;
      char buf[70000];
      ssize_t n = recv(fd, buf, sizeof buf, 0);
      if (n == 0) return true;
      if (n < 0) return errno == ECONNRESET;
    }
  }
};

std::string header(uint32_t magic, uint16_t type, uint32_t len) {
  std::string h(KFSM_FRAME_HDR, '\0');
  auto* p = reinterpret_cast<uint8_t*>(h.data());
  kfsm_put_u32(p, magic);
  kfsm_put_u16(p + 4, 1);
  kfsm_put_u16(p + 6, type);
  kfsm_put_u32(p + 8, len);
  kfsm_put_u32(p + 12, 1);
  return h;
}

std::string image_of(uint32_t cmd) {
  // A valid command image of `cmd` with empty records.
  static char out[1024];
  static kfsm_strbuf two[2] = {{out, 0, sizeof out}, {nullptr, 0, 0}};
  static uint8_t zero[256];
  kfsmcmd_block b;
  memset(&b, 0, sizeof b);
  b.cmd = cmd;
  b.infolen = static_cast<uint32_t>(kfsm_info_image_size(cmd));
  b.infop = cmd == KFSM_CMD_ROOT || cmd == KFSM_CMD_SUFFIX ? static_cast<void*>(two) : static_cast<void*>(zero);
  std::string img;
  EXPECT_EQ(kfsm_command_encode(b, &img), 0);
  return img;
}

class DaemonSocket : public Daemon_Test {};

TEST_F(DaemonSocket, HostileFramesCloseOnlyTheirConnection) {
  ASSERT_EQ(cmd_mkview("v", uuid_n(1), base), 0);
  struct Case {
    const char* what;
    std::function<void(Raw&)> act;
  } cases[] = {
      {"bytes before any hello", [](Raw& r) { r.send_raw("not a frame at all"); }},
      {"a command before hello", [](Raw& r) { r.frame(KFSM_FRAME_MCB, image_of(KFSM_CMD_MKVIEW)); }},
      {"hello of the wrong size", [](Raw& r) { r.frame(KFSM_FRAME_HELLO, "abc"); }},
      {"wrong magic", [](Raw& r) { ASSERT_TRUE(r.hello()); r.send_raw(header(0xDEADBEEF, 3, 0)); }},
      {"length beyond the packet", [](Raw& r) { ASSERT_TRUE(r.hello()); r.send_raw(header(KFSM_WIRE_MAGIC, 3, 900) + "x"); }},
      {"packet beyond the limit",
       [](Raw& r) {
         ASSERT_TRUE(r.hello());
         int sz = 1 << 20;
         setsockopt(r.fd, SOL_SOCKET, SO_SNDBUF, &sz, sizeof sz);
         r.send_raw(header(KFSM_WIRE_MAGIC, 3, 70000) + std::string(70000, 'x'));
       }},
      {"a garbage command image", [](Raw& r) { ASSERT_TRUE(r.hello()); r.frame(KFSM_FRAME_MCB, std::string(60, '\x7f')); }},
      {"a register command on a CMD frame", [](Raw& r) { ASSERT_TRUE(r.hello()); r.frame(KFSM_FRAME_CMD, image_of(KFSM_CMD_MKVIEW)); }},
      {"a root question on an MCB frame", [](Raw& r) { ASSERT_TRUE(r.hello()); r.frame(KFSM_FRAME_MCB, image_of(KFSM_CMD_ROOT)); }},
      {"an unknown frame type", [](Raw& r) { ASSERT_TRUE(r.hello()); r.frame(99, ""); }},
      {"a result frame from the client", [](Raw& r) { ASSERT_TRUE(r.hello()); r.frame(KFSM_FRAME_MCB_RESULT, ""); }},
      {"a malformed LPC call", [](Raw& r) { ASSERT_TRUE(r.hello()); r.frame(KFSM_FRAME_LPC_CALL, std::string(8, '\xff')); }},
      {"a command on a bound LPC connection",
       [](Raw& r) {
         ASSERT_TRUE(r.hello());
         r.frame(KFSM_FRAME_LPC_CALL, kfsm_lpc_call_body(0, "v", nullptr, nullptr, 0));
         r.frame(KFSM_FRAME_MCB, image_of(KFSM_CMD_MKVIEW), 2);
       }},
      {"an LPC call for another tag on a bound connection",
       [](Raw& r) {
         ASSERT_TRUE(r.hello());
         r.frame(KFSM_FRAME_LPC_CALL, kfsm_lpc_call_body(0, "v", nullptr, nullptr, 0));
         r.frame(KFSM_FRAME_LPC_CALL, kfsm_lpc_call_body(0, "w", nullptr, nullptr, 0), 2);
       }},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.what);
    Raw r(opt.socket_path);
    c.act(r);
    EXPECT_TRUE(r.closed());
  }
  // The daemon and its views are as they were, and it serves well-formed clients.
  EXPECT_EQ(registry->view_tags(), std::vector<std::string>{"v"});
  char buf[KFSM_VIEW_ROOT_MAX];
  ASSERT_EQ(tbs_view_root_type(1, buf, "v"), 0);
  EXPECT_EQ(std::string(buf), view_root("v"));
  EXPECT_EQ(cmd_mount("v", "/proj", uuid_n(5)), 0);
}

TEST_F(DaemonSocket, AnotherUserCannotDriveAViewItDidNotRegister) {
  ASSERT_EQ(cmd_mkview("v", uuid_n(1), base), 0);
  ASSERT_EQ(cmd_mount("v", "/proj", uuid_n(5)), 0);
  int report[2];
  ASSERT_EQ(pipe(report), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) _exit(100);
    std::vector<int32_t> got;
    got.push_back(cmd_rmtag("v"));
    got.push_back(cmd_mount("v", "/other", uuid_n(6)));
    got.push_back(cmd_umount("v", "/proj", uuid_n(5)));
    got.push_back(cmd_inval(opt.root + "/v", KFSM_INVAL_VIEW, TBS_UUID_NULL, TBS_OID_NULL));
    view_vstat_t vs;
    got.push_back(cmd_xstat(opt.root + "/v/proj/a", true, &vs));
    got.push_back(cmd_mkview("v", uuid_n(1), "/tmp"));  // taking over the tag
    // Binding an LPC connection to the view: refused, and the connection is closed.
    int err = 0, st = 0;
    int h = kfsm_view_root_open_type(1, &err);
    std::vector<uint8_t> buf(KFSM_LPC_BUF, 0);
    kfsm_strbuf tag = kfsm_strbuf_of("v");
    kfsm_cmd(h, &err, &st, KFSM_CMD_LPC_MESSAGE, 0, &tag, &tag, buf.data(), KFSM_LPC_BUF);
    got.push_back(err ? -err : st);
    // Its own view is its own.
    got.push_back(cmd_mkview("mine", uuid_n(2), "/tmp"));
    got.push_back(cmd_rmtag("mine"));
    for (int32_t v : got)
      if (write(report[1], &v, sizeof v) != sizeof v) _exit(101);
    _exit(0);
  }
  close(report[1]);
  std::vector<int32_t> got;
  int32_t v;
  while (read(report[0], &v, sizeof v) == sizeof v) got.push_back(v);
  close(report[0]);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0);
  std::vector<int32_t> want(7, TBS_ST_NO_PERMISSION);
  want.insert(want.end(), {0, 0});
  EXPECT_EQ(got, want);
  // Nothing of root's view changed.
  EXPECT_NE(registry->find_silo("v", "/proj"), nullptr);
  EXPECT_EQ(registry->find_view("v")->uid(), 0u);
  std::lock_guard<std::mutex> g(rec.mu);
  EXPECT_TRUE(rec.unmounts.empty());
}

// Caps small enough to reach: two connections per user, three of all users but root, and half a second
// for a hello.
class DaemonCaps : public Daemon_Test {
 protected:
  void SetUp() override {
    Daemon_Test::SetUp();
    if (HasFatalFailure()) return;
    server->stop();
    opt.max_connections = 3;
    opt.max_connections_per_user = 2;
    opt.hello_timeout_ms = 500;
    server = std::make_unique<Kfsmd_Server>(opt, *registry);
    ASSERT_EQ(server->start(), 0);
  }
  // Opens `n` handles in a child running as `uid` and returns the status of each open; the child keeps
  // its connections until hold[1] is closed.
  std::vector<int32_t> opens_as(uid_t uid, int n, int hold[2], std::vector<pid_t>* children) {
    int report[2];
    EXPECT_EQ(pipe(report), 0);
    pid_t pid = fork();
    if (pid == 0) {
      close(report[0]);
      close(hold[1]);
      if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0) _exit(100);
      for (int i = 0; i < n; ++i) {
        int32_t err = 0;
        kfsm_view_root_open_sil_type(1, &err, 1);
        if (write(report[1], &err, sizeof err) != sizeof err) _exit(101);
      }
      close(report[1]);
      char c;
      while (read(hold[0], &c, 1) > 0) {
      }
      _exit(0);
    }
    children->push_back(pid);
    close(report[1]);
    std::vector<int32_t> got;
    int32_t v;
    while (read(report[0], &v, sizeof v) == sizeof v) got.push_back(v);
    close(report[0]);
    return got;
  }
  static void release(int hold[2], std::vector<pid_t>* children) {
    close(hold[1]);
    for (pid_t c : *children) {
      int status = 0;
      ASSERT_EQ(waitpid(c, &status, 0), c);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    close(hold[0]);
    children->clear();
  }
};

TEST_F(DaemonCaps, AUserAtItsCapIsRefusedClearlyWhileOthersAndRootGetIn) {
  int hold[2];
  ASSERT_EQ(pipe(hold), 0);
  std::vector<pid_t> children;
  const int32_t refused = KFSM_ST_TOO_MANY_CONNECTIONS;
  // The third connection of one user is refused; another user gets the one place left of the three.
  EXPECT_EQ(opens_as(65534, 3, hold, &children), (std::vector<int32_t>{0, 0, refused}));
  EXPECT_EQ(opens_as(65533, 2, hold, &children), (std::vector<int32_t>{0, refused}));
  EXPECT_STREQ(tbs_strerror(refused), "too many connections to the module daemon");
  EXPECT_EQ(tbs_status2errno(refused), EAGAIN);
  // Root is never refused, and is served.
  char buf[KFSM_VIEW_ROOT_MAX];
  EXPECT_EQ(tbs_view_root_type(1, buf, "v"), 0);
  EXPECT_EQ(std::string(buf), view_root("v"));
  release(hold, &children);
  // The places come back as the children's connections close.
  EXPECT_TRUE(eventually([&] { return server->connection_count() == 0; }));
  ASSERT_EQ(pipe(hold), 0);
  EXPECT_EQ(opens_as(65534, 2, hold, &children), (std::vector<int32_t>{0, 0}));
  release(hold, &children);
}

TEST_F(DaemonCaps, ASilentConnectionIsClosedAfterTheDeadlineAndASpeakingOneIsNot) {
  int err = 0;
  int h = kfsm_view_root_open_sil_type(1, &err, 1);
  ASSERT_NE(h, 0);
  Raw silent(opt.socket_path);
  EXPECT_TRUE(silent.closed());
  EXPECT_TRUE(eventually([&] { return server->connection_count() == 1; }));
  // The handle that said hello in time is still served.
  char root[KFSM_ROOT_BUF] = {};
  kfsm_strbuf info[2] = {{root, 0, KFSM_ROOT_BUF}, {nullptr, 0, 0}};
  kfsm_strbuf zero{nullptr, 0, 0};
  int st = -1;
  kfsm_cmd(h, &err, &st, KFSM_CMD_ROOT, 0, &zero, &zero, info, KFSM_ROOT_INFO_IMAGE);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(st, 0);
  EXPECT_EQ(std::string(root), opt.root);
  kfsm_view_root_close_type(1, h);
}

}  // namespace
