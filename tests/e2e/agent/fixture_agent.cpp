// A tavrel_agent whose operations are small test operations instead of the view's, so that the
// process spine (start, transport, pool, shutdown) can be driven end to end:
//   <StartView|MkView [status="N"]/>  installs the view (writes .tavrel when missing, takes the .pid lock,
//                                     keeps the request in .first-request); status N fails it
//   <Sleep tx-id=".." ms="N"/>        writes .started-<tx-id>, then holds until .release exists or N ms
//                                     passed; the reply carries the most Sleeps seen running at once
//   <Echo tx-id=".." [pad=".."] [reply="N"]/>  answers at once with the size of the request it got
//                                     (and N bytes of padding in the reply)
//   <Throw tx-id=".."/>               throws out of the operation
//   anything else, or no root         XMLError 20020
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>

#include "base/fileutl.h"
#include "base/server.h"
#include "apps/tavrel_agent/tavrel_agent_main.h"
#include "core/tavrel_status.h"
#include "core/tavrel_view.h"
#include "apps/tavrel_agent/tavrel_view_handler.h"
#include "ops/tavrel_abstract_op.h"
#include "proto/view_storage_names.h"

namespace {

std::atomic<int> g_sleep_running{0};
std::atomic<int> g_sleep_max{0};

std::string attr(const std::string& text, const std::string& name) {
  std::smatch m;
  std::regex re("\\s" + name + "=\"([^\"]*)\"");
  if (std::regex_search(text, m, re)) return m[1];
  return "";
}

class FixtureOp : public Tavrel_AbstractOp {
 public:
  FixtureOp(const std::string& name, const std::string& location, const std::string& request)
      : Tavrel_AbstractOp(name, location), m_req(request) {
    m_txid = attr(request, "tx-id");
  }
  void process_request() override {
    if (m_request_name == "StartView" || m_request_name == "MkView") {
      std::string st = attr(m_req, "status");
      if (!st.empty()) {
        m_status = std::stoi(st);
        m_status_message = "asked to fail\n";
        return;
      }
      std::string meta = m_view_location + "/" + VIEW_STG_METADATA;
      if (!fileutl_exists(meta)) {
        fileutl_mkpath(m_view_location, 0700);
        fileutl_write_atomic(meta,
                             "versionid=1.0\nview-uuid=00000000-0000-4000-8000-000000000001\nserver-tag=fixture\n"
                             "text-mode=unix\nview-type=\npreserve-silo-modified-time=false\nserver-url=\n"
                             "cltxt-cache-dir=\ncache-size=4194304\n",
                             0600);
      }
      // Like a real view: the lock tells clients who runs it.
      pid_t owner = 0;
      if (server_lock_set(m_view_location + "/" + VIEW_STG_LOCK, &owner) == -2) {
        m_status = TAVREL_ST_VIEW_LOCKED;
        return;
      }
      fileutl_write_atomic(m_view_location + "/.first-request", m_req, 0600);
      Tavrel_View_Handler::set_view(new Tavrel_View(m_view_location));
    } else if (m_request_name == "Sleep") {
      int now = ++g_sleep_running;
      int seen = g_sleep_max.load();
      while (now > seen && !g_sleep_max.compare_exchange_weak(seen, now)) {
      }
      fileutl_write_atomic(m_view_location + "/.started-" + m_txid, m_txid, 0600);
      auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::stoi("0" + attr(m_req, "ms")));
      while (std::chrono::steady_clock::now() < until && !fileutl_exists(m_view_location + "/.release"))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      m_extra = "<max-running>" + std::to_string(g_sleep_max.load()) + "</max-running>";
      --g_sleep_running;
    } else if (m_request_name == "Echo") {
      m_extra = "<size>" + std::to_string(m_req.size()) + "</size>";
      if (long n = std::atol(attr(m_req, "reply").c_str()); n > 0) m_extra += "<pad>" + std::string(n, 'r') + "</pad>";
    } else if (m_request_name == "Throw") {
      throw std::runtime_error("thrown by the operation");
    } else {
      m_status = TAVREL_ST_UNRECOGNIZED;
    }
  }
  void get_response(std::string& response) override {
    response = make_status_response(m_request_name, m_txid, m_status, m_status_message);
    if (!m_extra.empty()) {
      // Put the operation's elements inside the root.
      size_t end = response.rfind("/>");
      if (end != std::string::npos && end + 2 == response.size())
        response = response.substr(0, end) + ">" + m_extra + "</" + m_request_name + ">";
    }
  }

 private:
  std::string m_req;
  std::string m_extra;
};

Tavrel_AbstractOp* fixture_factory(const std::string& request, const std::string& location, int* status) {
  std::smatch m;
  static const std::regex root("^\\s*(?:<\\?xml[^>]*\\?>)?\\s*<([A-Za-z]+)[\\s/>]");
  std::string name = std::regex_search(request, m, root) ? std::string(m[1]) : "XMLError";
  if (name != "StartView" && name != "MkView" && name != "Sleep" && name != "Echo" && name != "Throw") name = "XMLError";
  *status = 0;
  return new FixtureOp(name, location, request);
}

}  // namespace

int main(int argc, char** argv) {
  Tavrel_AbstractOp::set_request_factory(fixture_factory);
  return tavrel_agent_main(argc, argv);
}
