#include "wan/rclient_messages.h"

#include <cstdarg>

namespace {
const char* const kTexts[] = {
    "Error \"%d\" (%s) setting option %d.\n",
    "Error executing request %d (%s).\n",
    "Authorization failure, check username and password.\n",
    "Not found.\n",
    "Error adding form fields to POST request.\n",
    "SILO family oid not found for \"%s\".\n",
    "SILO replica oid not found for \"%s\".\n",
    "Invalid SILO OID %s.\n",
    "SILO storage not found for \"%s\".\n",
    "Unable to complete RPC to WAN server.",
    "WAN RPC \"%s\" failed : WAN status code %d, status code %d, message \"%s\".",
    "Unable to establish new WAN session using cached credentials.\n",
    "Status code from RPC = %d",
    "Error in SSL configuration = %d (%s).\n",
    "Transfer stalled: fewer than %ld bytes in %ld ms.\n",
    "No connection to the WAN server within %ld ms.\n",
    "Reply part larger than %ld bytes refused.\n",
    "Request not finished within %ld ms.\n",
};
}  // namespace

const _imsg_message_table_t _rclient_msg_table = {"client_lib", "rclient",
                                                  static_cast<int>(sizeof(kTexts) / sizeof(kTexts[0])), kTexts};

std::string rclient_msg(int number, ...) {
  va_list ap;
  va_start(ap, number);
  std::string out = imsg_vformat(&_rclient_msg_table, number, ap);
  va_end(ap);
  return out;
}
