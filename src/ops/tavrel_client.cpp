#include "ops/tavrel_client.h"

#include <cstdio>

Tavrel_Client::~Tavrel_Client() {
  if (!m_request_path.empty()) remove(m_request_path.c_str());
  if (!m_response_path.empty()) remove(m_response_path.c_str());
}
