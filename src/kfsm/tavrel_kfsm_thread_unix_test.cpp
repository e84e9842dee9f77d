// The LPC threads against a scripted module: how many connect, what a request gets with and without
// a handler, 1046 on the first call, and the ways a view's threads end (unregister, shutdown).
#include "kfsm/tavrel_kfsm_thread_unix.h"

#include "core/tavrel_config.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_view.h"
#include "kfsm/kfsm_test_util.h"
#include "kfsm/tavrel_kfsm_ioctl.h"
#include "kfsm/tavrel_kfsm_request_handler.h"
#include "proto/kfsm_status.h"
#include "proto/view_rpc.h"

namespace {

using kfsm_test::Peer_Test;

// RPC 1 decodes a u_int and answers it plus one; RPC 2 answers "unknown procedure"; RPC 3 encodes a
// word and throws; any other RPC makes no handler.
bool test_dispatch(int rpc, XDR* in, XDR* out, int* rpc_status) {
  if (rpc == 3) {
    u_int v = 3;
    xdr_u_int(out, &v);
    throw std::runtime_error("operation failed badly");
  }
  if (rpc == 2) *rpc_status = KFSM_RPC_UNKNOWN;
  if (rpc != 1) return rpc == 2;
  u_int v = 0;
  if (!xdr_u_int(in, &v)) {
    *rpc_status = KFSM_RPC_DECODE;
    return true;
  }
  v += 1;
  *rpc_status = xdr_u_int(out, &v) ? KFSM_RPC_DONE : KFSM_RPC_ENCODE;
  return true;
}

std::string xdr_uint(u_int v) {
  char buf[4];
  XDR x;
  xdrmem_create(&x, buf, 4, XDR_ENCODE);
  EXPECT_TRUE(xdr_u_int(&x, &v));
  xdr_destroy(&x);
  return std::string(buf, 4);
}

class KfsmThreads : public Peer_Test {
 protected:
  void start(int threads, int32_t first_status = 0) {
    setenv("HOME", "/nonexistent-tavrel-home", 1);
    Tavrel_Config::reset_for_test();
    Tavrel_Config::get_instance()->load_text("tavrelNumCmapi=2\ntavrelNumKfsm=" + std::to_string(threads) + "\n");
    mgr = Tavrel_Thread_Manager_Base::get_instance();
    ASSERT_EQ(mgr->initialize(), 0);
    peer->set_first_call_status(first_status);
    Tavrel_KFSM_Request_Handler* h = Tavrel_KFSM_Request_Handler::get_instance();
    h->set_view_tag("vtag");
    ASSERT_EQ(h->start_listening(), 0);
  }
  void TearDown() override {
    if (mgr) {
      mgr->set_should_exit();
      mgr->drain_incomplete();
      mgr->terminate();
      Tavrel_Thread_Manager_Base::destroy_instance();
    }
    kfsm_set_wakeup_fd(-1);
    Tavrel_KFSM_Request_Handler::destroy_instance();
    Tavrel_KFSM_Thread_Unix::set_dispatcher(nullptr);
    Tavrel_Config::reset_for_test();
    Peer_Test::TearDown();
  }

  Tavrel_Thread_Manager_Base* mgr = nullptr;
};

TEST_F(KfsmThreads, EachThreadConnectsAndWithoutADispatcherEveryRequestGetsRpcStatus5) {
  start(3);
  ASSERT_TRUE(peer->wait_lpc_waiting(3));
  EXPECT_EQ(peer->accepted_connections(), 3);
  Kfsm_Peer::Lpc_Reply r;
  ASSERT_TRUE(peer->lpc_request(VIEW_RPC_LOOKUP, "some request bytes", &r));
  EXPECT_EQ(r.rpc_status, KFSM_RPC_ENCODE);
  EXPECT_EQ(r.size, 0u);
  EXPECT_EQ(r.marker, 1u);
  EXPECT_NE(r.cookie, 0u);
  for (auto& e : peer->lpc_events()) EXPECT_EQ(e.tag, "vtag");
}

TEST_F(KfsmThreads, DispatcherServesRequestsInTheOtherBufferAcrossAStatus) {
  Tavrel_KFSM_Thread_Unix::set_dispatcher(&test_dispatch);
  start(1);
  Kfsm_Peer::Lpc_Reply r;
  // Several rounds on one thread, each reply built in the buffer the request did not arrive in; a
  // status from the module in between does not end the loop nor resend a reply.
  for (u_int v : {41u, 7u, 0xFFFFFFFEu}) {
    ASSERT_TRUE(peer->lpc_request(1, xdr_uint(v), &r));
    EXPECT_EQ(r.rpc_status, KFSM_RPC_DONE);
    EXPECT_EQ(r.payload, xdr_uint(v + 1));
    ASSERT_TRUE(peer->wait_lpc_waiting(1));
    ASSERT_TRUE(peer->lpc_status_one(TBS_ST_FAILURE));
  }
  struct {
    uint64_t rpc;
    std::string payload;
    uint64_t capacity;
    uint32_t rpc_status;
  } cases[] = {
      {2, "", VIEW_LPC_PAYLOAD, KFSM_RPC_UNKNOWN},
      {1, "", VIEW_LPC_PAYLOAD, KFSM_RPC_DECODE},        // nothing to decode
      {1, xdr_uint(1), 2, KFSM_RPC_ENCODE},              // no room for the answer
      {3, "", VIEW_LPC_PAYLOAD, KFSM_RPC_ENCODE},         // throws: no body, and the thread serves on
      {99, "", VIEW_LPC_PAYLOAD, KFSM_RPC_ENCODE},        // no handler
  };
  for (auto& c : cases) {
    ASSERT_TRUE(peer->lpc_request(c.rpc, c.payload, &r, c.capacity)) << c.rpc;
    EXPECT_EQ(r.rpc_status, c.rpc_status) << c.rpc;
    EXPECT_EQ(r.size, 0u) << c.rpc;
  }
  size_t replies = 0;
  for (auto& e : peer->lpc_events()) replies += e.flags;
  EXPECT_EQ(replies, 3u + std::size(cases));  // each reply sent once
}

TEST_F(KfsmThreads, ViewGoneOnTheFirstCallEndsEveryThreadAtOnce) {
  start(2, TBS_ST_VIEW_GONE);
  ASSERT_TRUE(peer->wait_closed(2));
  auto ev = peer->lpc_events();
  EXPECT_EQ(ev.size(), 2u);  // one call each, nothing after
  for (auto& e : ev) EXPECT_EQ(e.flags, 0u);
}

TEST_F(KfsmThreads, UnregisterEndsTheBlockedThreads) {
  start(3);
  ASSERT_TRUE(peer->wait_lpc_waiting(3));
  Tavrel_View view{"01234567-89ab-cdef-0123-456789abcdef", "vtag", "unix", "", "/c", "/s", 0};
  ASSERT_EQ(Tavrel_KFSM_Ioctl(&view).unregister_view(), 0);
  ASSERT_TRUE(peer->wait_closed(4));  // three LPC connections and the downcall's own
  EXPECT_EQ(peer->lpc_events().size(), 3u);  // each thread made its one call and stopped
}

// The threads' connections close as soon as they are woken: the cleanup thread has already stopped,
// so this must not wait for terminate().
TEST_F(KfsmThreads, ShutdownWakesThreadsTheModuleNeverAnswers) {
  start(2);
  ASSERT_TRUE(peer->wait_lpc_waiting(2));
  mgr->set_should_exit();
  ASSERT_TRUE(peer->wait_closed(2));
  mgr->drain_incomplete();
  mgr->terminate();
  EXPECT_EQ(mgr->counters().live, 0);
}

TEST_F(KfsmThreads, NoThreadsWhenTheSettingIsZeroOrNoViewIsRegistered) {
  start(0);
  Tavrel_KFSM_Request_Handler::get_instance()->set_view_tag("");
  EXPECT_EQ(Tavrel_KFSM_Request_Handler::get_instance()->start_listening(), TAVREL_ST_FAILURE);
  EXPECT_EQ(peer->accepted_connections(), 0);
}

}  // namespace
