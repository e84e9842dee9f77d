// Get_ClearText: the GET on the wire, the body streamed to the file in blocks of any size (down to
// one byte) with a bounded buffer, empty versions, unknown versions, replies that end early or carry
// a wrong shape, and files that cannot be written.
#include "wan/get_cleartext.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "core/tavrel_status.h"
#include "proto/wan_names.h"
#include "wan/rclient_messages.h"
#include "wan/rpc_cmd_test_util.h"
#include "wan/wan_test_fixture.h"

using namespace wan_test;
using tavrel_wan::ReplyWriter;

namespace {

const std::string kTail = "/cltxt/fedcba98-7654-3210-fedc-ba9876543210/0123abcd-0123-4567-89ab-0123456789ab/unix";

std::string cleartext_doc(const std::string& bytes, int32_t code = 0, const std::string& msg = std::string()) {
  return make_doc([&](ReplyWriter& w) {
    w.part(tavrel_wan::PART_SYNC_ELEM_DATA, bytes);
    w.status(code, msg);
  });
}

std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen() & 0xff);
  return s;
}

std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

bool exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

int view_status(RClient_Abstract_Cmd& cmd, std::string* message = nullptr) {
  std::string m;
  int st = cmd.get_status_code();
  int rc = cmd.check_rpc_status(nullptr, m, st);
  if (message) *message = m;
  return rc;
}

class ClearTextTest : public ScriptedServerTest {
 protected:
  ClearTextTest() : ScriptedServerTest("/tavrel/cltxt/", true) {}
  void SetUp() override {
    ScriptedServerTest::SetUp();
    out = home->path() + "/out";
  }
  std::string out;
};

TEST_F(ClearTextTest, AGetOfTheTailWithTheSessionCookies) {
  answer(cleartext_doc("abc"));
  Get_ClearText cmd(kTail, out);
  EXPECT_EQ(cmd.get_url(), server->base_url() + kTail);
  ASSERT_EQ(cmd.run(), 0);
  ASSERT_EQ(view_status(cmd), 0);
  EXPECT_EQ(read_file(out), "abc");
  EXPECT_TRUE(cmd.data_complete());
  EXPECT_EQ(cmd.get_content_length(), 3);
  EXPECT_EQ(cmd.get_bytes_written(), 3u);
  auto reqs = server->requests();
  ASSERT_EQ(reqs.size(), 2u);
  EXPECT_EQ(reqs[1].method, "GET");
  EXPECT_EQ(reqs[1].path, "/tavrel" + kTail);
  EXPECT_EQ(reqs[1].rpc, "");
  auto cookie = reqs[1].headers.find("Cookie");
  ASSERT_NE(cookie, reqs[1].headers.end());
  EXPECT_NE(cookie->second.find("Session="), std::string::npos);
}

TEST_F(ClearTextTest, TailsThatCannotBeSentSendNothing) {
  for (const std::string& tail : {std::string(), std::string("cltxt/a/b/c"), std::string("/cltxt/a b/c"),
                                 std::string("/cltxt/a?b"), std::string("/cltxt/a#b"), std::string("/cltxt/a\nb"),
                                 std::string("/cltxt/a\x7f")}) {
    EXPECT_FALSE(Get_ClearText::valid_url_tail(tail)) << tail;
    Get_ClearText cmd(tail, out);
    EXPECT_EQ(cmd.run(), RCLIENT_ST_MARSHAL) << tail;
    EXPECT_EQ(view_status(cmd), TAVREL_ST_WAN_CALL);
  }
  EXPECT_TRUE(Get_ClearText::valid_url_tail(kTail));
  EXPECT_EQ(server->requests().size(), 1u);
  EXPECT_FALSE(exists(out));
}

// The same reply in blocks of 1 byte, of a few bytes, and whole: the same file every time, and the
// command never holds more than a block and a part's headers.
TEST_F(ClearTextTest, BodyInBlocksOfAnySize) {
  const std::string bytes = random_bytes(3000, 1) + std::string("\r\n--") + tavrel_wan::DEFAULT_BOUNDARY + "--\r\n";
  const std::string doc = cleartext_doc(bytes);
  for (size_t block : {size_t(1), size_t(2), size_t(13), size_t(4096), doc.size()}) {
    SCOPED_TRACE(block);
    ::unlink(out.c_str());
    Fed<Get_ClearText> fed(kTail, out);
    ASSERT_EQ(fed.feed_in(doc, block), 0);
    ASSERT_EQ(fed.finish(), 0);
    EXPECT_EQ(fed.get_status_code(), 0);
    EXPECT_EQ(read_file(out), bytes);
    EXPECT_LE(fed.peak_response_buffer(), std::max(block, size_t(200)) + 200);
    answer(doc, block);
    ::unlink(out.c_str());
    Get_ClearText http(kTail, out);
    ASSERT_EQ(http.run(), 0);
    EXPECT_EQ(view_status(http), 0);
    EXPECT_EQ(read_file(out), bytes);
  }
}

TEST_F(ClearTextTest, LargeBodyStreamsThroughABoundedBuffer) {
  const std::string bytes = random_bytes(12u << 20, 2);
  answer(cleartext_doc(bytes), 64 << 10);
  Get_ClearText cmd(kTail, out);
  ASSERT_EQ(cmd.run(), 0);
  ASSERT_EQ(view_status(cmd), 0);
  EXPECT_EQ(cmd.get_bytes_written(), bytes.size());
  EXPECT_TRUE(read_file(out) == bytes);
  // At most one libcurl block (16 KiB) and the headers of a part.
  EXPECT_LE(cmd.peak_response_buffer(), 16384u + 512u);
}

TEST_F(ClearTextTest, EmptyVersionCreatesAnEmptyFile) {
  const std::string doc = cleartext_doc("");
  for (size_t block : {size_t(1), doc.size()}) {
    {
      std::ofstream(out) << "stale";  // the file is truncated
    }
    Fed<Get_ClearText> fed(kTail, out);
    ASSERT_EQ(fed.feed_in(doc, block), 0);
    ASSERT_EQ(fed.finish(), 0);
    EXPECT_EQ(view_status(fed), 0);
    EXPECT_TRUE(fed.data_complete());
    EXPECT_EQ(fed.get_content_length(), 0);
    ASSERT_TRUE(exists(out));
    EXPECT_EQ(read_file(out), "");
    ::unlink(out.c_str());
  }
  answer(doc);
  Get_ClearText http(kTail, out);
  ASSERT_EQ(http.run(), 0);
  EXPECT_EQ(view_status(http), 0);
  ASSERT_TRUE(exists(out));
  EXPECT_EQ(read_file(out), "");
}

// Replies of the wrong shape: the file is never taken for the version's contents.
TEST_F(ClearTextTest, RepliesThatAreNotAVersion) {
  struct Case {
    const char* name;
    std::string doc;
    int wan_status;
    int32_t code;
    std::string message;
    bool file_opened;
  };
  const std::string long_message(5000, 'm');
  std::vector<Case> cases = {
      {"unknown version", tavrel_wan::reply_status_only(1002, "no version x in /proj"), 0, 1002,
       "no version x in /proj", false},
      {"unknown version, long message", tavrel_wan::reply_status_only(1002, long_message), 0, 1002, long_message, false},
      {"status 0 without data", tavrel_wan::reply_status_only(0), RCLIENT_ST_MALFORMED_ITEM, 0,
       "Cleartext data missing from the reply for \"" + kTail + "\".\n", false},
      {"two data parts", make_doc([](ReplyWriter& w) {
         w.part(tavrel_wan::PART_SYNC_ELEM_DATA, "one");
         w.part(tavrel_wan::PART_SYNC_ELEM_DATA, "two");
         w.status(0);
       }),
       RCLIENT_ST_FORMAT, -1, "More than one cleartext data part", true},
      {"data, then a failure", cleartext_doc("partial?", 1008, "store failed"), 0, 1008, "store failed", true},
      {"unknown parts around the data", make_doc([](ReplyWriter& w) {
         w.part("Before", {{"A", "1"}}, "skip me");
         w.part(tavrel_wan::PART_SYNC_ELEM_DATA, "data");
         w.part("After", "skip me too");
         w.status(0);
       }),
       0, 0, "", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (size_t block : {size_t(1), size_t(5), size_t(1 << 20)}) {
      SCOPED_TRACE(block);
      ::unlink(out.c_str());
      Fed<Get_ClearText> fed(kTail, out);
      fed.feed_in(c.doc, block);
      EXPECT_EQ(fed.finish(), c.wan_status);
      EXPECT_EQ(fed.get_status_code(), c.code);
      EXPECT_NE(fed.get_status_message().find(c.message), std::string::npos) << fed.get_status_message();
      EXPECT_EQ(exists(out), c.file_opened);
      bool ok = c.wan_status == 0 && c.code == 0;
      EXPECT_EQ(view_status(fed), c.wan_status != 0 ? TAVREL_ST_WAN_CALL : (c.code != 0 ? TAVREL_ST_WAN_CALL_2 : 0));
      if (ok) {
        EXPECT_EQ(read_file(out), "data");
      }

      ::unlink(out.c_str());
      answer(c.doc, block);
      Get_ClearText http(kTail, out);
      EXPECT_EQ(http.run(), c.wan_status);
      EXPECT_EQ(http.get_status_code(), c.code);
      EXPECT_NE(http.get_status_message().find(c.message), std::string::npos) << http.get_status_message();
      EXPECT_EQ(view_status(http) == 0, ok);
    }
  }
}

// A reply cut anywhere, by a server that closes short of what it announced: only the whole document
// counts, even when the data and the Status part have both come.
TEST_F(ClearTextTest, CutRepliesNeverCount) {
  const std::string bytes = random_bytes(50000, 3);
  const std::string doc = cleartext_doc(bytes);
  const size_t data_start = doc.find("\r\n\r\n") + 4;
  const size_t status_at = doc.find("--" + std::string(tavrel_wan::DEFAULT_BOUNDARY) + "\r\nContent-ID: Status");
  ASSERT_NE(status_at, std::string::npos);
  struct Case {
    size_t cut;
    int wan_status;
  };
  for (Case c : {Case{10, RCLIENT_ST_PREMATURE_EOF}, Case{data_start - 3, RCLIENT_ST_PREMATURE_EOF},
                 Case{data_start, RCLIENT_ST_PREMATURE_EOF}, Case{data_start + 20000, RCLIENT_ST_PREMATURE_EOF},
                 Case{status_at - 2, RCLIENT_ST_PREMATURE_EOF}, Case{status_at + 30, RCLIENT_ST_PREMATURE_EOF},
                 Case{doc.size() - 5, RCLIENT_ST_PREMATURE_EOF}, Case{doc.size() - 2, RCLIENT_ST_PREMATURE_EOF},
                 Case{doc.size(), 0}}) {
    SCOPED_TRACE(c.cut);
    Raw_Server raw([&](int fd, const std::string&) {
      send_all(fd, http_reply(doc.substr(0, c.cut), doc.size()));
      return false;
    });
    session()->init("http://127.0.0.1:" + std::to_string(raw.port()) + "/tavrel", "u", "", "p", "", "", "", "", "", 0,
                    "", "");
    ::unlink(out.c_str());
    Get_ClearText cmd(kTail, out);
    EXPECT_EQ(cmd.run(), c.wan_status);
    std::string message;
    int rc = view_status(cmd, &message);
    if (c.wan_status == 0) {
      EXPECT_EQ(rc, 0);
      EXPECT_EQ(read_file(out), bytes);
    } else {
      EXPECT_EQ(rc, TAVREL_ST_WAN_CALL);
      EXPECT_EQ(message, "Unable to complete RPC to WAN server.");
      // The bytes themselves may all be there; the verdict is still a failure.
      EXPECT_EQ(cmd.data_complete(), c.cut >= data_start + bytes.size());
    }
  }
}

TEST_F(ClearTextTest, FilesThatCannotBeWrittenStopTheTransfer) {
  struct Case {
    std::string path;
    int err;
    const char* what;
  };
  for (const Case& c : {Case{home->path() + "/no/such/dir/file", ENOENT, "open"}, Case{"/dev/full", ENOSPC, "write"}}) {
    SCOPED_TRACE(c.path);
    const std::string doc = cleartext_doc(random_bytes(300000, 4));
    answer(doc, 4096);
    Get_ClearText cmd(kTail, c.path);
    EXPECT_EQ(cmd.run(), RCLIENT_ST_LISTENER);
    EXPECT_EQ(cmd.get_write_error(), c.err);
    EXPECT_FALSE(cmd.data_complete());
    std::string message;
    EXPECT_EQ(view_status(cmd, &message), TAVREL_ST_WAN_CALL);
    EXPECT_NE(message.find(std::string("Unable to ") + c.what + " cleartext file \"" + c.path + "\""), std::string::npos)
        << message;
    // The same, fed: the command refuses the next block.
    Fed<Get_ClearText> fed(kTail, c.path);
    EXPECT_EQ(fed.feed_in(doc, 4096), RCLIENT_ST_LISTENER);
    EXPECT_EQ(fed.finish(), RCLIENT_ST_LISTENER);
    EXPECT_EQ(fed.get_write_error(), c.err);
  }
}

TEST_F(ClearTextTest, LostSessionIsRecoveredAndTheFileWrittenOnce) {
  const std::string bytes = random_bytes(100000, 5);
  answer(cleartext_doc(bytes), 8192);
  server->expire_sessions();
  Get_ClearText cmd(kTail, out);
  ASSERT_EQ(cmd.run(), 0);
  ASSERT_EQ(view_status(cmd), 0);
  EXPECT_EQ(read_file(out), bytes);
  EXPECT_EQ(cmd.get_bytes_written(), bytes.size());
  EXPECT_EQ(server->logins(), 2);
  auto reqs = server->requests();
  ASSERT_EQ(reqs.size(), 4u);  // login, refused GET, login, GET
  EXPECT_EQ(reqs[1].path, reqs[3].path);
}

}  // namespace
