// The agent's message catalogue: its shape, the exact texts clients and logs depend on, and formats
// that only use safe conversions.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "core/tavrel_msg_table.h"

namespace {

TEST(MessageCatalogue, ShapeAndExactTexts) {
  const _imsg_message_table_t& t = _tvr_lib_lib_msg_table;
  EXPECT_STREQ(t.section, "lib_tavrel_agent");
  EXPECT_STREQ(t.prefix, "tvr_lib");
  ASSERT_EQ(t.count, TVR_LIB_MSG_COUNT);
  for (int i = 0; i < t.count; i++) EXPECT_NE(t.texts[i], nullptr) << i;
  struct {
    int number;
    const char* text;
  } exact[] = {
      {0, "Error \"%d\" creating view storage directory \"%s\".\n"},
      {4, "Server information is incomplete or invalid for \"%s\".\n"},
      {6, "View at \"%s\" exists.\n"},
      {7, "Parse error in \"%s\".\n"},
      {14, "View information not found."},
      {16, "Client is disconnected from the server.\n"},
      {17, "Unable to connect to server :\"%s\".\n"},
      {19, "File \"%s\" already exists."},
      {22, "Unrecognized IPC: \"%s\".\n"},
      {27, "\"%s\" not found in XML request.\n"},
      {38, "Cleartext cache directories may not be nested. Ancestor of  \"%s\" is a cleartext cache location.\n"},
      {39, "Unable to split path \"%s\" into parent and leaf.\n"},
      {41, "Object \"%s\" not a version: mtype %d\n"},
      {47, "placeholder for message of set load rules fails TBD"},
      {63, "View update RPC failed, status = %d (%s)"},
      {65, "Update log for Orlenta automatic view"},
      {67, "Failed to retried load scopes from cache.\n"},
      {73, "tavrel_agent is shutting down; no new requests can be processed.\n"},
      {74, "A view update operation is already in progress.\n"},
      {89, "Internal error retrieving dbid for path '%s'"},
      {100, "Unable to remove checkout state for element \"%s\" in replica \"%s\""},
      {103, "Readdir on source parent \"%s\" after move operation failed"},
      {106, "Load rules may not be identical or nested: \"%s\" and \"%s\".\n"},
      {107, "Internal error flushing KFSM metadata (ioctl unavailable)"},
      {121, "Comments are not supported in load rules for automatic views.\n"},
      {123, "View started on wrong host.  This view is registered on host \"%s\"."},
      {124, "Unable to flush cached entry for oid:%s@replicauuid:%s: %s\n"},
  };
  for (auto& e : exact) EXPECT_STREQ(t.texts[e.number], e.text) << e.number;
}

TEST(MessageCatalogue, FormatsUseOnlyPlainConversions) {
  // Every conversion is %s, %d, %u, %ld or %lx (or %%), so an expansion can never read arguments in
  // an unexpected width.
  for (int i = 0; i < _tvr_lib_lib_msg_table.count; i++) {
    const std::string text = _tvr_lib_lib_msg_table.texts[i];
    for (size_t p = text.find('%'); p != std::string::npos; p = text.find('%', p)) {
      const std::string after = text.substr(p + 1, 2);
      size_t len = 0;
      if (after.rfind("ld", 0) == 0 || after.rfind("lx", 0) == 0)
        len = 2;
      else if (!after.empty() && std::strchr("%sdu", after[0]))
        len = 1;
      EXPECT_NE(len, 0u) << i << ": " << text;
      p += 1 + (len ? len : 1);
    }
  }
}

}  // namespace
