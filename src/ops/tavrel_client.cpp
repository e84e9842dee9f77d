#include "ops/tavrel_client.h"

#include <fcntl.h>
#include <unistd.h>

std::atomic<int> Tavrel_Client::g_live{0};

Tavrel_Client::Tavrel_Client() { ++g_live; }

Tavrel_Client::~Tavrel_Client() {
  release();
  remove_names();
}

void Tavrel_Client::release() {
  if (!m_released) --g_live;
  m_released = true;
}

void Tavrel_Client::remove_names() {
  for (std::string* name : {&m_request_name, &m_response_name}) {
    if (!name->empty() && m_dir_fd >= 0) unlinkat(m_dir_fd, name->c_str(), 0);
    name->clear();
  }
}
