#include "core/tavrel_view_text_mode.h"

#include "base/strutl.h"

namespace {
struct Mode_Name {
  tbs_text_mode_t mode;
  const char* name;
};
constexpr Mode_Name kModes[] = {{TBS_TEXT_MODE_UNIX, "unix"}, {TBS_TEXT_MODE_MSDOS, "msdos"}};
}  // namespace

tbs_status_t tbs_str_to_text_mode(const std::string& text, tbs_text_mode_t* mode) {
  const std::string t = strutl_trim(text);
  for (const auto& m : kModes) {
    if (strutl_stricmp(t, m.name) == 0) {
      *mode = m.mode;
      return TBS_ST_OK;
    }
  }
  return TBS_ST_BAD_ARG;
}

std::string tbs_text_mode_to_str(tbs_text_mode_t mode) {
  for (const auto& m : kModes)
    if (m.mode == mode) return m.name;
  return "";
}
