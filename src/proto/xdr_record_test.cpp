// Xdr_Record owns what a decode allocates: a heap string survives until reset() or the end of the
// record, also after a decode that failed halfway. The sanitizer build's leak check fails the run
// when something is left.
#include "proto/xdr_record.h"

#include <gtest/gtest.h>

#include <cstring>

#include "proto/tavrel_records.h"
#include "proto/view_records.h"

namespace {

bool decode(Xdr_Record_Base& rec, std::string img) {
  XDR x;
  xdrmem_create(&x, img.data(), static_cast<u_int>(img.size()), XDR_DECODE);
  return rec.code(&x);
}

TEST(XdrRecord, FreesWhatADecodeAllocatedOnResetAndAtTheEnd) {
  char text[] = "dir/target-of-the-link";
  view_readlink_reply_t sent{view_hdr_reply_t{7, 0}, std::strlen(text), text};
  std::string img;
  ASSERT_TRUE(xdr_encode_record(xdr_view_readlink_reply_t, sent, &img));

  Xdr_Record<view_readlink_reply_t> r(xdr_view_readlink_reply_t);
  EXPECT_EQ(r->text, nullptr);
  ASSERT_TRUE(decode(r, img));
  ASSERT_NE(r->text, nullptr);
  EXPECT_NE(r->text, text);
  EXPECT_STREQ(r->text, text);
  EXPECT_EQ(r->hdr.xid, 7u);
  r.reset();
  EXPECT_EQ(r->text, nullptr);
  EXPECT_EQ(r->len, 0u);
  EXPECT_EQ(r->hdr.xid, 0u);

  // Decoded again and left to the destructor; a decode cut inside the text is freed the same way.
  ASSERT_TRUE(decode(r, img));
  Xdr_Record<view_readlink_reply_t> torn(xdr_view_readlink_reply_t);
  EXPECT_FALSE(decode(torn, img.substr(0, img.size() - 4)));
  torn.reset();
  EXPECT_EQ(torn->text, nullptr);
  EXPECT_FALSE(decode(torn, img.substr(0, img.size() - 4)));
}

}  // namespace
