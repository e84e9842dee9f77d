// The view's message catalogue _tvr_view_msg_table (section "view", prefix "tvr_view"): the section
// headings of the update log. Only the numbers below have texts; any other number expands to the
// catalogue's "unknown message" text.
#pragma once

#include "base/imsg.h"

extern const _imsg_message_table_t _tvr_view_msg_table;

enum : int {
  TVR_VIEW_UPDATE_PARAMETERS = 299,  // "Update session parameters:"
  TVR_VIEW_UPDATE_ACTIONS = 301,     // "Actions taken to update the view:"
  TVR_VIEW_UPDATE_STATUS = 302,      // "Update session status:"
};
