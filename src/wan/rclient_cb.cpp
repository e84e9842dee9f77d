#include "wan/rclient_cb.h"

#include <climits>

#include "wan/rclient_abstract_cmd.h"

int RClient_CB::response_cb(char* data, size_t length, void* cb) {
  auto* self = static_cast<RClient_CB*>(cb);
  if (!self || !self->m_cmd) return 0;
  // libcurl hands at most CURL_MAX_WRITE_SIZE bytes at a time; split anything larger all the same.
  while (length > 0) {
    unsigned int n = length > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(length);
    int rc = self->m_cmd->process_response(data, n);
    if (rc != 0) return rc;
    data += n;
    length -= n;
  }
  return 0;
}
