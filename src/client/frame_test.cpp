#include "client/frame.h"

#include <gtest/gtest.h>

using tavrel::client::FrameReader;

TEST(Frame, EncodesBothDirections) {
  EXPECT_EQ(tavrel::client::encode_request_frame("<a/>"), "4\n<a/>");
  EXPECT_EQ(tavrel::client::encode_response_frame("<a/>"), "4\n<a/>0\n");
  EXPECT_EQ(tavrel::client::encode_response_frame(""), "0\n0\n");
}

TEST(Frame, ReaderSplitsAtEveryByte) {
  std::string stream = tavrel::client::encode_response_frame("<one/>") + tavrel::client::encode_response_frame("") +
                       tavrel::client::encode_response_frame("<three x=\"1\"/>");
  for (size_t cut = 0; cut <= stream.size(); cut++) {
    FrameReader r;
    std::vector<std::string> docs;
    std::string d;
    r.feed(stream.data(), cut);
    while (r.next(&d) == FrameReader::Result::kFrame) docs.push_back(d);
    r.feed(stream.data() + cut, stream.size() - cut);
    FrameReader::Result res;
    while ((res = r.next(&d)) == FrameReader::Result::kFrame) docs.push_back(d);
    ASSERT_EQ(res, FrameReader::Result::kNeedMore) << cut;
    ASSERT_EQ(docs.size(), 3u) << cut;
    EXPECT_EQ(docs[0], "<one/>");
    EXPECT_EQ(docs[1], "");
    EXPECT_EQ(docs[2], "<three x=\"1\"/>");
  }
}

TEST(Frame, ReaderRefusesBadFrames) {
  struct {
    const char* bytes;
    const char* why;
  } cases[] = {
      {"x\n", "not a number"},
      {"\n", "missing"},
      {"3\nabcXY", "zero length"},
      {"-1\n", "not a number"},
      {"123456789012345678901234\n", "too long"},
      {"1000\n", "larger than"},
  };
  for (auto& c : cases) {
    FrameReader r(100);
    r.feed(c.bytes, strlen(c.bytes));
    std::string d;
    EXPECT_EQ(r.next(&d), FrameReader::Result::kError) << c.bytes;
    EXPECT_NE(r.error().find(c.why), std::string::npos) << c.bytes << " -> " << r.error();
  }
}
