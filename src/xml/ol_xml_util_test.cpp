// Native text conversion, message formatting, assertions and the trace hook.
#include "xml/ol_xml_util.h"

#include <gtest/gtest.h>
#include <xercesc/util/TranscodingException.hpp>
#include <xercesc/util/XMLString.hpp>

#include <string>
#include <thread>
#include <vector>

#include "xml/ol_util.h"
#include "xml/ol_xml_test_util.h"

using ol_test::ScopedCtype;
using xercesc::TranscodingException;

namespace {

const char16_t kCafe[] = u"caf\u00e9 \U0001F600";   // é and a character outside the BMP
const char kCafeUtf8[] = "caf\xc3\xa9 \xf0\x9f\x98\x80";

}  // namespace

TEST(OlXmlUtilConvert, AsciiConvertsInAnyLocale) {
  for (const char* loc : {"C", "C.UTF-8"}) {
    ScopedCtype ctype(loc);
    std::string out;
    EXPECT_TRUE(OlXmlUtil::xerces_to_native(u"plain ascii", out));
    EXPECT_EQ(out, "plain ascii");
    XMLCh* wide = OlXmlUtil::native_to_xerces("tx-id");
    EXPECT_EQ(std::u16string(wide), u"tx-id");
    xercesc::XMLString::release(&wide);
  }
}

TEST(OlXmlUtilConvert, Utf8LocaleCarriesEveryCharacter) {
  ScopedCtype ctype("C.UTF-8");
  EXPECT_EQ(OlXmlUtil::native_codeset(), "UTF-8");
  EXPECT_EQ(OlXmlUtil::xerces_to_native(kCafe), kCafeUtf8);
  XMLCh* wide = OlXmlUtil::native_to_xerces(kCafeUtf8);
  EXPECT_EQ(std::u16string(wide), kCafe);
  xercesc::XMLString::release(&wide);
}

TEST(OlXmlUtilConvert, AsciiLocaleRefusesOtherCharacters) {
  ScopedCtype ctype("C");
  std::string out;
  EXPECT_FALSE(OlXmlUtil::try_xerces_to_native(kCafe, 5, out));
  EXPECT_THROW(OlXmlUtil::xerces_to_native(kCafe, out), TranscodingException);
  EXPECT_THROW(OlXmlUtil::xerces_to_native(kCafe), TranscodingException);
  EXPECT_THROW(OlXmlUtil::native_to_xerces(kCafeUtf8), TranscodingException);
  // Only the part that is converted matters: the first four characters are ASCII.
  EXPECT_TRUE(OlXmlUtil::xerces_to_native(kCafe, 3, out));
  EXPECT_EQ(out, "caf");
  // Lossy forms always deliver.
  EXPECT_EQ(OlXmlUtil::xerces_to_native_lossy(kCafe, 4), "caf?");
  EXPECT_EQ(OlXmlUtil::xerces_to_native_lossy(kCafe, 7), "caf? ?");  // one '?' per character
  EXPECT_EQ(OlXmlUtil::native_to_xerces_lossy("a\xc3"), std::u16string(u"a\uFFFD"));
}

TEST(OlXmlUtilConvert, InvalidNativeBytesAreRefusedOrReplaced) {
  ScopedCtype ctype("C.UTF-8");
  std::u16string wide;
  const char* bad[] = {"\xff", "a\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf8\x88\x80\x80\x80"};
  for (const char* b : bad) {
    EXPECT_FALSE(OlXmlUtil::try_native_to_xerces(b, wide)) << b;
    EXPECT_THROW(OlXmlUtil::native_to_xerces(b), TranscodingException);
    std::u16string lossy = OlXmlUtil::native_to_xerces_lossy(b);
    EXPECT_NE(lossy.find(u'\uFFFD'), std::u16string::npos);
  }
  // An unpaired surrogate in UTF-16 has no UTF-8 form either.
  const char16_t lone[] = {u'a', 0xD800, u'b', 0};
  std::string out;
  EXPECT_FALSE(OlXmlUtil::try_xerces_to_native(lone, 3, out));
}

TEST(OlXmlUtilConvert, EmptyAndNullGiveEmpty) {
  std::string out = "stale";
  EXPECT_TRUE(OlXmlUtil::xerces_to_native(nullptr, 5, out));
  EXPECT_EQ(out, "");
  out = "stale";
  EXPECT_TRUE(OlXmlUtil::xerces_to_native(u"abc", 0, out));
  EXPECT_EQ(out, "");
  out = "stale";
  EXPECT_TRUE(OlXmlUtil::xerces_to_native(u"", out));
  EXPECT_EQ(out, "");
  EXPECT_EQ(OlXmlUtil::xerces_to_native(static_cast<const XMLCh*>(nullptr)), "");
  XMLCh* wide = OlXmlUtil::native_to_xerces("");
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(wide[0], 0);
  xercesc::XMLString::release(&wide);
}

TEST(OlXmlUtilConvert, LengthIsHonouredExactly) {
  // Converts `length` code units, not up to a terminator: no read past a chunk.
  const char16_t chunk[] = {u'a', u'b', u'c'};  // not terminated
  std::string out;
  EXPECT_TRUE(OlXmlUtil::xerces_to_native(chunk, 2, out));
  EXPECT_EQ(out, "ab");
}

TEST(OlXmlUtilConvert, EachThreadUsesItsOwnCharacterSet) {
  // Threads in different locales convert at the same time, each by its own rules.
  std::vector<std::thread> threads;
  std::vector<int> ok(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &ok] {
      ScopedCtype ctype(t % 2 ? "C.UTF-8" : "C");
      int good = 0;
      for (int i = 0; i < 2000; ++i) {
        std::string out;
        bool converted = OlXmlUtil::try_xerces_to_native(kCafe, 4, out);
        if (t % 2 ? (converted && out == "caf\xc3\xa9") : !converted) ++good;
      }
      ok[t] = good;
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(ok[t], 2000) << "thread " << t;
}

TEST(OlUtilFormat, MessageZeroAndFailures) {
  EXPECT_EQ(OlUtil::format(&_ol_xml_msg_table, OlUtil::kMsgUnsupportedChars, "caf?"),
            "Error: One or more characters in the following string is not supported by the "
            "server's operating system: \"caf?\".\n");
  EXPECT_EQ(OlUtil::format(&_ol_xml_msg_table, 1, "x"), "Internal error: could not load message 1");
  EXPECT_EQ(OlUtil::format(&_ol_xml_msg_table, -3), "Internal error: could not load message -3");
  EXPECT_EQ(OlUtil::format(nullptr, 0), "Internal error: could not load message 0");
  // The expansion must fit the buffer with its terminator.
  const size_t fixed = OlUtil::format(&_ol_xml_msg_table, 0, "").size();
  std::string fits(OlUtil::kFormatBufferSize - 1 - fixed, 'x');
  EXPECT_EQ(OlUtil::format(&_ol_xml_msg_table, 0, fits.c_str()).size(),
            OlUtil::kFormatBufferSize - 1);
  std::string too_long = fits + "x";
  EXPECT_EQ(OlUtil::format(&_ol_xml_msg_table, 0, too_long.c_str()),
            "Internal error: message 0 is too long");
}

namespace {

std::vector<std::string> g_lines;
std::vector<int> g_levels;
void record(int level, const char* scope, const char* text) {
  g_levels.push_back(level);
  g_lines.push_back(std::string(scope) + "|" + text);
}

}  // namespace

TEST(OlUtilTrace, AssertAndTraceReachOnlyAnInstalledSink) {
  g_lines.clear();
  g_levels.clear();
  OlUtil::ol_assert(false, "f.cpp", 7, "nobody listens");  // no sink: nothing happens
  OlUtil::trace(2, "XML:x", "dropped %d", 1);
  EXPECT_FALSE(OlUtil::tracing());
  OlTraceSink previous = OlUtil::set_trace_sink(&record);
  EXPECT_EQ(previous, nullptr);
  EXPECT_TRUE(OlUtil::tracing());
  OlUtil::ol_assert(true, "f.cpp", 8, "holds");
  OlUtil::ol_assert(false, "f.cpp", 9, "XML parse error: broken\n");
  OlUtil::trace(4, "XML:y", "step %s", "two");
  EXPECT_EQ(OlUtil::set_trace_sink(nullptr), &record);
  ASSERT_EQ(g_lines.size(), 2u);
  EXPECT_EQ(g_levels[0], 2);
  EXPECT_EQ(g_lines[0], "XML:OlUtil:ol_assert|XML parse error: broken (f.cpp:9)");
  EXPECT_EQ(g_levels[1], 4);
  EXPECT_EQ(g_lines[1], "XML:y|step two");
}
