// Frames of the module socket: the transport under the kernel-channel calls.
//
// The socket is AF_UNIX, SOCK_SEQPACKET: one frame is one packet. Every frame starts with a 16-byte
// header in host byte order:
//   0 u32 magic 0x4B425654   4 u16 version 1   6 u16 type   8 u32 body length   12 u32 sequence
// and the body follows. A frame whose magic, version or length is wrong, or that is longer than
// KFSM_FRAME_MAX_BODY, is a protocol error: the receiver closes the connection.
//
// Types and bodies (a result answers the request with the same sequence number):
//   1 HELLO        u32 handle type, u32 pid of the caller
//   2 HELLO_OK     i32 status (0: the handle is open). A daemon that refuses a connection at once (a cap
//                  reached) sends it with sequence 1 before reading the HELLO, then closes: the client
//                  may find the connection reset and this frame still waiting to be read.
//   3 MCB          a command image (kfsm_records.h): block, info, heap
//   4 MCB_RESULT   an answer image: i32 err, block with status, info with outputs, heap
//   5 CMD          as MCB, for the commands of kfsm_cmd (11, 20)
//   6 CMD_RESULT   as MCB_RESULT
//   7 LPC_CALL     u32 flags (1: a reply is present), u32 tag length (at most 255), the view tag,
//                  and with flag 1: the 32-byte LPC header and the reply payload (its size as the header
//                  says, at most 8768 bytes)
//   8 LPC_DELIVER  i32 status; with status 0: the 32-byte LPC header and the request payload (its size
//                  as the header says, at most 8768 bytes)
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

constexpr uint32_t KFSM_WIRE_MAGIC = 0x4B425654;
constexpr uint16_t KFSM_WIRE_VERSION = 1;
constexpr size_t KFSM_FRAME_HDR = 16;
constexpr size_t KFSM_FRAME_MAX_BODY = 64 * 1024;
constexpr size_t KFSM_TAG_MAX = 255;

enum : uint16_t {
  KFSM_FRAME_HELLO = 1,
  KFSM_FRAME_HELLO_OK = 2,
  KFSM_FRAME_MCB = 3,
  KFSM_FRAME_MCB_RESULT = 4,
  KFSM_FRAME_CMD = 5,
  KFSM_FRAME_CMD_RESULT = 6,
  KFSM_FRAME_LPC_CALL = 7,
  KFSM_FRAME_LPC_DELIVER = 8,
};

// Default path of the module socket, and the variable that overrides it.
constexpr const char* KFSM_SOCKET_DEFAULT = "/run/tavrel/kfsm.sock";
constexpr const char* KFSM_SOCKET_ENV = "TAVREL_KFSM_SOCKET";
// The socket path this process uses: $TAVREL_KFSM_SOCKET when set and not empty, else the default.
std::string kfsm_socket_path();
// Makes the listening module socket at `path` (SOCK_SEQPACKET, close-on-exec), replacing whatever
// name is there, with permission bits `mode` and a backlog of `backlog`. The descriptor in *fd;
// 0 or an errno (ENAMETOOLONG for a path the address cannot hold).
int kfsm_listen(const std::string& path, unsigned mode, int backlog, int* fd);

struct kfsm_frame {
  uint16_t type = 0;
  uint32_t seq = 0;
  std::string body;
};

// Sends one frame as one packet (never raising SIGPIPE). 0 or an errno.
int kfsm_frame_send(int fd, uint16_t type, uint32_t seq, const std::string& body);
// The packet of one frame, for kfsm_frames_send: its header, then `body`. EMSGSIZE for a body over the
// limit, else 0.
int kfsm_frame_image(uint16_t type, uint32_t seq, const std::string& body, std::string* out);
// Sends the packets in order, as many per call as the socket takes (sendmmsg), each one whole. 0 or an
// errno; after a failure, how many went is unknown.
int kfsm_frames_send(int fd, const std::vector<std::string>& packets);
// Receives one packet. 0; ECONNRESET at the end of the stream; EPROTO for a packet that is not a
// well-formed frame (short, truncated, wrong magic, version or length); or the errno of recv. With
// `dontwait` a socket with nothing queued answers EAGAIN at once.
int kfsm_frame_recv(int fd, kfsm_frame* out, bool dontwait = false);
// Receives, in one call and without waiting, the packets queued now, at most `max` (and at most
// KFSM_FRAMES_RECV_MAX), appending their frames to `out` in order. 0 when at least one came; EAGAIN
// when none was queued; ECONNRESET at the end of the stream when nothing came before it; EPROTO for a
// packet that is not a well-formed frame (the frames before it are in `out`); or the errno of recv.
constexpr size_t KFSM_FRAMES_RECV_MAX = 16;
int kfsm_frames_recv(int fd, std::deque<kfsm_frame>* out, size_t max);

std::string kfsm_hello_body(uint32_t type, uint32_t pid);
bool kfsm_parse_hello(const std::string& body, uint32_t* type, uint32_t* pid);
std::string kfsm_status_body(int32_t status);
bool kfsm_parse_status(const std::string& body, int32_t* status);

struct kfsm_lpc_call {
  uint32_t flags = 0;
  std::string tag;
  std::string header;   // 32 bytes when flags has 1
  std::string payload;  // the reply payload
};
std::string kfsm_lpc_call_body(uint32_t flags, const std::string& tag, const uint8_t* header, const uint8_t* payload,
                               size_t payload_len);
// False for a malformed body: unknown flags, tag too long or short of its length, a reply whose size
// field differs from the payload carried or exceeds 8768 bytes.
bool kfsm_parse_lpc_call(const std::string& body, kfsm_lpc_call* out);

struct kfsm_lpc_deliver {
  int32_t status = 0;
  std::string header;   // 32 bytes when status is 0
  std::string payload;  // the request payload
};
std::string kfsm_lpc_deliver_body(int32_t status, const uint8_t* header, const uint8_t* payload, size_t payload_len);
// False for a malformed body: status 0 without a header, or a request size that differs from the
// payload carried or exceeds 8768 bytes.
bool kfsm_parse_lpc_deliver(const std::string& body, kfsm_lpc_deliver* out);
