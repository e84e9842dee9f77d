// The pipe frame: frames split and cut at every byte, and every way a frame can be bad.
#include "proto/pipe_frame.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Kind = Pipe_Frame_Kind;
using Err = Pipe_Frame_Decoder::Error;

const std::vector<std::string> kBodies = {"<one/>", "", "<three x=\"1\">\n0\n</three>"};

// Every body of a stream fed in the given pieces; "!" and the error text when the stream fails.
std::vector<std::string> read_all(Kind kind, const std::vector<std::string>& pieces) {
  Pipe_Frame_Reader r(kind, 1024);
  std::vector<std::string> out;
  std::string body;
  for (const std::string& p : pieces) {
    r.feed(p.data(), p.size());
    Pipe_Frame_Reader::Result res;
    while ((res = r.next(&body)) == Pipe_Frame_Reader::Result::kFrame) out.push_back(body);
    if (res == Pipe_Frame_Reader::Result::kError) out.push_back("!" + r.error());
  }
  return out;
}

TEST(PipeFrame, SplitAndCutAtEveryByte) {
  EXPECT_EQ(pipe_frame_encode(Kind::REQUEST, "<a/>"), "4\n<a/>");
  EXPECT_EQ(pipe_frame_encode(Kind::RESPONSE, "<a/>"), "4\n<a/>0\n");
  EXPECT_EQ(pipe_frame_encode(Kind::RESPONSE, ""), "0\n0\n");
  for (Kind kind : {Kind::REQUEST, Kind::RESPONSE}) {
    std::string stream;
    for (const std::string& b : kBodies) stream += pipe_frame_encode(kind, b);
    for (size_t cut = 0; cut <= stream.size(); ++cut)
      ASSERT_EQ(read_all(kind, {stream.substr(0, cut), stream.substr(cut)}), kBodies) << "split at " << cut;
    std::vector<std::string> bytes;
    for (char c : stream) bytes.emplace_back(1, c);
    EXPECT_EQ(read_all(kind, bytes), kBodies);

    // One frame cut short is never complete; whole, and followed by more, it takes its own bytes only.
    const std::string frame = pipe_frame_encode(kind, kBodies[2]);
    for (size_t cut = 0; cut <= frame.size(); ++cut) {
      Pipe_Frame_Decoder d(kind, 1024);
      const std::string bytes_in = frame.substr(0, cut) + (cut == frame.size() ? "7\nnext..." : "");
      const size_t taken = d.feed(bytes_in.data(), bytes_in.size());
      ASSERT_EQ(taken, cut) << cut;
      ASSERT_EQ(d.done(), cut == frame.size()) << cut;
      ASSERT_FALSE(d.failed()) << cut;
      if (cut > frame.find('\n')) {
        EXPECT_EQ(d.declared_length(), kBodies[2].size()) << cut;
      }
    }
  }
}

TEST(PipeFrame, BadFramesFailCleanly) {
  const std::string over = "99999999999999999999\n", max64 = "18446744073709551615\n";
  struct {
    Kind kind;
    std::string bytes;
    Err error;
    size_t taken;
    uint64_t declared;
    const char* text;
  } cases[] = {
      {Kind::REQUEST, "x\n", Err::NOT_A_NUMBER, 2, 0, "request length is not a number"},
      {Kind::RESPONSE, "\n", Err::EMPTY_LENGTH, 1, 0, "response length missing"},
      {Kind::REQUEST, "-1\n", Err::NOT_A_NUMBER, 3, 0, "not a number"},
      {Kind::REQUEST, "1 \n", Err::NOT_A_NUMBER, 3, 0, "not a number"},
      {Kind::REQUEST, "3\r\nabc", Err::NOT_A_NUMBER, 3, 0, "not a number"},
      {Kind::RESPONSE, "123456789012345678901\n", Err::LINE_TOO_LONG, 21, 0, "response length line too long"},
      {Kind::REQUEST, "101\n", Err::TOO_LARGE, 4, 101, "request larger than 100 bytes"},
      {Kind::REQUEST, over + "<Echo/>", Err::TOO_LARGE, over.size(), UINT64_MAX, "larger than"},
      {Kind::REQUEST, max64, Err::TOO_LARGE, max64.size(), UINT64_MAX, "larger than"},
      {Kind::RESPONSE, "3\nabcXY", Err::BAD_END, 6, 3, "response frame does not end in a zero length"},
      {Kind::RESPONSE, "3\nabc0X", Err::BAD_END, 7, 3, "zero length"},
  };
  for (const auto& c : cases) {
    Pipe_Frame_Decoder d(c.kind, 100);
    EXPECT_EQ(d.feed(c.bytes.data(), c.bytes.size()), c.taken) << c.bytes;
    ASSERT_TRUE(d.failed()) << c.bytes;
    EXPECT_EQ(d.error(), c.error) << c.bytes;
    EXPECT_EQ(d.declared_length(), c.declared) << c.bytes;
    EXPECT_NE(d.error_text().find(c.text), std::string::npos) << c.bytes << " -> " << d.error_text();
    EXPECT_EQ(d.feed("1\n", 2), 0u) << "nothing is taken after a failure";
    // A reader stops at the failure for good.
    Pipe_Frame_Reader r(c.kind, 100);
    r.feed(c.bytes.data(), c.bytes.size());
    std::string body;
    EXPECT_EQ(r.next(&body), Pipe_Frame_Reader::Result::kError) << c.bytes;
    EXPECT_EQ(r.next(&body), Pipe_Frame_Reader::Result::kError) << c.bytes;
  }

  // The limit itself is allowed; a decoder is used again after reset().
  Pipe_Frame_Decoder d(Kind::REQUEST, 3);
  EXPECT_EQ(d.feed("3\nabc", 5), 5u);
  ASSERT_TRUE(d.done());
  EXPECT_EQ(d.take_body(), "abc");
  d.reset();
  EXPECT_EQ(d.feed("0\n", 2), 2u);
  EXPECT_TRUE(d.done());
  EXPECT_EQ(d.body(), "");
}

}  // namespace
