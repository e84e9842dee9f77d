#include "kfsm/tavrel_kfsm_msg.h"

#include <array>

namespace {

constexpr std::array<const char*, 114> make_texts() {
  std::array<const char*, 114> t{};
  t[TVR_MSG_KFSM_UNREGISTER] = "Unable to unregister view from KFSM: %s\n";
  t[TVR_MSG_KFSM_NO_IOCTL] = "Internal error flushing KFSM metadata (ioctl unavailable)";
  t[TVR_MSG_KFSM_EVENT] = "Cannot create event for overlapped KFSM IO: %s\n";
  t[TVR_MSG_KFSM_LPC] = "Failure processing LPC via KFSM: (%d) %s\n";
  return t;
}

constexpr std::array<const char*, 114> kTexts = make_texts();

}  // namespace

const _imsg_message_table_t _tvr_kfsm_msg_table = {"lib_tavrel_agent", "tvr_lib", 114, kTexts.data()};
