// Tavrel_Conn_Handler_Unix: the FIFO side of the connection thread.
//
// Before the first connection the ".ipc" directory is checked: it must be a real directory (not a
// symbolic link) owned by this user; its mode is set to 0700. Anything else stops the agent.
#pragma once

#include "ops/tavrel_conn_handler_base.h"

class Tavrel_Conn_Handler_Unix : public Tavrel_Conn_Handler_Base {
 public:
  explicit Tavrel_Conn_Handler_Unix(Tavrel_View* view);
  ~Tavrel_Conn_Handler_Unix() override;

  int setup_listener() override;
  int handle_connection() override;

  static int set_blocking(int fd);
  // Reads one line, a byte at a time, up to `size` bytes. *count is the number read without the
  // newline, or all ones when the read failed.
  static int readline(int fd, char* buf, unsigned size, unsigned* count);
  int get_connection_request(std::string& id);
  int create_client_connections(const std::string& id, Tavrel_Client* client);
  // Checks (and repairs the mode of) the ".ipc" directory of a storage. 0 or 20010.
  static int check_ipc_dir(const std::string& storage_path);

 private:
  void initialize();

  int m_listener_fd = -1;
  std::string m_unused;
  bool m_ipc_checked = false;
};
