#include "ops/tavrel_request_handler_base.h"

#include <istream>
#include <ostream>

#include "base/strutl.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "ops/tavrel_client.h"
#include "ops/tavrel_cmapi_request.h"
#include "ops/tavrel_request_handler_unix.h"
#include "proto/pipe_frame.h"

Tavrel_Request_Handler_Base::Tavrel_Request_Handler_Base(Tavrel_Client* client, Tavrel_View* view)
    : m_client(client), m_view(view) {}

Tavrel_Request_Handler_Base::~Tavrel_Request_Handler_Base() { delete m_client; }

Tavrel_Request_Handler_Base* Tavrel_Request_Handler_Base::get_request_handler(Tavrel_Client* client,
                                                                             Tavrel_View* view) {
  return new Tavrel_Request_Handler_Unix(client, view);
}

void Tavrel_Request_Handler_Base::queue_request(const std::string& text) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Handler_Base", "queue_request");
  auto* request = new Tavrel_CMAPI_Request(this, text);
  add_outstanding();
  Tavrel_Thread_Manager_Base::get_instance()->process_request(request);
  trace.writeTrace(TRACE_LEVEL_4, "Request queued");
}

int Tavrel_Request_Handler_Base::read_request(std::istream& in, std::string& out) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Handler_Base", "read_request");
  out.clear();
  bool first = true;
  std::string line;
  for (;;) {
    line.clear();
    bool got_any = false;
    bool too_long = false;
    int c;
    while ((c = in.get()) != EOF) {
      got_any = true;
      if (c == '\n') break;
      if (line.size() >= STREAM_LINE_LIMIT - 1) {
        too_long = true;
        break;
      }
      line.push_back(static_cast<char>(c));
    }
    if (too_long) break;
    if (!got_any) break;
    if (!first) out += strutl_trim(line);
    first = false;
    if (c == EOF) break;
  }
  if (trace.shouldTrace(TRACE_LEVEL_4))
    trace.writeTrace(TRACE_LEVEL_4, "Request string from Client %s", Tavrel_Trace::redact(out).c_str());
  return 0;
}

int Tavrel_Request_Handler_Base::send_response(std::ostream& out, const std::string& text) {
  out << pipe_frame_encode(Pipe_Frame_Kind::RESPONSE, text);
  out.flush();
  return out.good() ? 0 : TAVREL_ST_RESP_WRITE;
}
