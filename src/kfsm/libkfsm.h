// libkfsm: the five calls through which the agent reaches the kernel module, and tbs_view_root_type.
// Here the module is the daemon tavrel_kfsmd, reached over the module socket (proto/kfsm_wire.h);
// the calls keep the contract of the module's own library.
//
// Handles. kfsm_view_root_open_type connects, announces itself (HELLO) and returns a small positive
// number naming the connection (0 on failure, with *err a status of the 1000 range: 1001 when the
// module is not there or does not answer, 1063 when the socket may not be used, 1084 for a socket
// path too long, or the module's refusal, such as 1089 when the caller's user already holds as many
// connections as the daemon allows). One handle is
// used by one thread at a time; the table of handles is guarded by a mutex. A handle whose transport
// failed (timeout, protocol error, lost connection) stays broken: every later call on it fails with
// ECONNRESET until it is closed. Nothing reconnects behind the caller's back.
//
// Time limits. The answer to a command is awaited 60 s (stat, command 2: 600 s), then *err is
// ETIMEDOUT. An LPC call (command 65) waits without limit, except that when the descriptor given to
// kfsm_set_wakeup_fd becomes readable every LPC wait ends with *err ESHUTDOWN. EINTR is retried inside.
//
// LPC calls. kfsm_cmd with command 65 hands the buffer's reply to the daemon and fetches the next
// request into the same buffer. The reply is sent only when the marker at offset 28 is 1 and the
// buffer's cookie differs from the last one sent on this handle, so a repeated pass does not send a
// reply twice. On status 0 the request's header (bytes 0 to 27) and payload (from 32) are written into
// the buffer, the marker is left as it was; on any other status the buffer is not touched.
#pragma once

#include <cstddef>
#include <cstdint>

#include "proto/kfsm_records.h"

typedef int kfsm_viewroot_type;

// Capacity of the buffer tbs_view_root_type fills.
constexpr size_t KFSM_VIEW_ROOT_MAX = 1024;

int kfsm_view_root_open_type(int type, int* err);
// The same without a message on failure; `silent` is accepted for the module library's signature.
int kfsm_view_root_open_sil_type(kfsm_viewroot_type type, int* err, int silent);
void kfsm_view_root_close_type(int type, int handle);
// Runs a command block. *err: 0, or an errno for a failure of the call itself (EINVAL when infolen is
// not the size the command requires, EBADF for an unknown handle, ETIMEDOUT, ECONNRESET, EPROTO). The
// command's own result is in block->status.
void kfsm_mcb_cmd(int handle, kfsmcmd_block* block, int* err);
// Pipelined commands, for a stream of commands whose answers carry nothing but a status (such as an
// update's invalidations): kfsm_mcb_post sends a block without waiting for its answer, and
// kfsm_mcb_collect takes the oldest outstanding answer. The daemon answers a connection's commands in
// order, so a sender that does not wait for each answer lets both sides work in bursts instead of
// waking each other once per command. At most KFSM_MAX_POSTED commands are outstanding on a handle
// (then kfsm_mcb_post gives EAGAIN); kfsm_mcb_cmd and kfsm_cmd on a handle with outstanding commands
// give EBUSY. Commands with outputs (stat, root, suffix, LPC) cannot be posted (EINVAL). A transport
// failure breaks the handle as for kfsm_mcb_cmd, and the outstanding answers are lost with it.
// Posted commands go KFSM_POST_BATCH at a time in one call (one wake-up of the daemon for all of them);
// fewer are sent when an answer is collected and when the handle is closed, so a command may wait in
// the sender until one of those. The first post of a batch on a handle whose daemon has gone fails at
// once (ECONNRESET), as a send would have; the commands still waiting in the sender are lost with the
// handle, and the failure of their send shows at the post or collect that makes it.
constexpr int KFSM_MAX_POSTED = 128;
constexpr int KFSM_POST_BATCH = 64;
void kfsm_mcb_post(int handle, kfsmcmd_block* block, int* err);
// The oldest outstanding answer: 0 with its command's status in *status; EAGAIN when nothing is
// outstanding, or when `wait` is false and that answer has not come yet; otherwise the failure of the
// call as for kfsm_mcb_cmd.
int kfsm_mcb_collect(int handle, bool wait, int* status);
// How many commands of the handle await their answers.
int kfsm_mcb_outstanding(int handle);
// Runs a command from its parts (11, 20, and 65 the LPC message). *err as kfsm_mcb_cmd; *status the
// command's status.
void kfsm_cmd(int handle, int* err, int* status, uint32_t cmd, uint32_t flags, kfsm_strbuf* pn, kfsm_strbuf* pn2,
              void* info, uint32_t infolen);
// The view root of view `tag`: the module's root path, "/", the tag, into `buf` (KFSM_VIEW_ROOT_MAX
// bytes). 0, or a status: 1001 when the module cannot be reached, 1084 when the path is too long, or
// the module's status.
int tbs_view_root_type(int type, char* buf, const char* tag);

// Process-wide: a descriptor whose readability ends every LPC wait (-1: none).
void kfsm_set_wakeup_fd(int fd);
// Process-wide time limits in milliseconds for command answers and for the stat command (tests).
void kfsm_set_timeouts(int command_ms, int xstat_ms);
