// Tavrel_Log_Update: the update log, a text file that tells the user what an update or a restore did
// to each object of the view. It is for people and for the client tools that show it.
//
// File: <view storage>/log/update.<YYYYMMDD.HHMMSS>.updt, the time being the constructor's (local
// time, date_fmt_token_date_time_pname). When a log of that name already exists (two updates within a
// second), the next free second is taken, so two updates never share a file. Created owner-only, never
// through a symbolic link.
//
// Format: every line is one fact: a key left-justified in 24 columns ("%-*s" with width 24), one
// blank, the values separated by blanks, a line feed. Paths, names and versions pass through
// Tavrel_Util::quote_if_whitespace, except the first value of "Updated:" (written as it is, which
// readers rely on). A value's own CR or LF is written as "\r" or "\n", so a value never breaks a line.
//
//   header   "Update log for Orlenta automatic view"                 (agent message 65)
//            "Update session parameters:"                            (view message 299)
//            FormatVersion: AutomaticView: StartTime: ClientUserID: ServerUserID: Server: ProcessID:
//            PreviewOnly: PreserveSILOTimes: UpdateHijackedFiles: RenameHijackedFiles:
//            ForceUpdateAllLoadRules: Resume: UpdateOnDemandScope:   (booleans "TRUE"/"FALSE")
//            "Actions taken to update the view:"                     (view message 301)
//   records  New:               path version SYMLINK|""              (a trailing blank without SYMLINK)
//            Updated:           path old-version new-version SYMLINK|""
//            UnloadDeleted:     path                                 (also a hijack unloaded, overwrite)
//            UnloadPreserved:   path                                 (hijack unloaded, keep)
//            UnloadRenamed:     path new-name                        (hijack unloaded, rename)
//            HijackedPreserved: path old new SYMLINK|""              (hijack updated, keep)
//            HijackedDeleted:   path old new SYMLINK|""              (hijack updated, overwrite)
//            HijackedRenamed:   path old new SYMLINK|"" new-name     (hijack updated, rename)
//            HijackedDeleted:   path / HijackedRenamed: path new-name  (sweep of hijacks no longer
//                                                                    loaded; nothing for keep)
//            Error:             "message"                            (always quoted, never escaped)
//   trailer  "Update session status:"                                (view message 302)
//            EndTime: Status: Succeeded|Failed  Cancelled: TRUE|FALSE
//            and for a failure ErrorMessage: text, ErrorStatus: number
//
// Durability: every record is opened, written with write(2) and closed before its writer returns, so
// the file can be read while an update runs and a process that dies loses nothing written. A log that
// cannot be opened or written does not stop an update: the record is lost and the writer returns 20053.
//
// Thread safety: records are serialised by the base's mutex; an update and a restore each own their
// log.
#pragma once

#include <ctime>
#include <string>

#include "core/tavrel_log.h"
#include "core/tavrel_util.h"

struct Update_Log_Header {
  std::string view_tag;
  time_t start_time = 0;
  std::string client_user;
  std::string server_domain;  // may be empty
  std::string server_user;
  std::string server_url;     // written as the server part of the URL
  int process_id = 0;
  bool preserve_times = false;
  HijackTreatment hijack_treatment = HIJACK_TREATMENT_KEEP;
  bool force = false;
  bool resume = false;
  bool update_ondemand = true;
};

struct Update_Log_Trailer {
  time_t end_time = 0;
  int status = 0;               // 0 for a success
  std::string message;          // the failure's text
  bool cancelled = false;
  int background_status = 0;    // a background failure still waiting; promoted when status is 0
  std::string background_message;
};

class Tavrel_Log_Update : public Tavrel_Log_Base {
 public:
  static constexpr int KEY_WIDTH = 24;
  static constexpr int FORMAT_VERSION = 1;

  // The log of an update starting now, or at `when`.
  explicit Tavrel_Log_Update(const std::string& view_dir);
  Tavrel_Log_Update(const std::string& view_dir, time_t when);

  // The file's name within the log directory ("update.<time>.updt").
  const std::string& get_file_name() const { return m_file_name; }

  // Writers. Each returns 0, or 20053 when the record could not be written.
  int write_log(TAVREL_LOG_TYPE type, const std::string& text);
  void write_log(TAVREL_LOG_TYPE type, const char* format, ...) override __attribute__((format(printf, 3, 4)));
  int write_log(TAVREL_LOG_TYPE type, const _imsg_message_table_t* table, int number, ...);

  int log_load(const std::string& path, const std::string& version, bool is_symlink);
  int log_update(const std::string& path, const std::string& old_version, const std::string& new_version,
                 bool is_symlink);
  int log_unload(const std::string& path);
  int log_hijack_unload(HijackTreatment treatment, const std::string& path, const std::string& new_name);
  int log_hijack_update(HijackTreatment treatment, const std::string& path, const std::string& old_version,
                        const std::string& new_version, bool is_symlink, const std::string& new_name);
  int log_hijack_sweep(HijackTreatment treatment, const std::string& path, const std::string& new_name);
  int log_error(const std::string& message);

  // The header and the trailer, each written as one record.
  int log_header(const Update_Log_Header& header);
  int log_trailer(const Update_Log_Trailer& trailer);
  static std::string format_header(const Update_Log_Header& header);
  static std::string format_trailer(const Update_Log_Trailer& trailer);

 private:
  static std::string file_name_for(const std::string& log_dir, time_t when);
  int write_line(const char* key, const std::string& values);

  std::string m_file_name;
};
