#include "xml/ol_xml_util.h"

#include <langinfo.h>
#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>
#include <unicode/ustring.h>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/TranscodingException.hpp>
#include <xercesc/util/XMLString.hpp>

#include <strings.h>

#include <climits>
#include <cstring>

#include "xml/ol_xml_elem.h"

Tavrel_Mutex OlXmlUtil::g_converter_lock{Tavrel_Lock_Rank::LEAF, "OlXmlUtil::g_converter_lock"};

static_assert(sizeof(XMLCh) == sizeof(UChar), "XMLCh and UChar must both be UTF-16 code units");

namespace {

// One ICU converter per thread for the current native character set, reopened when the
// thread's character set changes.
struct NativeConverter {
  std::string codeset;
  UConverter* cnv = nullptr;
  bool is_utf8 = false;
  ~NativeConverter() {
    if (cnv) ucnv_close(cnv);
  }
};

bool codeset_is_utf8(const char* name) {
  return strcasecmp(name, "UTF-8") == 0 || strcasecmp(name, "UTF8") == 0;
}

NativeConverter& native_converter() {
  thread_local NativeConverter conv;
  const char* name = nl_langinfo(CODESET);
  if (!name || !*name) name = "ANSI_X3.4-1968";
  if (conv.cnv && conv.codeset == name) return conv;
  if (conv.cnv) {
    ucnv_close(conv.cnv);
    conv.cnv = nullptr;
  }
  conv.codeset = name;
  conv.is_utf8 = codeset_is_utf8(name);
  UErrorCode err = U_ZERO_ERROR;
  conv.cnv = ucnv_open(name, &err);
  if (U_FAILURE(err) || !conv.cnv) {
    err = U_ZERO_ERROR;
    conv.cnv = ucnv_open("US-ASCII", &err);  // always available in ICU
    conv.is_utf8 = false;
  }
  return conv;
}

bool all_ascii(const XMLCh* s, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i)
    if (s[i] >= 0x80) return false;
  return true;
}

bool all_ascii(std::string_view s) {
  for (unsigned char c : s)
    if (c >= 0x80) return false;
  return true;
}

// UTF-16 -> native. `lossy` substitutes '?' for characters without a native form.
bool to_native(const XMLCh* chars, std::size_t length, std::string& out, bool lossy) {
  out.clear();
  if (!chars || length == 0) return true;
  if (length > static_cast<std::size_t>(INT32_MAX)) return false;  // beyond ICU's lengths
  if (all_ascii(chars, length)) {  // every supported native set is an ASCII superset
    out.resize(length);
    for (std::size_t i = 0; i < length; ++i) out[i] = static_cast<char>(chars[i]);
    return true;
  }
  NativeConverter& conv = native_converter();
  const UChar* src = reinterpret_cast<const UChar*>(chars);
  UErrorCode err = U_ZERO_ERROR;
  if (conv.is_utf8 && !lossy) {
    int32_t need = 0;
    u_strToUTF8(nullptr, 0, &need, src, static_cast<int32_t>(length), &err);
    if (err != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(err)) return false;
    err = U_ZERO_ERROR;
    out.resize(static_cast<std::size_t>(need));
    u_strToUTF8(out.data(), need, &need, src, static_cast<int32_t>(length), &err);
    return U_SUCCESS(err);
  }
  ucnv_reset(conv.cnv);
  if (lossy) {
    ucnv_setFromUCallBack(conv.cnv, UCNV_FROM_U_CALLBACK_SUBSTITUTE, nullptr, nullptr, nullptr,
                          &err);
    ucnv_setSubstChars(conv.cnv, "?", 1, &err);
  } else {
    ucnv_setFromUCallBack(conv.cnv, UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &err);
  }
  if (U_FAILURE(err)) return false;
  int32_t need = ucnv_fromUChars(conv.cnv, nullptr, 0, src, static_cast<int32_t>(length), &err);
  if (err != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(err)) return false;
  err = U_ZERO_ERROR;
  out.resize(static_cast<std::size_t>(need));
  ucnv_fromUChars(conv.cnv, out.data(), need, src, static_cast<int32_t>(length), &err);
  // A zero terminator does not fit in `need` bytes: that warning is expected.
  if (err == U_STRING_NOT_TERMINATED_WARNING) err = U_ZERO_ERROR;
  return U_SUCCESS(err);
}

// Native -> UTF-16. `lossy` substitutes U+FFFD for invalid native bytes.
bool to_utf16(std::string_view text, std::u16string& out, bool lossy) {
  out.clear();
  if (text.empty()) return true;
  if (text.size() > static_cast<std::size_t>(INT32_MAX)) return false;  // beyond ICU's lengths
  if (all_ascii(text)) {
    out.resize(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) out[i] = static_cast<char16_t>(text[i]);
    return true;
  }
  NativeConverter& conv = native_converter();
  UErrorCode err = U_ZERO_ERROR;
  if (conv.is_utf8) {
    int32_t need = 0;
    if (lossy) {
      u_strFromUTF8WithSub(nullptr, 0, &need, text.data(), static_cast<int32_t>(text.size()),
                           0xFFFD, nullptr, &err);
    } else {
      u_strFromUTF8(nullptr, 0, &need, text.data(), static_cast<int32_t>(text.size()), &err);
    }
    if (err != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(err)) return false;
    err = U_ZERO_ERROR;
    out.resize(static_cast<std::size_t>(need));
    UChar* dst = reinterpret_cast<UChar*>(out.data());
    if (lossy) {
      u_strFromUTF8WithSub(dst, need, &need, text.data(), static_cast<int32_t>(text.size()), 0xFFFD,
                           nullptr, &err);
    } else {
      u_strFromUTF8(dst, need, &need, text.data(), static_cast<int32_t>(text.size()), &err);
    }
    if (err == U_STRING_NOT_TERMINATED_WARNING) err = U_ZERO_ERROR;
    return U_SUCCESS(err);
  }
  ucnv_reset(conv.cnv);
  ucnv_setToUCallBack(conv.cnv, lossy ? UCNV_TO_U_CALLBACK_SUBSTITUTE : UCNV_TO_U_CALLBACK_STOP,
                      nullptr, nullptr, nullptr, &err);
  if (U_FAILURE(err)) return false;
  int32_t need = ucnv_toUChars(conv.cnv, nullptr, 0, text.data(), static_cast<int32_t>(text.size()),
                               &err);
  if (err != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(err)) return false;
  err = U_ZERO_ERROR;
  out.resize(static_cast<std::size_t>(need));
  ucnv_toUChars(conv.cnv, reinterpret_cast<UChar*>(out.data()), need, text.data(),
                static_cast<int32_t>(text.size()), &err);
  if (err == U_STRING_NOT_TERMINATED_WARNING) err = U_ZERO_ERROR;
  return U_SUCCESS(err);
}

[[noreturn]] void throw_unrepresentable() {
  OlXmlUtil::platform_init();  // the exception loads its text from the library
  throw xercesc::TranscodingException(__FILE__, __LINE__, xercesc::XMLExcepts::Trans_Unrepresentable);
}

}  // namespace

bool OlXmlUtil::tag_exists(OlXmlElem* elem, std::string_view tag) {
  return elem && elem->extract_child(tag) != nullptr;
}

std::string OlXmlUtil::get_value(OlXmlElem* elem, std::string_view tag) {
  if (!elem) return std::string();
  OlXmlElem* child = elem->extract_child(tag);
  return child ? child->get_value() : std::string();
}

void OlXmlUtil::platform_init() {
  static std::once_flag once;
  std::call_once(once, [] { xercesc::XMLPlatformUtils::Initialize(); });
}

XMLCh* OlXmlUtil::native_to_xerces(const std::string& text) {
  std::u16string wide;
  if (!to_utf16(text, wide, false)) throw_unrepresentable();
  platform_init();
  auto* out = static_cast<XMLCh*>(
      xercesc::XMLPlatformUtils::fgMemoryManager->allocate((wide.size() + 1) * sizeof(XMLCh)));
  std::memcpy(out, wide.data(), wide.size() * sizeof(XMLCh));
  out[wide.size()] = 0;
  return out;
}

bool OlXmlUtil::xerces_to_native(const XMLCh* chars, XMLSize_t length, std::string& out) {
  if (!try_xerces_to_native(chars, length, out)) throw_unrepresentable();
  return true;
}

bool OlXmlUtil::xerces_to_native(const XMLCh* chars, std::string& out) {
  return xerces_to_native(chars, chars ? xercesc::XMLString::stringLen(chars) : 0, out);
}

std::string OlXmlUtil::xerces_to_native(const XMLCh* chars) {
  std::string out;
  xerces_to_native(chars, out);
  return out;
}

bool OlXmlUtil::try_xerces_to_native(const XMLCh* chars, std::size_t length, std::string& out) {
  return to_native(chars, length, out, false);
}

bool OlXmlUtil::try_native_to_xerces(std::string_view text, std::u16string& out) {
  return to_utf16(text, out, false);
}

std::string OlXmlUtil::xerces_to_native_lossy(const XMLCh* chars, std::size_t length) {
  std::string out;
  if (!to_native(chars, length, out, true)) out.clear();
  return out;
}

std::u16string OlXmlUtil::native_to_xerces_lossy(std::string_view text) {
  std::u16string out;
  if (!to_utf16(text, out, true)) out.clear();
  return out;
}

std::string OlXmlUtil::native_codeset() {
  const char* name = nl_langinfo(CODESET);
  return name ? name : "";
}
