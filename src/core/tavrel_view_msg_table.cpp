#include "core/tavrel_view_msg_table.h"

#include <array>

namespace {
constexpr int kCount = TVR_VIEW_UPDATE_STATUS + 1;
// Numbers without a text stay null, which the catalogue treats as unknown.
constexpr std::array<const char*, kCount> kTexts = [] {
  std::array<const char*, kCount> t{};
  t[TVR_VIEW_UPDATE_PARAMETERS] = "Update session parameters:";
  t[TVR_VIEW_UPDATE_ACTIONS] = "Actions taken to update the view:";
  t[TVR_VIEW_UPDATE_STATUS] = "Update session status:";
  return t;
}();
}  // namespace

const _imsg_message_table_t _tvr_view_msg_table = {"view", "tvr_view", kCount, kTexts.data()};
