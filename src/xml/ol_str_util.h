// OlStrUtil: text helpers of the XML layer.
#pragma once

#include <string>
#include <string_view>

class OlStrUtil {
 public:
  // Replaces every occurrence of `from` in `text` by `to`, scanning left to right and
  // continuing after each inserted `to`, so inserted text is never rescanned. An empty
  // `from` leaves `text` unchanged. Returns `text`.
  static std::string& replace_all(std::string& text, std::string_view from, std::string_view to);
};
