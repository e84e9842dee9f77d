// Test helpers for the RPC commands' tests: a reply served in blocks of a chosen size, reply documents
// built in place, a command's outcome and results as text, and a session logged in to a scripted test
// server.
#pragma once

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "core/tavrel_status.h"
#include "proto/reply_writer.h"
#include "wan/get_cleartext.h"
#include "wan/get_configspec.h"
#include "wan/get_siloinfo.h"
#include "wan/rclient_abstract_cmd.h"
#include "wan/set_configspec.h"
#include "wan/wan_test_fixture.h"
#include "wan/wan_test_support.h"

namespace wan_test {

// What became of one answer: whether all of it went out before the server let go of it (it lets go
// when the client has gone, too).
struct Served {
  std::mutex mutex;
  std::condition_variable cv;
  bool ended = false, complete = false;  // guarded by mutex
  // Whether the answer ended short of its end, once it has ended (false when it did not end in time).
  bool wait_cut_short() {
    std::unique_lock<std::mutex> g(mutex);
    return cv.wait_for(g, std::chrono::seconds(20), [this] { return ended; }) && !complete;
  }
};

// Answers with `doc` in blocks of `block` bytes (chunked transfer encoding: the client gets each block
// as one piece), reporting to `served` when given.
inline void serve_chunked(httplib::Response& res, const std::string& doc, size_t block,
                          std::shared_ptr<Served> served = nullptr) {
  // Reports when the server destroys the answer's provider.
  struct Guard {
    std::shared_ptr<Served> served;
    bool complete = false;
    ~Guard() {
      if (!served) return;
      std::lock_guard<std::mutex> g(served->mutex);
      served->ended = true;
      served->complete = complete;
      served->cv.notify_all();
    }
  };
  auto shared = std::make_shared<std::string>(doc);
  auto guard = std::make_shared<Guard>();
  guard->served = std::move(served);
  res.set_chunked_content_provider("multipart/mixed", [shared, block, guard](size_t offset, httplib::DataSink& sink) {
    if (offset >= shared->size()) {
      sink.done();
      guard->complete = true;
      return true;
    }
    return sink.write(shared->data() + offset, std::min(block, shared->size() - offset));
  });
}

// A reply document built by `fill` between the declaration and the end line.
template <class F>
std::string make_doc(F fill) {
  tavrel_wan::ReplyWriter w;
  w.begin();
  fill(w);
  w.end();
  return w.take();
}

// The view-level status of a command after run() (check_rpc_status), its message in `message`.
inline int view_status(RClient_Abstract_Cmd& cmd, std::string* message = nullptr) {
  std::string m;
  int st = cmd.get_status_code();
  int rc = cmd.check_rpc_status(nullptr, m, st);
  if (message) *message = m;
  return rc;
}
// What the view-level status must be for a WAN status and an RPC status.
inline int expected_view_status(int wan, int32_t code) {
  return wan != 0 ? TAVREL_ST_WAN_CALL : code != 0 ? TAVREL_ST_WAN_CALL_2 : 0;
}

// What an RPC command made of its reply, in one line: for a SILO "<tag> <family> <replica> <storage>
// <public><project>" ("-" without the information); for a config spec read its four texts between "|";
// for a change its SILO tags each followed by ",", then " <current operation GN>/<view GN>" (" -"
// without view information); for a cleartext fetch the contents of the file `out`.
inline std::string results(RClient_Abstract_Cmd& cmd, const std::string& out) {
  if (auto* c = dynamic_cast<Get_SILOInfo*>(&cmd)) {
    if (!c->has_silo_info()) return "-";
    SILO_mount_info m = c->to_mount_info();
    return m.silo_tag + " " + tbs_uuid_to_str(m.family_uuid) + " " + tbs_uuid_to_str(m.replica_uuid) + " " +
           m.storage + " " + std::to_string(m.is_public) + std::to_string(m.is_project_silo);
  }
  if (auto* c = dynamic_cast<Get_ConfigSpec*>(&cmd))
    return c->get_elem_rules() + "|" + c->get_tkm_elem_rules() + "|" + c->get_load_rules() + "|" +
           c->get_frz_load_scopes();
  if (auto* c = dynamic_cast<Set_ConfigSpec*>(&cmd)) {
    std::string r;
    for (const auto& t : c->get_silo_tags()) r += t + ",";
    if (!c->has_view_info()) return r + " -";
    return r + " " + std::to_string(c->get_current_operation_gn()) + "/" + std::to_string(c->get_view_gn());
  }
  return read_file(out);
}

// A session logged in (user "u", password "p") to a scripted test server.
class ScriptedServerTest : public WanTest {
 protected:
  void SetUp() override {
    WanTest::SetUp();
    server = std::make_unique<Test_Wan_Server>();
    server->add_user("u", "p");
    ASSERT_EQ(login(server->base_url(), "u", "p"), 0);
  }
  void TearDown() override {
    server.reset();
    WanTest::TearDown();
  }
  // The server answers `target` (an RPC name, or a GET path prefix beginning with "/") with `doc`,
  // sent in blocks of `block` bytes; the last answer's fate is reported to the result.
  std::shared_ptr<Served> answer(const std::string& target, const std::string& doc, size_t block = 1 << 20) {
    auto served = std::make_shared<Served>();
    auto handler = [doc, block, served](const Recorded&, httplib::Response& res) {
      serve_chunked(res, doc, block, served);
    };
    if (!target.empty() && target[0] == '/')
      server->on_get(target, handler);
    else
      server->on_rpc(target, handler);
    return served;
  }
  std::unique_ptr<Test_Wan_Server> server;
};

}  // namespace wan_test
