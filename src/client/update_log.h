// UpdateLog: a client's reading of the log an update or a restore writes in the view storage
// (log/update.<time>.updt), while the agent is still writing it.
//
// What the reader relies on: every line is one fact whose first word is its key ("New:", "Updated:",
// ...; keys end in ':'); the agent appends each record with one write and never rewrites a line; the
// trailer ("Status:", "Cancelled:", and for a failure "ErrorMessage:" and "ErrorStatus:") is the last
// thing written, all in one record. Title lines (catalogue texts such as "Update session status:")
// are not keys and are passed over, so the reader does not depend on their wording.
//
// A line is taken only once its line feed has been read: a record read half-way stays pending until
// the rest arrives. Counting is by key:
//   loaded     New:
//   updated    Updated:
//   unloaded   UnloadDeleted:, UnloadPreserved:, UnloadRenamed:
//   hijacked   HijackedPreserved:, HijackedDeleted:, HijackedRenamed:
//   errors     Error:
// "elements applied" is every record but the errors.
//
// Not thread-safe: one reader per thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace tavrel::client {

struct UpdateLogCounts {
  long loaded = 0, updated = 0, unloaded = 0, hijacked = 0, errors = 0;
  long applied() const { return loaded + updated + unloaded + hijacked; }
};

struct UpdateLogState {
  UpdateLogCounts counts;
  bool header = false;        // the parameters' block has begun (FormatVersion: seen)
  int process_id = 0;         // ProcessID: of the agent that wrote it
  bool resume = false;        // Resume: TRUE
  std::string last_error;     // the text of the last Error: record, unquoted
  // Trailer.
  bool finished = false;      // the whole trailer has been read
  bool succeeded = false;     // Status: Succeeded
  bool cancelled = false;     // Cancelled: TRUE
  std::string error_message;  // ErrorMessage:
  int error_status = 0;       // ErrorStatus:
};

class UpdateLog {
 public:
  UpdateLog() = default;
  explicit UpdateLog(std::string path) : m_path(std::move(path)) {}

  const std::string& path() const { return m_path; }
  // Reads what was appended since the last read; the complete new lines go to *lines when given.
  // False when the file cannot be opened or read (it may not exist yet); nothing is lost then.
  bool poll(std::vector<std::string>* lines = nullptr);
  // Takes text as if appended to the file (poll uses it; tests feed it directly).
  void feed(const std::string& bytes, std::vector<std::string>* lines = nullptr);
  const UpdateLogState& state() const { return m_state; }
  off_t bytes_read() const { return m_offset; }

 private:
  void take_line(const std::string& line);

  std::string m_path;
  off_t m_offset = 0;
  std::string m_pending;  // a line not yet ended
  UpdateLogState m_state;
  bool m_saw_status = false, m_saw_cancelled = false;
};

// "<n> elements applied (<a> new, <b> updated, <c> removed[, <d> hijacked][, <e> errors])".
std::string update_counts_text(const UpdateLogCounts& c);
// The live line a terminal shows while an update runs: "updating: " + update_counts_text, or
// "updating: waiting for the server" before the first record.
std::string update_progress_line(const UpdateLogState& s);

// The logs of updates and restores in `log_dir` ("update.*.updt"), by name.
std::vector<std::string> update_log_names(const std::string& log_dir);

}  // namespace tavrel::client
