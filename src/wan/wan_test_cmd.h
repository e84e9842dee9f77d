// Test commands for the WAN client's tests.
//
// Test_Cmd: a POST (or a GET when given a URL) that sends the given arguments and keeps every part of
// the reply (Content-ID and body). It can also be driven without a transfer: feed() hands blocks to
// process_response() as libcurl would, finish() ends the "transfer" and makes the last parse.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "base/stg.h"
#include "wan/rclient_abstract_cmd.h"
#include "wan/rclient_session.h"

namespace wan_test {

class Test_Cmd : public RClient_Abstract_Cmd {
 public:
  struct Part {
    std::string id;
    std::string body;
    bool operator==(const Part& o) const { return id == o.id && body == o.body; }
  };

  explicit Test_Cmd(const std::string& rpc = "Test_Rpc", bool retry = true, const std::string& get_url = std::string())
      : RClient_Abstract_Cmd(rpc, retry) {
    url = get_url;
  }

  std::vector<std::pair<std::string, std::string>> args;
  int marshal_result = 0;
  std::vector<Part> parts;
  std::function<void(const std::string& id)> on_part;

  int marshal_request(RClient_Request_Args* a) override {
    for (const auto& [n, v] : args) a->add_arg(n, v);
    return marshal_result;
  }
  int unmarshal_response() override { return unmarshal_parts(); }
  int unmarshal_part(const std::string& id) override {
    long len = 0;
    char* buf = nullptr;
    int rc = parse_content_with_len(len, buf);
    if (rc != 0) return rc;
    parts.push_back({id, std::string(buf, static_cast<size_t>(len))});
    stg_free(buf);
    if (on_part) on_part(id);
    return 0;
  }

  // Driving without a transfer.
  int feed(const std::string& block) {
    offline = true;
    std::string copy = block;
    return process_response(copy.data(), static_cast<unsigned int>(copy.size()));
  }
  int finish() {
    offline = true;
    offline_done = true;
    wan_status = receive();
    return wan_status;
  }
  bool transfer_executed() const override {
    return offline ? offline_done : RClient_Abstract_Cmd::transfer_executed();
  }

  using RClient_Abstract_Cmd::doc;

 private:
  bool offline = false;
  bool offline_done = false;
};

}  // namespace wan_test
