// RPC numbers of the view protocol and the size of one message.
//
// The number travels as the op of an LPC request (a u64 in the LPC header; every number fits 32
// bits). The request and reply records of each call are in proto/view_records.h. Both the module
// daemon, which makes the calls, and the agent, which serves them, switch on these names.
#pragma once

#include <cstddef>
#include <cstdint>

enum View_Rpc : uint32_t {
  VIEW_RPC_NULL = 0,
  VIEW_RPC_READDIR = 10,
  VIEW_RPC_GETCLEARTEXT = 12,
  VIEW_RPC_READDIR_EXT = 14,
  VIEW_RPC_GPATH = 15,
  VIEW_RPC_INVALIDATE = 19,
  VIEW_RPC_READLINK = 29,
  VIEW_RPC_ROOT = 105,
  VIEW_RPC_REVALIDATE = 106,
  VIEW_RPC_LOOKUP = 107,
  VIEW_RPC_GETATTR = 108,
  VIEW_RPC_SETATTR = 109,
  VIEW_RPC_CREATE = 110,
  VIEW_RPC_REMOVE = 111,
  VIEW_RPC_MKDIR = 112,
  VIEW_RPC_RMDIR = 113,
  VIEW_RPC_RENAME = 114,
  VIEW_RPC_LINK = 115,
  VIEW_RPC_SYMLINK = 116,
  VIEW_RPC_CHANGE_MTYPE = 117,
  VIEW_RPC_CHANGE_OID = 118,
};

// Payload bytes of one LPC message: the XDR of one request, or of one reply, never more. The LPC
// buffer of the kernel channel is this plus its header (proto/kfsm_records.h).
constexpr size_t VIEW_LPC_PAYLOAD = 8768;
