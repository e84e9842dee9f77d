// Records of the kernel channel: the command block, the info records of each command, the LPC buffer
// header, and their wire images.
//
// Two kinds of types. The native structs below (kfsm_strbuf, kfsmcmd_block, kfsm_*_info) are what the
// agent fills: they hold real pointers and have the host's layout. What travels to the module daemon
// is an IMAGE of each: a byte array with the fixed offsets and sizes of the 32-bit record layout, all
// fields in host byte order (both peers run on one host). A native struct is never copied onto the
// wire; images are written and read field by field at the offsets documented here.
//
// Pointers in images. A pointer slot is a u32: 0 for null, otherwise 1 + the byte offset of its target
// in the HEAP that follows the images of one frame. An input string goes into the heap as its `l`
// bytes and a NUL; its strbuf image is {slot, l, m}. An output buffer (the answer of commands 11 and
// 20) travels as {0, 0, m}: only its capacity; the answer brings the text back in its own heap.
//
// kfsm_strbuf image, 12 bytes:  0 s (slot)  4 l (length without NUL)  8 m (capacity, l + 1 for input)
// kfsmcmd_block image, 44 bytes: 0 cmd  4 flags  8 pn (strbuf)  20 pn2 (strbuf)  32 infolen
//                                36 infop (slot, always 0 in an image: the info image follows the block)
//                                40 status (i32)
// kfsm_mkviewtag_info, 108:  0 view tag  12 Spath(u)  24 Spath(k)  36 host  48 rpath (strbufs)
//                            60 view uuid[16]  76 zero[28]  104 flags (bit 0 windows view, always clear)
// kfsm_mount_info, 248:      0 u16 version 12  2 u16 size 248  4 u32 1  8 mount point  20 host
//                            32 u32 0  36 view string  48 view string  60 storage (strbufs)
//                            72 family oid[16]  88 u32 3000  92 u32 1  96 zero[28]
//                            124 replica uuid[16]  140 zero[108]
// kfsm_umount_info, 28:      0 mount point (strbuf)  12 replica uuid[16]
// kfsm_inval_info, 52:       0 u32 version 5  4 SILO uuid[16] (zero: whole view)  20 u32 kind
//                            24 object oid[16]  40 name (strbuf; kind 1 only, else zero)
// kfsm_xstat_info, 88:       0 vstat (slot; in an answer it addresses the XDR form of view_vstat_t in
//                            the heap)  4 oid[16]  20 uuid[16]  36 i32 flag  40 unused[8]
//                            48 second uuid[16]  64 unused[24]
// Info of command 8, 12: one strbuf, the view tag. Of command 11, 24: two strbufs, the first an output
// buffer of 256 bytes. Of command 20, 12: one strbuf, an output buffer of 1024 bytes.
//
// LPC buffer, 8800 bytes: a 32-byte header and at most 8768 bytes of XDR payload at offset 32.
//   As request (module to agent): 0 u64 op  8 u64 request size  16 u64 reply capacity
//                                 24 u32 cookie  28 u32 reply marker (as the agent left it)
//   As reply (agent to module):   0 u32 rpc_status  4 u64 reply size (unaligned, bytes 4..11)
//                                 24 u32 cookie copied from the request  28 u32 marker, 1: reply present
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/tbs.h"
#include "proto/view_records.h"

// ---- command codes, flags and sizes ----
enum : uint32_t {
  KFSM_CMD_XSTAT = 2,
  KFSM_CMD_INVAL = 5,
  KFSM_CMD_MKVIEW = 7,
  KFSM_CMD_RMTAG = 8,
  KFSM_CMD_ROOT = 11,
  KFSM_CMD_SUFFIX = 20,
  KFSM_CMD_MOUNT = 36,
  KFSM_CMD_UMOUNT = 37,
  KFSM_CMD_LPC_MESSAGE = 65,
};
enum : uint32_t { KFSM_FLAG_NOFOLLOW = 1, KFSM_FLAG_CASE_SENSITIVE = 2 };
// Kinds of kfsm_inval_info.
enum : uint32_t {
  KFSM_INVAL_NAME = 1,
  KFSM_INVAL_OBJ = 2,
  KFSM_INVAL_VIEW = 3,
  KFSM_INVAL_OBJ_TREE = 5,
  KFSM_INVAL_OBJ_MOVE = 6,
  KFSM_INVAL_OBJ_ATTR = 7,
};

constexpr size_t KFSM_STRBUF_IMAGE = 12;
constexpr size_t KFSM_BLOCK_IMAGE = 44;
constexpr size_t KFSM_MKVIEWTAG_IMAGE = 108;
constexpr size_t KFSM_MOUNT_IMAGE = 248;
constexpr size_t KFSM_UMOUNT_IMAGE = 28;
constexpr size_t KFSM_INVAL_IMAGE = 52;
constexpr size_t KFSM_XSTAT_IMAGE = 88;
constexpr size_t KFSM_RMTAG_IMAGE = 12;
constexpr size_t KFSM_ROOT_INFO_IMAGE = 24;
constexpr size_t KFSM_SUFFIX_INFO_IMAGE = 12;
constexpr uint32_t KFSM_ROOT_BUF = 256;
constexpr uint32_t KFSM_SUFFIX_BUF = 1024;
constexpr uint16_t KFSM_MOUNT_VERSION = 12;
constexpr uint32_t KFSM_INVAL_VERSION = 5;
// Longest string a command image may carry (storage paths are up to 1024 characters).
constexpr uint32_t KFSM_STR_MAX = 4096;

constexpr size_t KFSM_LPC_HDR = 32;
constexpr size_t KFSM_LPC_BUF = KFSM_LPC_HDR + VIEW_LPC_PAYLOAD;  // 8800
constexpr size_t KFSM_LPC_MARKER_OFF = 28;
// rpc_status values of an LPC reply.
enum : uint32_t { KFSM_RPC_DONE = 0, KFSM_RPC_UNKNOWN = 3, KFSM_RPC_DECODE = 4, KFSM_RPC_ENCODE = 5 };

// The info image size that `cmd` requires; 0 for a code that has no fixed record (and for 65).
size_t kfsm_info_image_size(uint32_t cmd);

// ---- native forms (the agent's side) ----
struct kfsm_strbuf {
  char* s;
  uint32_t l;
  uint32_t m;
};
struct kfsmcmd_block {
  uint32_t cmd;
  uint32_t flags;
  kfsm_strbuf pn;
  kfsm_strbuf pn2;
  uint32_t infolen;
  void* infop;
  int32_t status;
};
struct kfsm_mkviewtag_info {
  kfsm_strbuf viewtag;
  kfsm_strbuf spath_u;
  kfsm_strbuf spath_k;
  kfsm_strbuf host;
  kfsm_strbuf rpath;
  tbs_uuid_s uuid;
  uint8_t zero[28];
  uint32_t flags;
};
struct kfsm_mount_info {
  uint16_t version;
  uint16_t size;
  uint32_t word4;  // 1
  kfsm_strbuf mount_point;
  kfsm_strbuf host;
  uint32_t word32;  // 0
  kfsm_strbuf view_string1;
  kfsm_strbuf view_string2;
  kfsm_strbuf storage;
  tbs_oid_s family;
  uint32_t word88;  // 3000
  uint32_t word92;  // 1
  uint8_t zero96[28];
  tbs_uuid_s replica;
  uint8_t zero140[108];
};
struct kfsm_umount_info {
  kfsm_strbuf mount_point;
  tbs_uuid_s replica;
};
struct kfsm_inval_info {
  uint32_t version;
  tbs_uuid_s silo;
  uint32_t kind;
  tbs_oid_s obj;
  kfsm_strbuf name;
};
typedef view_vstat_t view_vstat;
struct kfsm_xstat_info {
  view_vstat* vstat;  // filled by the module
  tbs_oid_s oid;
  tbs_uuid_s uuid;
  int32_t flag;
  uint8_t unused40[8];
  tbs_uuid_s uuid2;
  uint8_t unused64[24];
};

// An input strbuf over a C string (null gives the all-zero strbuf).
kfsm_strbuf kfsm_strbuf_of(const char* s);
// The empty string as a valid strbuf: s "", l 0, m 1.
kfsm_strbuf kfsm_strbuf_empty();

// ---- byte helpers (host order, any alignment) ----
void kfsm_put_u16(uint8_t* p, uint16_t v);
void kfsm_put_u32(uint8_t* p, uint32_t v);
void kfsm_put_u64(uint8_t* p, uint64_t v);
uint16_t kfsm_get_u16(const uint8_t* p);
uint32_t kfsm_get_u32(const uint8_t* p);
uint64_t kfsm_get_u64(const uint8_t* p);

// ---- command images: what the agent's library sends ----
// The request image of a command: block image, info image (infolen bytes), heap. The info record is
// read from `b.infop` according to `b.cmd`. 0, or EINVAL when infolen is not the size the command
// requires, a needed pointer is null, or a string is longer than KFSM_STR_MAX or longer than its `m`.
int kfsm_command_encode(const kfsmcmd_block& b, std::string* image);

// Applies the answer image (i32 err, block image, info image, heap) to the command that was sent:
// `status` of the block, and the command's outputs into the caller's memory (xstat: oid, uuid, flag,
// second uuid, and the vstat decoded from its XDR form; 11 and 20: the text, cut to m - 1 bytes plus a
// NUL, with l set). *err receives the answer's err word. 0, or EPROTO for an answer that is malformed
// or does not belong to this command.
int kfsm_result_apply(const uint8_t* data, size_t len, kfsmcmd_block* b, int* err);

// ---- command images: what the module daemon receives ----
struct kfsm_str {
  bool present = false;  // false: the slot was null
  std::string text;
  uint32_t m = 0;
};
struct kfsm_command {
  uint32_t cmd = 0;
  uint32_t flags = 0;
  kfsm_str pn, pn2;
  uint32_t infolen = 0;
  int32_t status = 0;
  std::string info;  // the info image, infolen bytes
  std::string heap;
};
// Parses a request image. 0, or EPROTO when it is short, the info image is not the size `cmd`
// requires, or a string of the block is malformed.
int kfsm_command_decode(const uint8_t* data, size_t len, kfsm_command* out);
// Reads the strbuf image at `off` of `image` against `heap`. False when the slot points outside the
// heap, the text is not NUL-terminated at l, holds a NUL, is longer than KFSM_STR_MAX, or l >= m.
bool kfsm_read_str(const std::string& image, size_t off, const std::string& heap, kfsm_str* out);

struct kfsm_mkview_args {
  std::string tag, spath_u, spath_k, host, rpath;
  tbs_uuid_s uuid;
  uint32_t flags;
};
struct kfsm_mount_args {
  uint16_t version, size;
  uint32_t word4, word32, word88, word92;
  std::string mount_point, host, view_string1, view_string2, storage;
  tbs_oid_s family;
  tbs_uuid_s replica;
};
struct kfsm_umount_args {
  std::string mount_point;
  tbs_uuid_s replica;
};
struct kfsm_inval_args {
  uint32_t version, kind;
  tbs_uuid_s silo;
  tbs_oid_s obj;
  std::string name;
};
// Typed readers of a decoded command's info image. False when a string is malformed or the command
// is not the one the reader is for.
bool kfsm_parse_mkview(const kfsm_command& c, kfsm_mkview_args* out);
bool kfsm_parse_mount(const kfsm_command& c, kfsm_mount_args* out);
bool kfsm_parse_umount(const kfsm_command& c, kfsm_umount_args* out);
bool kfsm_parse_inval(const kfsm_command& c, kfsm_inval_args* out);
bool kfsm_parse_rmtag(const kfsm_command& c, std::string* tag);
// Capacity of the output buffer of command 11 or 20 (the first strbuf's m); 0 when malformed.
uint32_t kfsm_output_capacity(const kfsm_command& c);

// Outputs of an answer, by command.
struct kfsm_result_outputs {
  // xstat
  bool has_vstat = false;
  view_vstat_t vstat{};
  tbs_oid_s oid{};
  tbs_uuid_s uuid{};
  int32_t flag = 0;
  tbs_uuid_s uuid2{};
  // commands 11 and 20
  std::string text;
};
// The answer image for a decoded command: err, the block with `status`, the info image with the
// outputs filled, and the heap that holds them. An output text longer than the caller's capacity
// minus one is cut there.
std::string kfsm_result_encode(int32_t err, const kfsm_command& c, int32_t status, const kfsm_result_outputs& out);

// ---- the LPC buffer header ----
struct kfsm_lpc_request_hdr {
  uint64_t op;
  uint64_t req_size;
  uint64_t res_capacity;
  uint32_t cookie;
};
// Writes op, sizes and cookie (bytes 0..27); the marker at 28 is left alone.
void kfsm_lpc_put_request(uint8_t* buf, const kfsm_lpc_request_hdr& h);
kfsm_lpc_request_hdr kfsm_lpc_get_request(const uint8_t* buf);
// Writes rpc_status at 0, the reply size at 4, the cookie at 24 and the marker 1 at 28.
void kfsm_lpc_put_reply(uint8_t* buf, uint32_t rpc_status, uint64_t size, uint32_t cookie);
struct kfsm_lpc_reply_hdr {
  uint32_t rpc_status;
  uint64_t size;
  uint32_t cookie;
  uint32_t marker;
};
kfsm_lpc_reply_hdr kfsm_lpc_get_reply(const uint8_t* buf);
