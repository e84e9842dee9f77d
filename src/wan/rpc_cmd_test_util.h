// Test helpers for the RPC commands' tests.
//
// Fed<Cmd>: drives a command without a transfer, as libcurl would: feed() hands one block to
// process_response(), finish() ends the "transfer" and makes the last parse (receive()).
// serve_chunked(): a reply handler of the test server that sends a document in blocks of a given size.
#pragma once

#include <httplib.h>

#include <memory>
#include <string>

#include "proto/reply_writer.h"
#include "wan/wan_test_fixture.h"
#include "wan/wan_test_support.h"

namespace wan_test {

template <class Cmd>
class Fed : public Cmd {
 public:
  using Cmd::Cmd;

  // One block; the result is process_response()'s (non-zero: the transfer would stop here).
  int feed(const std::string& block) {
    offline_ = true;
    std::string copy = block;
    return this->process_response(copy.data(), static_cast<unsigned int>(copy.size()));
  }
  // The whole text in blocks of `block` bytes, stopping where the command stops the transfer.
  int feed_in(const std::string& text, size_t block) {
    for (size_t at = 0; at < text.size(); at += block) {
      int rc = feed(text.substr(at, block));
      if (rc != 0) return rc;
    }
    return 0;
  }
  int finish() {
    offline_ = true;
    done_ = true;
    this->wan_status = this->receive();
    return this->wan_status;
  }

 protected:
  bool transfer_executed() const override { return offline_ ? done_ : Cmd::transfer_executed(); }

 private:
  bool offline_ = false;
  bool done_ = false;
};

// Answers with `doc` in blocks of `block` bytes (chunked transfer encoding).
inline void serve_chunked(httplib::Response& res, const std::string& doc, size_t block) {
  auto shared = std::make_shared<std::string>(doc);
  res.set_chunked_content_provider("multipart/mixed", [shared, block](size_t offset, httplib::DataSink& sink) {
    if (offset >= shared->size()) {
      sink.done();
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

// A session logged in (user "u", password "p") to a scripted test server, whose answer to the
// command under test each test sets with answer(). Subclasses name the RPC (or, for a GET, the
// path prefix) through the constructor.
class ScriptedServerTest : public WanTest {
 protected:
  ScriptedServerTest(std::string rpc, bool is_get) : m_rpc(std::move(rpc)), m_get(is_get) {}
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
  // The server answers the command with `doc`, sent in blocks of `block` bytes.
  void answer(const std::string& doc, size_t block = 1 << 20) {
    auto handler = [doc, block](const Recorded&, httplib::Response& res) { serve_chunked(res, doc, block); };
    if (m_get)
      server->on_get(m_rpc, handler);
    else
      server->on_rpc(m_rpc, handler);
  }
  std::unique_ptr<Test_Wan_Server> server;

 private:
  std::string m_rpc;
  bool m_get;
};

}  // namespace wan_test
