// Tavrel_Request_Handler_Unix: the FIFO side of a client's request handler.
//
// The request FIFO is opened read-only, the response FIFO read-write (so opening never waits for the
// client and a departed client never raises SIGPIPE); both stay non-blocking. Both names are removed
// once the first input arrives: from then on they live only as open descriptors.
//
// Deadlines (seconds, tavrel.conf, each 1 to 3600):
//   tavrelFirstRequestTimeout (10)  from the announcement to the client's first byte;
//   tavrelRequestTimeout (30)       from a frame's first byte to its last;
//   tavrelResponseTimeout (60)      for a client to take any byte of its pending replies.
// Missing the first two ends the reading (the connection is closed once the client's outstanding
// requests are gone); missing the third breaks the response channel.
//
// Responses: a pool thread never waits on the client. send_response writes the frame without
// blocking; what the pipe does not take goes to the client's outbox, which this thread drains when
// the pipe has room (it polls the request FIFO, the response FIFO while the outbox is not empty, a
// wake-up eventfd and the shutdown pipe). A reply that would take the outbox past OUTBOX_LIMIT (a
// single frame is always taken by an empty outbox), or a client that takes nothing for
// tavrelResponseTimeout, breaks the channel: pending and later replies are dropped (20016), and the
// reading ends. After the reading ends (end of file, a deadline, shutdown, a broken channel) the thread
// goes on draining until its outstanding requests are gone and the outbox is empty or broken, so
// EndView waits at most tavrelResponseTimeout for a client that never reads.
//
// Locks: m_response_mutex (rank CLIENT_RESPONSE) guards the response descriptor's writes, the outbox,
// m_broken and m_last_progress; it is held for one non-blocking write at most, so frames never
// interleave. m_outstanding_mutex (THREAD_OUTSTANDING, of the base thread) is taken under it to set
// m_outbox_ready, which the thread's final wait looks at. The request side has no lock: only this
// thread reads.
#pragma once

#include <chrono>
#include <string>

#include "base/tavrel_mutex.h"
#include "ops/tavrel_request_handler_base.h"
#include "proto/pipe_frame.h"

class Tavrel_Request_Handler_Unix : public Tavrel_Request_Handler_Base {
 public:
  static constexpr int RESPONSE_TIMEOUT_S = 60;
  static constexpr int REQUEST_TIMEOUT_S = 30;
  static constexpr int FIRST_REQUEST_TIMEOUT_S = 10;
  static constexpr size_t OUTBOX_LIMIT = 8u << 20;

  Tavrel_Request_Handler_Unix(Tavrel_Client* client, Tavrel_View* view);
  ~Tavrel_Request_Handler_Unix() override;

  int execute() override;
  int send_response(const std::string& text) override;
  void close_pipes() override;

 private:
  using Clock = std::chrono::steady_clock;

  int open_pipes();
  // Reads what the request FIFO holds and queues the frames completed: 0, or why the reading ends.
  int read_input();
  void end_frame();
  // The next deadline of the reading loop (time_point::max() when none).
  Clock::time_point next_deadline(bool pending_out) const;
  // Drains the outbox after the reading ended (bounded by the response timeout).
  void drain();
  // Caller holds m_response_mutex.
  void write_outbox_locked();
  void break_channel_locked(const char* why);
  void wake();

  int m_wake_fd = -1;  // eventfd: a reply was left in the outbox, or the channel broke
  int m_response_timeout_ms, m_request_timeout_ms, m_first_timeout_ms;
  // This thread only.
  Pipe_Frame_Decoder m_frame{Pipe_Frame_Kind::REQUEST, PIPE_FRAME_MAX_REQUEST};
  bool m_got_input = false;
  bool m_in_frame = false;
  Clock::time_point m_start, m_frame_start;
  // Under m_response_mutex.
  Tavrel_Mutex m_response_mutex{Tavrel_Lock_Rank::CLIENT_RESPONSE, "client response channel"};
  std::string m_outbox;
  bool m_broken = false;
  Clock::time_point m_last_progress;
  // Under m_outstanding_mutex.
  bool m_outbox_ready = false;
};
