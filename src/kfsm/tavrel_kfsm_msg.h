// Message texts of the kernel channel, at the numbers of the agent's catalogue (section
// "lib_tavrel_agent", prefix "tvr_lib"): 86, 107, 112 and 113. Other numbers expand to
// "tvr_lib: unknown message N".
#pragma once

#include "base/imsg.h"

extern const _imsg_message_table_t _tvr_kfsm_msg_table;

enum : int {
  TVR_MSG_KFSM_UNREGISTER = 86,   // "Unable to unregister view from KFSM: %s\n", error text
  TVR_MSG_KFSM_NO_IOCTL = 107,    // "Internal error flushing KFSM metadata (ioctl unavailable)"
  TVR_MSG_KFSM_EVENT = 112,       // "Cannot create event for overlapped KFSM IO: %s\n", error text
  TVR_MSG_KFSM_LPC = 113,         // "Failure processing LPC via KFSM: (%d) %s\n", errno, error text
};
