// The composition root: every seam installed, the process's operation table in comparison order, the
// view-protocol dispatcher answering through the LPC threads' seam, and the view handler's assertions.
#include <rpc/xdr.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "apps/tavrel_agent/tavrel_agent_seams.h"
#include "apps/tavrel_agent/tavrel_op_table.h"
#include "apps/tavrel_agent/tavrel_view_handler.h"
#include "kfsm/tavrel_kfsm_thread_unix.h"
#include "ops/tavrel_abstract_op.h"

namespace {

TEST(AgentRootDeathTest, ViewHandlerAssertionsNameTheAgent) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const struct {
    void (*fn)();
    const char* text;  // a regular expression
  } cases[] = {
      {[] { Tavrel_View_Handler::get_view(); }, "g_view != NULL"},
      {[] { std::thread([] { Tavrel_View_Handler::set_view(nullptr); }).join(); }, "OLTHREAD_IS_MAIN_THREAD\\(\\)"},
  };
  for (const auto& c : cases)
    EXPECT_DEATH(c.fn(), std::string("Assertion failed: ") + c.text + ", file tavrel_agent, line") << c.text;
}

TEST(AgentRoot, InstallsEverySeam) {
  Tavrel_AbstractOp::set_op_table(nullptr, 0);
  EXPECT_FALSE(tavrel_agent_missing_seams().empty());
  tavrel_agent_install_seams();
  EXPECT_EQ(tavrel_agent_missing_seams(), std::vector<std::string>{});

  // RPC 0 goes through the installed dispatcher: done, nothing encoded.
  char in_buf[64] = {}, out_buf[64];
  XDR in, out;
  xdrmem_create(&in, in_buf, sizeof in_buf, XDR_DECODE);
  xdrmem_create(&out, out_buf, sizeof out_buf, XDR_ENCODE);
  int rpc_status = -1;
  ASSERT_TRUE(Tavrel_KFSM_Thread_Unix::get_dispatcher()(0, &in, &out, &rpc_status));
  EXPECT_EQ(rpc_status, 0);
  EXPECT_EQ(xdr_getpos(&out), 0u);
}

TEST(AgentRoot, OperationTableKeepsTheComparisonOrder) {
  // Every row names an operation of the known set, once, in the comparison order, with the highest
  // version that operation accepts.
  const std::vector<std::string> order = {
      "Checkin", "Checkout", "Connect", "Disconnect", "EndView", "GetAggregatedState", "GetCache", "GetChildren",
      "GetConfigSpec", "GetMetadata", "GetMountedSiloList", "Hijack", "InvalidateCheckouts", "IsSiloMounted",
      "IsProjectSilo", "IsUpdateInProgress", "IsSiloPublic", "Load", "MergeDirectory", "Mkelem", "MkView",
      "MountSilo", "Move", "Restore", "Rmname", "SetCache", "SetConfigSpec", "StartView", "Uncheckout", "Unhijack",
      "Update"};
  const Tavrel_Op_Entry* table = tavrel_op_table();
  ASSERT_GT(tavrel_op_table_size(), 0u);
  size_t last = 0;
  for (size_t i = 0; i < tavrel_op_table_size(); i++) {
    auto at = std::find(order.begin(), order.end(), table[i].name);
    ASSERT_NE(at, order.end()) << table[i].name;
    size_t pos = static_cast<size_t>(at - order.begin());
    if (i > 0) {
      EXPECT_GT(pos, last) << table[i].name << " out of order";
    }
    last = pos;
    EXPECT_STREQ(table[i].highest_version, std::string(table[i].name) == "Uncheckout" ? "2" : "1");
  }
  // Through the installed table a row is built; a root outside it, or in another case, is not.
  tavrel_agent_install_seams();
  for (const char* root : {"IsUpdateInProgress", "isupdateinprogress", "Anything"}) {
    int status = -1;
    std::unique_ptr<Tavrel_AbstractOp> op(Tavrel_AbstractOp::create_xml_request_handler(
        std::string("<") + root + " version=\"1\" tx-id=\"q\"/>", "/views/v1", &status));
    ASSERT_TRUE(op) << root;
    EXPECT_EQ(status, 0);
    EXPECT_EQ(op->get_request_name(), std::string(root) == "IsUpdateInProgress" ? "IsUpdateInProgress" : "XMLError");
  }
}

}  // namespace
