// Tavrel_Conn_Handler_Unix: the FIFO side of the connection thread.
//
// Before the first connection the ".ipc" directory is opened once, without following a symbolic
// link, and checked through that descriptor: it must be a directory owned by this user; its mode is
// set to 0700. From then on every FIFO is made, opened and removed relative to that descriptor, so a
// ".ipc" replaced later (by a symbolic link, say) is never followed. A bad ".ipc" stops the agent:
// the refusal is logged and failure() says 20010. Then, still before serving and under the view lock
// the first request took, FIFOs of clients of an earlier agent ("request_*", "response_*") are removed.
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
  // Opens (making it when missing) and checks the ".ipc" directory of a storage; repairs its mode.
  // 0 with *fd set, or 20010.
  static int open_ipc_dir(const std::string& storage_path, int* fd);
  // Removes the client FIFOs left in the directory; returns how many.
  static int remove_stale_pipes(int dir_fd);

 private:
  int m_listener_fd = -1;
  int m_ipc_fd = -1;  // ".ipc", opened once by this thread; read by client objects until the end
};
