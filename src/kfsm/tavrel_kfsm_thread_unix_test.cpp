// The LPC threads against a scripted module: how many connect, what a request without a handler
// gets, the two-buffer loop with a status in between, 1046 on the first call, and the ways a view's
// threads end (unregister, shutdown).
#include "kfsm/tavrel_kfsm_thread_unix.h"

#include <cerrno>
#include <cstring>

#include "core/tavrel_config.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_view.h"
#include "kfsm/kfsm_test_util.h"
#include "kfsm/tavrel_kfsm_ioctl.h"
#include "kfsm/tavrel_kfsm_request_handler.h"

namespace {

using kfsm_test::Peer_Test;

// A dispatcher for the tests: RPC 1 decodes a u_int and answers it plus one; RPC 2 answers "unknown
// procedure"; any other RPC makes no handler.
bool test_dispatch(int rpc, XDR* in, XDR* out, int* rpc_status) {
  if (rpc == 1) {
    u_int v = 0;
    if (!xdr_u_int(in, &v)) {
      *rpc_status = KFSM_RPC_DECODE;
      return true;
    }
    v += 1;
    *rpc_status = xdr_u_int(out, &v) ? KFSM_RPC_DONE : KFSM_RPC_ENCODE;
    return true;
  }
  if (rpc == 2) {
    *rpc_status = KFSM_RPC_UNKNOWN;
    return true;
  }
  return false;
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

TEST_F(KfsmThreads, EachThreadConnectsAndARequestWithoutHandlerGetsRpcStatus5) {
  start(3);
  ASSERT_TRUE(peer->wait_lpc_waiting(3));
  EXPECT_EQ(peer->accepted_connections(), 3);
  for (uint64_t op : {107ull, 0ull, 120ull}) {
    Kfsm_Peer::Lpc_Reply r;
    ASSERT_TRUE(peer->lpc_request(op, "some request bytes", &r)) << op;
    EXPECT_EQ(r.rpc_status, 5u) << op;
    EXPECT_EQ(r.size, 0u) << op;
    EXPECT_TRUE(r.payload.empty());
    EXPECT_EQ(r.marker, 1u);
    EXPECT_NE(r.cookie, 0u);
  }
  for (auto& e : peer->lpc_events()) EXPECT_EQ(e.tag, "vtag");
}

TEST_F(KfsmThreads, DispatcherServesRequestsInTheOtherBuffer) {
  Tavrel_KFSM_Thread_Unix::set_dispatcher(&test_dispatch);
  start(1);
  Kfsm_Peer::Lpc_Reply r;
  // Several rounds on one thread: each reply is built in the buffer the request did not arrive in.
  for (u_int v : {41u, 7u, 0xFFFFFFFEu}) {
    ASSERT_TRUE(peer->lpc_request(1, xdr_uint(v), &r));
    EXPECT_EQ(r.rpc_status, 0u);
    EXPECT_EQ(r.size, 4u);
    EXPECT_EQ(r.payload, xdr_uint(v + 1));
  }
  ASSERT_TRUE(peer->lpc_request(2, "", &r));
  EXPECT_EQ(r.rpc_status, 3u);
  EXPECT_EQ(r.size, 0u);
  ASSERT_TRUE(peer->lpc_request(1, "", &r));  // nothing to decode
  EXPECT_EQ(r.rpc_status, 4u);
  ASSERT_TRUE(peer->lpc_request(1, xdr_uint(1), &r, /*capacity=*/2));  // no room for the answer
  EXPECT_EQ(r.rpc_status, 5u);
  ASSERT_TRUE(peer->lpc_request(99, "", &r));
  EXPECT_EQ(r.rpc_status, 5u);
}

TEST_F(KfsmThreads, AStatusRepeatsThePassWithoutResendingTheReply) {
  Tavrel_KFSM_Thread_Unix::set_dispatcher(&test_dispatch);
  start(1);
  Kfsm_Peer::Lpc_Reply r1, r2;
  ASSERT_TRUE(peer->lpc_request(1, xdr_uint(1), &r1));
  ASSERT_TRUE(peer->wait_lpc_waiting(1));
  ASSERT_TRUE(peer->lpc_status_one(1001));
  ASSERT_TRUE(peer->lpc_request(1, xdr_uint(5), &r2));
  EXPECT_EQ(r2.payload, xdr_uint(6));
  auto ev = peer->lpc_events();
  ASSERT_EQ(ev.size(), 4u);
  EXPECT_EQ(ev[0].flags, 0u);  // first call: nothing to hand back
  EXPECT_EQ(ev[1].flags, 1u);  // the first reply
  EXPECT_EQ(ev[1].cookie, r1.cookie);
  EXPECT_EQ(ev[2].flags, 0u);  // after the status: the same buffer, the reply not sent again
  EXPECT_EQ(ev[3].flags, 1u);
  EXPECT_EQ(ev[3].cookie, r2.cookie);
}

TEST_F(KfsmThreads, ViewGoneOnTheFirstCallEndsEveryThreadAtOnce) {
  start(2, 1046);
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

TEST_F(KfsmThreads, ShutdownWakesThreadsTheModuleNeverAnswers) {
  start(2);
  ASSERT_TRUE(peer->wait_lpc_waiting(2));
  mgr->set_should_exit();
  ASSERT_TRUE(peer->wait_closed(2));
  mgr->drain_incomplete();
  mgr->terminate();  // returns: nothing is left blocked
  EXPECT_EQ(mgr->counters().live, 0);
}

TEST_F(KfsmThreads, NoThreadsWhenTheSettingIsZeroOrNoViewIsRegistered) {
  start(0);
  EXPECT_EQ(peer->accepted_connections(), 0);
  Tavrel_KFSM_Request_Handler::get_instance()->set_view_tag("");
  EXPECT_EQ(Tavrel_KFSM_Request_Handler::get_instance()->start_listening(), TAVREL_ST_FAILURE);
  EXPECT_EQ(peer->accepted_connections(), 0);
}

}  // namespace
