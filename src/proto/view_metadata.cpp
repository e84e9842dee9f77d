#include "proto/view_metadata.h"

#include <cctype>
#include <string_view>

namespace {

std::string trimmed(const std::string& s, size_t begin, size_t end) {
  while (begin < end && isspace(static_cast<unsigned char>(s[begin]))) ++begin;
  while (end > begin && isspace(static_cast<unsigned char>(s[end - 1]))) --end;
  return s.substr(begin, end - begin);
}

}  // namespace

bool view_metadata_parse(const std::string& text, std::vector<View_Metadata_Field>* fields, size_t* too_long) {
  fields->clear();
  if (too_long) *too_long = 0;
  if (text.size() > VIEW_METADATA_MAX_FILE) return false;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    if (nl == std::string::npos) nl = text.size();
    if (nl - pos > VIEW_METADATA_MAX_LINE) {
      if (too_long) ++*too_long;
    } else {
      const size_t sep = std::string_view(text).substr(pos, nl - pos).find(VIEW_MD_SEP[0]);
      if (sep != std::string_view::npos)
        fields->push_back({trimmed(text, pos, pos + sep), trimmed(text, pos + sep + 1, nl)});
    }
    pos = nl + 1;
  }
  return true;
}

bool view_metadata_find(const std::vector<View_Metadata_Field>& fields, const std::string& key, std::string* value) {
  for (auto it = fields.rbegin(); it != fields.rend(); ++it) {
    if (it->key == key) {
      *value = it->value;
      return true;
    }
  }
  return false;
}
