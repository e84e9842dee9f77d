// OlXmlUtil: reading helpers over the parsed tree, and conversion between native text and
// the XML library's 16-bit (UTF-16) strings.
//
// Native text is text in the character set of the calling thread's LC_CTYPE locale
// (nl_langinfo(CODESET)); the agent sets its locale from the environment at start. A UTF-8
// locale can carry every character XML can; in an ASCII ("C") locale only ASCII converts.
// A character set ICU does not know is treated as US-ASCII.
//
// Conversions are strict: a character that has no native form (or, the other way, native
// bytes that are not valid in the native character set) is a failure, never silently
// replaced, except in the explicitly lossy helpers. Each thread converts with its own ICU
// converter, so conversions need no lock; g_converter_lock is not taken by any of them.
#pragma once

#include <xercesc/util/XercesDefs.hpp>

#include <mutex>
#include <string>
#include <string_view>

#include "base/tavrel_mutex.h"

class OlXmlElem;

class OlXmlUtil {
 public:
  // Process-wide lock offered to callers that must serialise work around conversions. The
  // conversions themselves never take it. A leaf: nothing else may be locked under it.
  static Tavrel_Mutex g_converter_lock;

  // True when `elem` has an attached child `tag`. Consumes that child (extract_child): after
  // a true answer, get_value() on the same tag no longer finds it. Null `elem` gives false.
  static bool tag_exists(OlXmlElem* elem, std::string_view tag);

  // Value of the first attached child `tag`, which is consumed; empty text when there is no
  // such child. An empty child and a missing one are the same to this function.
  static std::string get_value(OlXmlElem* elem, std::string_view tag);

  // Initialises the XML library once per process (thread-safe; it is never terminated).
  // Every entry of this layer that needs the library calls it.
  static void platform_init();

  // Native text to a new zero-terminated UTF-16 string; the caller frees it with
  // xercesc::XMLString::release(). Throws xercesc::TranscodingException when `text` is not
  // valid in the native character set.
  static XMLCh* native_to_xerces(const std::string& text);

  // UTF-16 to native. A null pointer, zero length or empty string gives empty `out`.
  // The first form converts exactly `length` code units. Return true; a character without a
  // native form throws xercesc::TranscodingException.
  static bool xerces_to_native(const XMLCh* chars, XMLSize_t length, std::string& out);
  static bool xerces_to_native(const XMLCh* chars, std::string& out);
  static std::string xerces_to_native(const XMLCh* chars);

  // Non-throwing forms: false (with `out` unspecified) when the text cannot be converted.
  static bool try_xerces_to_native(const XMLCh* chars, std::size_t length, std::string& out);
  static bool try_native_to_xerces(std::string_view text, std::u16string& out);

  // Lossy forms for messages and output that must go out whatever the text holds:
  // unconvertible characters become '?' (to native) or U+FFFD (to UTF-16).
  static std::string xerces_to_native_lossy(const XMLCh* chars, std::size_t length);
  static std::u16string native_to_xerces_lossy(std::string_view text);

  // Name of the native character set of the calling thread, as the C library reports it.
  static std::string native_codeset();
};
