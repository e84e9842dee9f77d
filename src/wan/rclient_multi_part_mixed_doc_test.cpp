// The reply document parser, alone and under the command framework, fed as libcurl would: at every
// split point, byte by byte, truncated anywhere, broken in every way the format can break, and long.
#include "wan/rclient_multi_part_mixed_doc.h"

#include <sstream>

#include <gtest/gtest.h>

#include "proto/reply_writer.h"
#include "proto/wan_names.h"
#include "wan/rclient_messages.h"
#include "wan/wan_test_cmd.h"

using wan_test::Test_Cmd;

namespace {

const std::string B = tavrel_wan::DEFAULT_BOUNDARY;
const std::string DECL = std::string(tavrel_wan::DECL_PREFIX) + B + "\r\n";

struct Outcome {
  int wan_status;
  int32_t code;
  std::string message;
  std::vector<Test_Cmd::Part> parts;
  bool operator==(const Outcome& o) const {
    return wan_status == o.wan_status && code == o.code && message == o.message && parts == o.parts;
  }
};

std::ostream& operator<<(std::ostream& os, const Outcome& o) {
  os << "{wan " << o.wan_status << ", code " << o.code << ", msg \"" << o.message << "\", " << o.parts.size()
     << " parts:";
  for (const auto& p : o.parts) os << " " << p.id << "(" << p.body.size() << ")";
  return os << "}";
}

// Feeds `blocks` and ends the transfer.
Outcome run_blocks(const std::vector<std::string>& blocks) {
  Test_Cmd cmd;
  for (const auto& b : blocks) cmd.feed(b);
  int rc = cmd.finish();
  return {rc, cmd.get_status_code(), cmd.get_status_message(), cmd.parts};
}

Outcome run_whole(const std::string& doc) { return run_blocks({doc}); }

Outcome run_split(const std::string& doc, size_t block) {
  std::vector<std::string> blocks;
  for (size_t i = 0; i < doc.size(); i += block) blocks.push_back(doc.substr(i, block));
  return run_blocks(blocks);
}

// A reply with awkward bodies: empty, one holding a boundary line and the end line, binary bytes
// including 0xFF and lone CRs, and a message in the Status part.
std::string tricky_doc() {
  tavrel_wan::ReplyWriter w;
  w.begin();
  w.part("A", "hello");
  w.part("Empty", "");
  w.part("Fake", "\r\n--" + B + "\r\nContent-ID: Status\r\n\r\n--" + B + "--\r\n");
  std::string bin;
  for (int i = 0; i < 256; ++i) bin.push_back(static_cast<char>(255 - i));
  bin += "\r\r\n\r";
  w.part("Bin", {{"Extra", "x: y"}}, bin);
  w.status(TBS_ST_NOT_FOUND, "Name \"x.c\" not found");
  w.end();
  return w.take();
}

TEST(MultiPartDoc, EverySplitPointAndByteByByteParseLikeTheWhole) {
  const std::string doc = tricky_doc();
  Outcome whole = run_whole(doc);
  ASSERT_EQ(whole.wan_status, 0);
  ASSERT_EQ(whole.code, TBS_ST_NOT_FOUND);
  EXPECT_EQ(whole.message, "Name \"x.c\" not found");
  ASSERT_EQ(whole.parts.size(), 4u);
  EXPECT_EQ(whole.parts[0], (Test_Cmd::Part{"A", "hello"}));
  EXPECT_EQ(whole.parts[1], (Test_Cmd::Part{"Empty", ""}));
  EXPECT_EQ(whole.parts[2].body.substr(2, 2 + B.size()), "--" + B);
  EXPECT_EQ(whole.parts[3].body.size(), 260u);

  for (size_t i = 0; i <= doc.size(); ++i) {
    Outcome two = run_blocks({doc.substr(0, i), doc.substr(i)});
    ASSERT_EQ(two, whole) << "split at " << i;
  }
  for (size_t block : {1, 2, 3, 7, 64}) EXPECT_EQ(run_split(doc, block), whole) << "blocks of " << block;
}

// Truncated at every byte: a cut between whole parts reads as a reply without its later parts
// (status -1 until the Status part is complete); a cut inside a line or a body is 30006.
TEST(MultiPartDoc, TruncatedAtEveryByteGivesExactStatus) {
  tavrel_wan::ReplyWriter w;
  std::vector<size_t> clean = {0};
  std::vector<size_t> part_done;  // offset from which each part counts as received
  w.begin();
  clean.push_back(w.data().size());
  for (std::string body : {"first", "", "third body"}) {
    w.part("P", body);
    size_t end = w.data().size();
    clean.push_back(end - 2);
    clean.push_back(end);
    part_done.push_back(end - 2);
  }
  w.status(7, "why");
  size_t status_end = w.data().size();
  clean.push_back(status_end - 2);
  clean.push_back(status_end);
  w.end();
  const std::string doc = w.take();
  clean.push_back(doc.size());

  for (size_t cut = 0; cut <= doc.size(); ++cut) {
    Outcome o = run_whole(doc.substr(0, cut));
    bool is_clean = std::find(clean.begin(), clean.end(), cut) != clean.end();
    ASSERT_EQ(o.wan_status, is_clean ? 0 : RCLIENT_ST_PREMATURE_EOF) << "cut at " << cut;
    size_t expect_parts = 0;
    for (size_t p : part_done) expect_parts += cut >= p;
    ASSERT_EQ(o.parts.size(), expect_parts) << "cut at " << cut;
    ASSERT_EQ(o.code, cut >= status_end - 2 ? 7 : -1) << "cut at " << cut;
  }
}

struct BadCase {
  const char* name;
  std::string doc;
  int wan_status;  // after the transfer
  bool stops_transfer;  // the command stops the transfer as soon as it sees it
  int32_t code = -1;
};

std::string part(const std::string& headers, const std::string& body) {
  return "--" + B + "\r\n" + headers + "\r\n" + body + "\r\n";
}
const std::string STATUS_OK = part("Content-ID: Status\r\nStatus: 0\r\nHasNonOkMsg: 0\r\nContent-Length: 0\r\n", "");
const std::string END = "--" + B + "--\r\n";

TEST(MultiPartDoc, BrokenRepliesGiveExactStatuses) {
  std::string many_headers;
  for (int i = 0; i < 70; ++i) many_headers += "H" + std::to_string(i) + ": v\r\n";
  std::vector<BadCase> cases = {
      {"wrong part boundary", DECL + "--OTHER\r\nContent-ID: A\r\nContent-Length: 1\r\n\r\nx\r\n" + STATUS_OK + END,
       RCLIENT_ST_FORMAT, true},
      {"no declaration", part("Content-ID: A\r\nContent-Length: 1\r\n", "x") + STATUS_OK + END, RCLIENT_ST_FORMAT,
       true},
      {"declaration with another boundary", "Content-Type: multipart/mixed; boundary=Q\r\n" + STATUS_OK + END,
       RCLIENT_ST_FORMAT, true},
      {"CR without LF", DECL + "--" + B + "\r\nContent-ID: A\rContent-Length: 1\r\n\r\nx\r\n" + STATUS_OK + END,
       RCLIENT_ST_FORMAT, true},
      {"Content-Length not a number", DECL + part("Content-ID: A\r\nContent-Length: 1x\r\n", "x") + STATUS_OK + END,
       RCLIENT_ST_FORMAT, true},
      {"Status item not a number",
       DECL + part("Content-ID: Status\r\nStatus: zero\r\nHasNonOkMsg: 0\r\nContent-Length: 0\r\n", "") + END,
       RCLIENT_ST_FORMAT, true},
      {"Status without HasNonOkMsg", DECL + part("Content-ID: Status\r\nStatus: 0\r\nContent-Length: 0\r\n", "") + END,
       RCLIENT_ST_FORMAT, true},
      {"too many header lines", DECL + part("Content-ID: A\r\n" + many_headers + "Content-Length: 0\r\n", "") + END,
       RCLIENT_ST_FORMAT, true},
      {"part larger than may be held", DECL + part("Content-ID: A\r\nContent-Length: 2000000\r\n", "x"),
       RCLIENT_ST_NO_MEMORY, true},
      {"line longer than 2048 bytes", DECL + "--" + B + std::string(3000, 'b') + "\r\n" + STATUS_OK + END,
       RCLIENT_ST_FORMAT, true},
      {"byte 255 in a header line", DECL + "--" + B + "\r\nContent-ID: A\xff\r\nContent-Length: 0\r\n\r\n" + STATUS_OK + END,
       RCLIENT_ST_PREMATURE_EOF, false},
      {"body shorter than Content-Length", DECL + part("Content-ID: A\r\nContent-Length: 10\r\n", "short"),
       RCLIENT_ST_PREMATURE_EOF, false},
      {"no Status part", DECL + part("Content-ID: A\r\nContent-Length: 1\r\n", "x") + END, 0, false},
      {"empty body", "", 0, false},
      {"only empty lines", "\r\n\r\n\r\n", 0, false},
      {"data after the end line", DECL + STATUS_OK + END + "junk\r\n--" + B + "\r\n", 0, false, 0},
      {"Status message body missing",
       DECL + "--" + B + "\r\nContent-ID: Status\r\nStatus: 5\r\nHasNonOkMsg: 1\r\nContent-Length: 9\r\n\r\nabc",
       RCLIENT_ST_PREMATURE_EOF, false},
  };
  for (const BadCase& c : cases) {
    SCOPED_TRACE(c.name);
    // Whole.
    Test_Cmd whole;
    whole.set_max_part_body(1u << 20);
    int fed = whole.feed(c.doc);
    EXPECT_EQ(fed != 0, c.stops_transfer);
    if (c.stops_transfer) {
      EXPECT_EQ(fed, c.wan_status);
    }
    EXPECT_EQ(whole.finish(), c.wan_status);
    EXPECT_EQ(whole.get_status_code(), c.code);
    // Byte by byte: the same final status; a transfer is stopped at the latest at the end.
    Test_Cmd bytes;
    bytes.set_max_part_body(1u << 20);
    int stopped = 0;
    for (char ch : c.doc) {
      stopped = bytes.feed(std::string(1, ch));
      if (stopped) break;
    }
    EXPECT_EQ(stopped != 0, c.stops_transfer);
    if (!stopped) {
      EXPECT_EQ(bytes.finish(), c.wan_status);
    }
  }
}

// ---- The document alone ----------------------------------------------------------------------------

TEST(MultiPartDoc, HeaderItemsRules) {
  struct {
    RClient_Response_Stream stream;
    RClient_Multi_Part_Mixed_Doc doc{&stream};
    void add(const std::string& s) {
      stream.append(s.data(), s.size());
      stream.seek(0);
    }
  } f;
  f.add(DECL + "--" + B + "\r\nContent-ID :  A  \r\nX: one\r\nX: two\r\nUrl: http://h:1/p\r\nContent-Length: 3\r\n\r\nabc\r\n" +
        "--" + B + "\r\nContent-ID: B\r\nContent-Length: 1\r\nZ\r\nNot: header\r\n\r\n");
  ASSERT_EQ(f.doc.next_part(1), 1);
  EXPECT_EQ(f.doc.get_part_item("Content-ID"), "A");   // both sides trimmed
  EXPECT_EQ(f.doc.get_part_item("X"), "one");          // the first of a name wins
  EXPECT_EQ(f.doc.get_part_item("Url"), "http://h:1/p");  // split at the first colon
  EXPECT_EQ(f.doc.get_part_item("content-id"), "");   // names are exact
  std::ostringstream body;
  EXPECT_EQ(f.doc.copy_part_body(3, &body), 3);
  EXPECT_EQ(body.str(), "abc");
  // A header line of one byte ends the header block; what follows is body.
  ASSERT_EQ(f.doc.next_part(1), 1);
  EXPECT_EQ(f.doc.get_part_item("Content-ID"), "B");
  EXPECT_EQ(f.doc.get_part_item("Not"), "");
  EXPECT_EQ(f.doc.part_length(), 1u);
}

// ---- Bounded memory ----------------------------------------------------------------------------------

TEST(MultiPartDoc, ReplyThatCannotProgressIsAbandoned) {
  // A 0xFF where a line should end leaves the parser waiting for ever: the command stops holding
  // data once more than a part's bound has piled up, with the parser's own verdict.
  Test_Cmd stuck;
  stuck.set_max_part_body(64 * 1024);
  int rc = stuck.feed(DECL + "--" + B + "\r\nContent-ID: \xff");
  std::string filler(16384, 'f');
  int blocks = 0;
  while (rc == 0 && blocks < 1000) {
    rc = stuck.feed(filler);
    ++blocks;
  }
  EXPECT_EQ(rc, RCLIENT_ST_PREMATURE_EOF);
  EXPECT_LE(stuck.peak_response_buffer(), 64u * 1024 + (1u << 20) + 16384 + 200);

  // A broken boundary is final at once: nothing more is held.
  Test_Cmd broken;
  EXPECT_EQ(broken.feed(DECL + "--NOT-THE-BOUNDARY\r\n" + filler), RCLIENT_ST_FORMAT);
  EXPECT_LE(broken.peak_response_buffer(), DECL.size() + filler.size() + 100);
}

}  // namespace
