// Get_ClearText: the contents (cleartext) of one version, fetched with a GET of the session's URL
// followed by `url_tail` ("/cltxt/<replica>/<version oid>/<text mode>") and streamed into the file
// `output_file`.
//
// Reply: a part "SyncElemData" whose body is the version's bytes (Content-Length of them, 0 for an
// empty version), then Status. An unknown version is a non-zero Status and no SyncElemData.
//
// Streaming: the part's headers are taken as soon as they are complete; the body then goes to the
// file block by block as libcurl delivers it, so the command holds at most one block of the reply
// however large the version is. The file is opened (created, or truncated) only when SyncElemData
// comes, and closed when its last byte is written.
//
// The file is only as good as the outcome: a caller keeps it only when check_rpc_status gives 0, and
// removes it otherwise (the command never removes it). Outcomes besides those of every command:
//   30010  a tail that is empty, does not begin with "/", or holds a blank, "?", "#" or a control
//          character; nothing is sent
//   30013  the file could not be opened or written (get_write_error() holds the errno): the transfer
//          is stopped at once
//   30006  the transfer ended before the end of the reply document (inside the body, or after it),
//          even when a Status part has come
//   30009  Status 0 without SyncElemData (the file would pass for an empty version)
//   30007  a second SyncElemData part
// Each of these faults stops the transfer at once: no more of the reply is read.
// The file is not synced to disk; a caller that renames it into place decides about that.
//
// Use: Get_ClearText cmd(tail, tmp_path); cmd.run(); int st = cmd.get_status_code();
//      if (cmd.check_rpc_status(log, message, st) != 0) remove tmp_path; else rename it into place.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "wan/rclient_abstract_cmd.h"

class Get_ClearText : public RClient_Abstract_Cmd {
 public:
  Get_ClearText(const std::string& url_tail, const std::string& output_file);
  ~Get_ClearText() override;

  int marshal_request(RClient_Request_Args* args) override;
  int unmarshal_response() override;
  // As every command's; a transfer that this command stopped reports the reason (30007, 30008, 30009,
  // 30013) rather than libcurl's failure.
  int run() override;

  const std::string& get_url_tail() const { return url_tail; }
  const std::string& get_output_file() const { return output_file; }
  // The body length that SyncElemData announced; -1 before it came.
  long get_content_length() const { return content_length; }
  // Bytes written to the file so far.
  uint64_t get_bytes_written() const;
  // The errno of a failed open, write or close of the file; 0 when none failed.
  int get_write_error() const { return write_error; }
  // Whether the whole body reached the file and the file was closed without error.
  bool data_complete() const { return state == AFTER_DATA && got_data && write_error == 0; }

  // Whether a tail can be appended to the URL as it stands.
  static bool valid_url_tail(const std::string& tail);

 private:
  class File_Sink;
  enum State { NOT_STARTED, WRITING, AFTER_DATA };

  int parse();
  int document_ended();
  void open_file();
  void close_file();
  [[noreturn]] void write_failed(const char* what, int err);
  void reset();

  std::string url_tail;
  std::string output_file;
  State state = NOT_STARTED;
  bool in_part = false;        // a part's headers were taken in NOT_STARTED and it is not finished
  std::string part_id;         // its Content-ID
  bool got_data = false;       // SyncElemData came
  long content_length = -1;
  long remaining = 0;          // body bytes still to be written
  int write_error = 0;
  int m_reply_error = 0;       // a fault of the reply found here; stands for the rest of the transfer
  std::string m_reply_text;    // its message
  std::unique_ptr<File_Sink> sink;
};
