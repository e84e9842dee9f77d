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

const char16_t kCafe[] = u"caf\u00e9 \U0001F600";  // é and a character outside the BMP
const char kCafeUtf8[] = "caf\xc3\xa9 \xf0\x9f\x98\x80";

std::u16string to_xerces(const std::string& native) {
  XMLCh* wide = OlXmlUtil::native_to_xerces(native);
  std::u16string out(wide);
  xercesc::XMLString::release(&wide);
  return out;
}

}  // namespace

TEST(OlXmlUtilConvert, Utf8LocaleCarriesEveryCharacterAsciiOnlyAscii) {
  for (const char* loc : {"C", "C.UTF-8"}) {
    ScopedCtype ctype(loc);
    EXPECT_EQ(OlXmlUtil::xerces_to_native(u"plain ascii"), "plain ascii");
    EXPECT_EQ(to_xerces("tx-id"), u"tx-id");
  }
  {
    ScopedCtype ctype("C.UTF-8");
    EXPECT_EQ(OlXmlUtil::native_codeset(), "UTF-8");
    EXPECT_EQ(OlXmlUtil::xerces_to_native(kCafe), kCafeUtf8);
    EXPECT_EQ(to_xerces(kCafeUtf8), kCafe);
  }
  ScopedCtype ctype("C");
  std::string out;
  EXPECT_FALSE(OlXmlUtil::try_xerces_to_native(kCafe, 5, out));
  EXPECT_THROW(OlXmlUtil::xerces_to_native(kCafe, out), TranscodingException);
  EXPECT_THROW(OlXmlUtil::native_to_xerces(kCafeUtf8), TranscodingException);
  // Exactly `length` code units are converted (no read to a terminator): the first three are ASCII.
  const char16_t chunk[] = {u'c', u'a', u'f', 0xE9};
  EXPECT_TRUE(OlXmlUtil::xerces_to_native(chunk, 3, out));
  EXPECT_EQ(out, "caf");
  // Lossy forms always deliver, one '?' per character.
  EXPECT_EQ(OlXmlUtil::xerces_to_native_lossy(kCafe, 7), "caf? ?");
  EXPECT_EQ(OlXmlUtil::native_to_xerces_lossy("a\xc3"), u"a\uFFFD");
}

TEST(OlXmlUtilConvert, InvalidTextIsRefusedOrReplaced) {
  ScopedCtype ctype("C.UTF-8");
  std::u16string wide;
  for (const char* b : {"\xff", "a\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf8\x88\x80\x80\x80"}) {
    EXPECT_FALSE(OlXmlUtil::try_native_to_xerces(b, wide)) << b;
    EXPECT_THROW(OlXmlUtil::native_to_xerces(b), TranscodingException);
    EXPECT_NE(OlXmlUtil::native_to_xerces_lossy(b).find(u'\uFFFD'), std::u16string::npos);
  }
  // An unpaired surrogate in UTF-16 has no UTF-8 form either.
  const char16_t lone[] = {u'a', 0xD800, u'b', 0};
  std::string out = "stale";
  EXPECT_FALSE(OlXmlUtil::try_xerces_to_native(lone, 3, out));
  // Null, zero length and empty give empty text.
  EXPECT_TRUE(OlXmlUtil::xerces_to_native(nullptr, 5, out));
  EXPECT_EQ(out, "");
  out = "stale";
  EXPECT_TRUE(OlXmlUtil::xerces_to_native(u"abc", 0, out));
  EXPECT_EQ(out, "");
  EXPECT_EQ(OlXmlUtil::xerces_to_native(static_cast<const XMLCh*>(nullptr)), "");
  EXPECT_EQ(to_xerces(""), u"");
}

TEST(OlXmlUtilConvert, EachThreadUsesItsOwnCharacterSet) {
  std::vector<std::thread> threads;
  std::vector<int> good(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &good] {
      ScopedCtype ctype(t % 2 ? "C.UTF-8" : "C");
      for (int i = 0; i < 2000; ++i) {
        std::string out;
        bool converted = OlXmlUtil::try_xerces_to_native(kCafe, 4, out);
        good[t] += t % 2 ? (converted && out == "caf\xc3\xa9") : !converted;
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(good[t], 2000) << "thread " << t;
}

TEST(OlUtilFormat, MessageZeroAndFailures) {
  EXPECT_EQ(OlUtil::format(&_ol_xml_msg_table, OlUtil::kMsgUnsupportedChars, "caf?"),
            "Error: One or more characters in the following string is not supported by the "
            "server's operating system: \"caf?\".\n");
  EXPECT_EQ(OlUtil::format(&_ol_xml_msg_table, 1, "x"), "Internal error: could not load message 1");
  EXPECT_EQ(OlUtil::format(&_ol_xml_msg_table, -3), "Internal error: could not load message -3");
  EXPECT_EQ(OlUtil::format(nullptr, 0), "Internal error: could not load message 0");
  // The catalogue's section and prefix; the prefix names it in a text for an unknown number.
  EXPECT_STREQ(_ol_xml_msg_table.section, "xml_odfs");
  EXPECT_EQ(imsg_format(&_ol_xml_msg_table, 7), "ol_xml: unknown message 7");
  // The expansion must fit the buffer with its terminator.
  const size_t fixed = OlUtil::format(&_ol_xml_msg_table, 0, "").size();
  std::string fits(OlUtil::kFormatBufferSize - 1 - fixed, 'x');
  EXPECT_EQ(OlUtil::format(&_ol_xml_msg_table, 0, fits.c_str()).size(), OlUtil::kFormatBufferSize - 1);
  EXPECT_EQ(OlUtil::format(&_ol_xml_msg_table, 0, (fits + "x").c_str()), "Internal error: message 0 is too long");
}

namespace {

std::vector<std::string> g_lines;
void record(int level, const char* scope, const char* text) {
  g_lines.push_back(std::to_string(level) + " " + scope + "|" + text);
}

}  // namespace

TEST(OlUtilTrace, AssertAndTraceReachOnlyAnInstalledSink) {
  g_lines.clear();
  OlUtil::ol_assert(false, "f.cpp", 7, "nobody listens");  // no sink: nothing happens
  OlUtil::trace(2, "XML:x", "dropped %d", 1);
  EXPECT_FALSE(OlUtil::tracing());
  EXPECT_EQ(OlUtil::set_trace_sink(&record), nullptr);
  EXPECT_TRUE(OlUtil::tracing());
  OlUtil::ol_assert(true, "f.cpp", 8, "holds");
  OlUtil::ol_assert(false, "f.cpp", 9, "XML parse error: broken\n");
  OlUtil::trace(4, "XML:y", "step %s", "two");
  EXPECT_EQ(OlUtil::set_trace_sink(nullptr), &record);
  EXPECT_EQ(g_lines, (std::vector<std::string>{"2 XML:OlUtil:ol_assert|XML parse error: broken (f.cpp:9)",
                                               "4 XML:y|step two"}));
}
