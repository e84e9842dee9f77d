#include "xml/ol_str_util.h"

std::string& OlStrUtil::replace_all(std::string& text, std::string_view from, std::string_view to) {
  if (from.empty()) return text;
  std::size_t pos = text.find(from);
  if (pos == std::string::npos) return text;
  // Build the result in one pass: linear in the size of the text.
  std::string out;
  out.reserve(text.size());
  std::size_t start = 0;
  while (pos != std::string::npos) {
    out.append(text, start, pos - start);
    out.append(to);
    start = pos + from.size();
    pos = text.find(from, start);
  }
  out.append(text, start, std::string::npos);
  text.swap(out);
  return text;
}
