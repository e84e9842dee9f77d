#include "wan/get_cleartext.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <streambuf>

#include "base/strutl.h"
#include "core/tavrel_trace.h"
#include "proto/wan_names.h"
#include "wan/rclient_base.h"
#include "wan/rclient_exceptions.h"
#include "wan/rclient_messages.h"
#include "wan/rclient_session.h"

namespace {
const char* const kClass = "Get_ClearText";
}

// The output file as an unbuffered stream: every piece goes straight to write(2), and the first
// failure is kept (the stream then refuses everything).
class Get_ClearText::File_Sink : public std::streambuf {
 public:
  explicit File_Sink(int file) : fd(file) {}
  ~File_Sink() override {
    if (fd >= 0) ::close(fd);
  }
  // Closes the file: 0, or the errno of a failed close.
  int close() {
    int f = fd;
    fd = -1;
    if (f < 0) return 0;
    if (::close(f) != 0 && errno != EINTR) return errno;
    return 0;
  }

  int fd;
  int error = 0;
  uint64_t written = 0;
  std::ostream stream{this};

 protected:
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    if (error != 0 || fd < 0) {
      if (error == 0) error = EBADF;
      return 0;
    }
    std::streamsize done = 0;
    while (done < n) {
      ssize_t w = ::write(fd, s + done, static_cast<size_t>(n - done));
      if (w < 0) {
        if (errno == EINTR) continue;
        error = errno;
        break;
      }
      if (w == 0) {
        error = EIO;
        break;
      }
      done += w;
    }
    written += static_cast<uint64_t>(done);
    return done;
  }
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    char ch = traits_type::to_char_type(c);
    return xsputn(&ch, 1) == 1 ? c : traits_type::eof();
  }
};

Get_ClearText::Get_ClearText(const std::string& tail, const std::string& file)
    : RClient_Abstract_Cmd("", true), url_tail(tail), output_file(file) {
  Tavrel_Trace trace(RCLIENT, kClass, "Get_ClearText");
  url = RClient_Session::get_session()->get_url() + url_tail;
  trace.writeTrace(TRACE_LEVEL_4, "URL is %s", url.c_str());
}

Get_ClearText::~Get_ClearText() = default;

bool Get_ClearText::valid_url_tail(const std::string& tail) {
  if (tail.empty() || tail[0] != '/') return false;
  for (unsigned char c : tail)
    if (c <= 0x20 || c == 0x7f || c == '?' || c == '#') return false;
  return true;
}

uint64_t Get_ClearText::get_bytes_written() const { return sink ? sink->written : 0; }

void Get_ClearText::reset() {
  sink.reset();  // an earlier attempt's file, closed
  state = NOT_STARTED;
  in_part = false;
  part_id.clear();
  got_data = false;
  content_length = -1;
  remaining = 0;
  write_error = 0;
  m_reply_error = 0;
  m_reply_text.clear();
}

int Get_ClearText::marshal_request(RClient_Request_Args*) {
  Tavrel_Trace trace(RCLIENT, kClass, "marshal_request");
  reset();  // every attempt (the resend after a re-login too) starts from nothing
  if (!valid_url_tail(url_tail)) {
    trace.writeTrace(TRACE_LEVEL_2, "URL tail [%s] cannot be sent", url_tail.c_str());
    return RCLIENT_ST_MARSHAL;
  }
  return 0;
}

int Get_ClearText::run() {
  RClient_Abstract_Cmd::run();
  if (m_reply_error != 0 && wan_status == RCLIENT_ST_LISTENER) wan_status = m_reply_error;
  if (m_reply_error != 0 && status.message.find(m_reply_text) == std::string::npos) status.message += m_reply_text;
  return wan_status;
}

void Get_ClearText::write_failed(const char* what, int err) {
  write_error = err;
  if (sink) sink->close();
  m_reply_text = strutl_format("Unable to %s cleartext file \"%s\": %s.\n", what, output_file.c_str(), std::strerror(err));
  m_reply_error = RCLIENT_ST_LISTENER;
  throw RClient_Listener_Exception();
}

void Get_ClearText::open_file() {
  int fd = ::open(output_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) write_failed("open", errno);
  sink = std::make_unique<File_Sink>(fd);
}

void Get_ClearText::close_file() {
  if (!sink || sink->fd < 0) return;
  int err = sink->close();
  if (err != 0) write_failed("close", err);
}

int Get_ClearText::unmarshal_response() {
  Tavrel_Trace trace(RCLIENT, kClass, "unmarshal_response");
  int rc = 0;
  if (m_reply_error == 0) {
    if (state == NOT_STARTED && !in_part && response_empty()) {
      if (transfer_executed()) {
        trace.writeTrace(TRACE_LEVEL_5, "Response consumed");
        rc = 0;
      } else {
        trace.writeTrace(TRACE_LEVEL_5, "Response consumed but RPC not complete!");
        rc = RCLIENT_ST_HTTP_STATUS;
      }
    } else {
      try {
        rc = parse();
      } catch (RClient_Listener_Exception& e) {
        trace.writeTrace(TRACE_LEVEL_2, "Listener exception %d", e.code);
        rc = RCLIENT_ST_LISTENER;
      } catch (RClient_Parse_Exception& e) {
        trace.writeTrace(TRACE_LEVEL_5, "Exception %d", e.code);
        rc = transfer_executed() ? e.code : RCLIENT_ST_HTTP_STATUS;
      }
    }
  }
  if (m_reply_error != 0) {
    if (status.message.find(m_reply_text) == std::string::npos) status.message += m_reply_text;
    // While the transfer runs, this result stops it; afterwards it is the command's verdict.
    return transfer_executed() ? m_reply_error : RCLIENT_ST_LISTENER;
  }
  return rc;
}

int Get_ClearText::parse() {
  Tavrel_Trace trace(RCLIENT, kClass, "parse");
  for (;;) {
    switch (state) {
      case NOT_STARTED: {
        if (!in_part) {
          // Headers are taken as soon as they are complete, before the body.
          trace.writeTrace(TRACE_LEVEL_5, "Wait for content = %d", 0);
          if (doc->next_part(0) == 0) return document_ended();
          in_part = true;
          part_id = doc->get_part_item(RClient_Base::CONTENT_ID);
        }
        if (part_id == tavrel_wan::PART_SYNC_ELEM_DATA) {
          long length;
          if (!strutl_strtol(doc->get_part_item(RClient_Base::CONTENT_LENGTH), &length) || length < 0) {
            m_reply_text = "Bad length of the cleartext data.\n";
            m_reply_error = RCLIENT_ST_CONTENT_LENGTH;
            return m_reply_error;
          }
          trace.writeTrace(TRACE_LEVEL_4, "Content length = %d (output file = %s)", static_cast<int>(length),
                           output_file.c_str());
          content_length = length;
          remaining = length;
          got_data = true;
          in_part = false;
          open_file();
          trace.writeTrace(TRACE_LEVEL_4, "Start writing to file");
          state = WRITING;
        } else if (part_id == RClient_Base::CONTENT_ID_STATUS) {
          int rc = doc->unmarshal_result(status);  // its message may not be there yet: the part stays current
          in_part = false;
          if (rc != 0) return rc;
          state = AFTER_DATA;
        } else {
          in_part = false;  // not ours: its body is skipped by the next part
        }
        break;
      }
      case WRITING: {
        if (remaining > 0) {
          trace.writeTrace(TRACE_LEVEL_5, "Writing to file, content len remaining = %ld", remaining);
          long n = doc->write_content(static_cast<size_t>(remaining), &sink->stream);
          if (sink->error != 0) write_failed("write", sink->error);
          remaining -= n;
          trace.writeTrace(TRACE_LEVEL_5, "Actual read = %ld, content len remaining = %ld", n, remaining);
        }
        if (remaining == 0) {
          close_file();
          trace.writeTrace(TRACE_LEVEL_4, "File read done");
          state = AFTER_DATA;
          break;
        }
        if (transfer_executed()) {
          trace.writeTrace(TRACE_LEVEL_2, "Reply ended with %ld bytes of the cleartext missing", remaining);
          throw RClient_Premature_EOF_Exception();
        }
        return RCLIENT_ST_HTTP_STATUS;  // the rest of the body comes with the next block
      }
      case AFTER_DATA: {
        trace.writeTrace(TRACE_LEVEL_5, "Wait for content = %d", 1);
        if (doc->next_part(1) == 0) return document_ended();
        std::string id = doc->get_part_item(RClient_Base::CONTENT_ID);
        if (id == RClient_Base::CONTENT_ID_STATUS) {
          close_file();
          int rc = doc->unmarshal_result(status);
          if (rc != 0) return rc;
        } else if (id == tavrel_wan::PART_SYNC_ELEM_DATA) {
          m_reply_text = "More than one cleartext data part in the reply.\n";
          m_reply_error = RCLIENT_ST_FORMAT;
          return m_reply_error;
        }
        break;
      }
    }
  }
}

int Get_ClearText::document_ended() {
  Tavrel_Trace trace(RCLIENT, kClass, "document_ended");
  close_file();
  if (status.code == 0 && !got_data) {
    // An empty file must not pass for the version's contents.
    trace.writeTrace(TRACE_LEVEL_2, "Status 0 without SyncElemData");
    m_reply_text = "Cleartext data missing from the reply for \"" + url_tail + "\".\n";
    m_reply_error = RCLIENT_ST_MALFORMED_ITEM;
    return m_reply_error;
  }
  return 0;
}
