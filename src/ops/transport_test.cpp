// Pieces of the pipe transport that can be checked without a running agent: the first-request
// stream form, client ids, the ".ipc" directory and FIFO creation over what is already on disk.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "core/tavrel_status.h"
#include "ops/tavrel_conn_handler_unix.h"
#include "ops/tavrel_request_handler_base.h"
#include "proto/view_storage_names.h"

namespace {

TEST(Transport, FirstRequestStreamForm) {
  const std::string limit_line(Tavrel_Request_Handler_Base::STREAM_LINE_LIMIT - 1, 'a');
  const std::string over_line(Tavrel_Request_Handler_Base::STREAM_LINE_LIMIT, 'b');
  struct {
    std::string in;
    std::string out;
  } cases[] = {
      {"24\n<StartView version=\"1\"/>", "<StartView version=\"1\"/>"},
      {"999\n<StartView version=\"1\"/>\n", "<StartView version=\"1\"/>"},  // the length is ignored
      {"5\n  <a>  \n\t<b/>\r\n</a>", "<a><b/></a>"},                      // trimmed, joined with nothing
      {"5\n<a\nb=\"c\"/>", "<ab=\"c\"/>"},                               // the damage a newline does
      {"no length line only", ""},
      {"", ""},
      {"1\n" + limit_line + "\nz", limit_line + "z"},  // the longest line that is still read whole
      {"1\nx\n" + over_line + "\ny", "x"},              // a longer line ends the reading
  };
  for (auto& c : cases) {
    std::istringstream in(c.in);
    std::string out;
    EXPECT_EQ(Tavrel_Request_Handler_Base::read_request(in, out), 0);
    EXPECT_EQ(out, c.out) << c.in.substr(0, 60);
  }
  std::ostringstream os;
  EXPECT_EQ(Tavrel_Request_Handler_Base::send_response(os, "<r/>"), 0);
  EXPECT_EQ(os.str(), "4\n<r/>0\n");
}

TEST(Transport, ClientIds) {
  struct {
    std::string id;
    bool ok;
  } cases[] = {
      {"c123-abcdef", true}, {"A.b_c-9", true},        {std::string(64, 'x'), true},
      {"", false},           {std::string(65, 'x'), false}, {".hidden", false},
      {"..", false},         {"a/b", false},         {"../x", false},
      {"sp ace", false},     {"tab\t", false},       {std::string("nul\0x", 5), false},
  };
  for (auto& c : cases) EXPECT_EQ(Tavrel_Conn_Handler_Base::valid_client_id(c.id), c.ok) << c.id;
}

TEST(Transport, IpcDirectoryAndPipesOverWhatIsThere) {
  char tmpl[] = "/tmp/tavrel-pipe-XXXXXX";
  std::string dir = mkdtemp(tmpl), ipc = dir + "/" + VIEW_STG_IPC_DIR + "/";
  // Made when missing (0700); a group-readable one is made 0700; a link or a file in its place is refused.
  int fd = -1;
  ASSERT_EQ(Tavrel_Conn_Handler_Unix::open_ipc_dir(dir, &fd), 0);
  close(fd);
  ASSERT_EQ(chmod(ipc.c_str(), 0750), 0);
  ASSERT_EQ(Tavrel_Conn_Handler_Unix::open_ipc_dir(dir, &fd), 0);
  struct stat st;
  ASSERT_EQ(stat(ipc.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  ASSERT_EQ(mkdir((dir + "/l").c_str(), 0700) | mkdir((dir + "/f").c_str(), 0700) |
                symlink(ipc.c_str(), (dir + "/l/.ipc").c_str()),
            0);
  std::ofstream(dir + "/f/.ipc") << "x";
  int none = -1;
  for (const char* bad : {"/l", "/f"})
    EXPECT_EQ(Tavrel_Conn_Handler_Unix::open_ipc_dir(dir + bad, &none), TAVREL_ST_PIPE) << bad;
  EXPECT_EQ(none, -1);
  // A fresh FIFO: nobody but the owner.
  ASSERT_EQ(Tavrel_Conn_Handler_Base::create_pipe(fd, "request_a", false), 0);
  ASSERT_EQ(stat((ipc + "request_a").c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_EQ(st.st_mode & 0077, 0u);
  // Our own FIFO is reused, unless exclusivity is asked for.
  EXPECT_EQ(Tavrel_Conn_Handler_Base::create_pipe(fd, "request_a", false), 0);
  EXPECT_EQ(Tavrel_Conn_Handler_Base::create_pipe(fd, "request_a", true), TAVREL_ST_MKFIFO);
  // A regular file, a directory or a symbolic link to a FIFO in the way: refused, and left alone when
  // FIFOs of earlier clients are swept.
  std::ofstream(ipc + "request_file") << "x";
  ASSERT_EQ(mkdir((ipc + "request_dir").c_str(), 0700), 0);
  ASSERT_EQ(symlink((ipc + "request_a").c_str(), (ipc + "request_link").c_str()), 0);
  for (const char* name : {"request_file", "request_dir", "request_link"})
    EXPECT_EQ(Tavrel_Conn_Handler_Base::create_pipe(fd, name, false), TAVREL_ST_MKFIFO) << name;
  ASSERT_EQ(mkfifo((ipc + "response_a").c_str(), 0600) | mkfifo((ipc + "rlistener").c_str(), 0600), 0);
  EXPECT_EQ(Tavrel_Conn_Handler_Unix::remove_stale_pipes(fd), 2);
  for (auto [name, kept] : std::vector<std::pair<const char*, bool>>{{"request_file", true}, {"request_dir", true},
                                                                      {"request_link", true}, {"rlistener", true},
                                                                      {"request_a", false}, {"response_a", false}})
    EXPECT_EQ(lstat((ipc + name).c_str(), &st) == 0, kept) << name;
  close(fd);
  std::string cmd = "rm -rf " + dir;
  EXPECT_EQ(system(cmd.c_str()), 0);
}

}  // namespace
