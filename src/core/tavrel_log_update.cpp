#include "core/tavrel_log_update.h"

#include <sys/stat.h>

#include <cstdarg>

#include "base/date.h"
#include "base/imsg.h"
#include "base/strutl.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view_msg_table.h"
#include "proto/tavrel_status.h"
#include "proto/view_storage_names.h"

namespace {
const char* const kClass = "Tavrel_Log_Update";
constexpr size_t kMessageMax = 16384;
// How many later seconds are tried when a log of the start's name exists.
constexpr int kNameTries = 3600;

// A value as it stands on a line: its CR and LF written as "\r" and "\n".
std::string one_line(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else
      out += c;
  }
  return out;
}
std::string q(const std::string& text) { return one_line(Tavrel_Util::quote_if_whitespace(text.c_str())); }
const char* symlink_word(bool is_symlink) { return is_symlink ? "SYMLINK" : ""; }
const char* yes_no(bool b) { return b ? "TRUE" : "FALSE"; }

std::string text_line(const char* key, const std::string& value) {
  return strutl_format("%-*s %s\n", Tavrel_Log_Update::KEY_WIDTH, key, value.c_str());
}
std::string number_line(const char* key, int value) {
  return strutl_format("%-*s %d\n", Tavrel_Log_Update::KEY_WIDTH, key, value);
}
// A message without its trailing line ends, on one line.
std::string message_text(const std::string& text) {
  size_t end = text.size();
  while (end > 0 && (text[end - 1] == '\n' || text[end - 1] == '\r')) --end;
  return one_line(text.substr(0, end));
}
}  // namespace

std::string Tavrel_Log_Update::file_name_for(const std::string& log_dir, time_t when) {
  std::string name;
  for (int i = 0; i < kNameTries; ++i, ++when) {
    name = "update." + date_fmt_token_date_time_pname(when) + ".updt";
    struct stat st;
    if (lstat((log_dir + "/" + name).c_str(), &st) != 0) break;
  }
  return name;
}

Tavrel_Log_Update::Tavrel_Log_Update(const std::string& view_dir) : Tavrel_Log_Update(view_dir, time(nullptr)) {}

Tavrel_Log_Update::Tavrel_Log_Update(const std::string& view_dir, time_t when)
    : Tavrel_Log_Base(view_dir, file_name_for(view_dir + "/" + VIEW_STG_LOG_DIR, when)) {
  m_file_name = m_log_path.substr(m_log_dir.size() + 1);
  Tavrel_Trace trace(TAVREL, kClass, "Tavrel_Log_Update");
  trace.writeTrace(TRACE_LEVEL_4, "Update log path = %s", m_log_path.c_str());
}

int Tavrel_Log_Update::write_log(TAVREL_LOG_TYPE type, const std::string& text) {
  if (append_line(text)) return 0;
  Tavrel_Trace trace(TAVREL, kClass, "write_log");
  trace.writeTrace(TRACE_LEVEL_2, "Record of type %d lost: %s cannot be written", static_cast<int>(type),
                   m_log_path.c_str());
  return TAVREL_ST_UPDATE_LOG;
}

void Tavrel_Log_Update::write_log(TAVREL_LOG_TYPE type, const char* format, ...) {
  char buf[kMessageMax];
  va_list ap;
  va_start(ap, format);
  strutl_vsnprintf(buf, sizeof buf, format, ap);
  va_end(ap);
  write_log(type, std::string(buf));
}

int Tavrel_Log_Update::write_log(TAVREL_LOG_TYPE type, const _imsg_message_table_t* table, int number, ...) {
  Tavrel_Trace trace(TAVREL, kClass, "write_log");
  trace.writeTrace(TRACE_LEVEL_5, "log_type = %d", static_cast<int>(type));
  va_list ap;
  va_start(ap, number);
  std::string text = imsg_vformat(table, number, ap);
  va_end(ap);
  return write_log(type, text);
}

int Tavrel_Log_Update::write_line(const char* key, const std::string& values) {
  return write_log(TAVREL_LOG_INFO, strutl_format("%-*s %s\n", KEY_WIDTH, key, values.c_str()));
}

int Tavrel_Log_Update::log_load(const std::string& path, const std::string& version, bool is_symlink) {
  return write_line("New:", q(path) + " " + q(version) + " " + symlink_word(is_symlink));
}

int Tavrel_Log_Update::log_update(const std::string& path, const std::string& old_version,
                                  const std::string& new_version, bool is_symlink) {
  return write_line("Updated:",
                    one_line(path) + " " + q(old_version) + " " + q(new_version) + " " + symlink_word(is_symlink));
}

int Tavrel_Log_Update::log_unload(const std::string& path) { return write_line("UnloadDeleted:", q(path)); }

int Tavrel_Log_Update::log_hijack_unload(HijackTreatment treatment, const std::string& path,
                                         const std::string& new_name) {
  switch (treatment) {
    case HIJACK_TREATMENT_KEEP:
      return write_line("UnloadPreserved:", q(path));
    case HIJACK_TREATMENT_OVERWRITE:
      return write_line("UnloadDeleted:", q(path));
    case HIJACK_TREATMENT_RENAME:
      return write_line("UnloadRenamed:", q(path) + " " + q(new_name));
  }
  return TAVREL_ST_UPDATE_LOG;
}

int Tavrel_Log_Update::log_hijack_update(HijackTreatment treatment, const std::string& path,
                                         const std::string& old_version, const std::string& new_version,
                                         bool is_symlink, const std::string& new_name) {
  const std::string values =
      q(path) + " " + q(old_version) + " " + q(new_version) + " " + symlink_word(is_symlink);
  switch (treatment) {
    case HIJACK_TREATMENT_KEEP:
      return write_line("HijackedPreserved:", values);
    case HIJACK_TREATMENT_OVERWRITE:
      return write_line("HijackedDeleted:", values);
    case HIJACK_TREATMENT_RENAME:
      return write_line("HijackedRenamed:", values + " " + q(new_name));
  }
  return TAVREL_ST_UPDATE_LOG;
}

int Tavrel_Log_Update::log_hijack_sweep(HijackTreatment treatment, const std::string& path,
                                        const std::string& new_name) {
  switch (treatment) {
    case HIJACK_TREATMENT_KEEP:
      return 0;  // a kept hijack stays as it is and tells nothing
    case HIJACK_TREATMENT_OVERWRITE:
      return write_line("HijackedDeleted:", q(path));
    case HIJACK_TREATMENT_RENAME:
      return write_line("HijackedRenamed:", q(path) + " " + q(new_name));
  }
  return TAVREL_ST_UPDATE_LOG;
}

int Tavrel_Log_Update::log_error(const std::string& message) {
  return write_log(TAVREL_LOG_ERROR, strutl_format("%-*s \"%s\"\n", KEY_WIDTH, "Error:", message_text(message).c_str()));
}

std::string Tavrel_Log_Update::format_header(const Update_Log_Header& h) {
  std::string server_user = h.server_domain.empty() ? h.server_user : h.server_domain + "\\" + h.server_user;
  std::string s = imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_UPDATE_LOG_TITLE) + "\n";
  s += imsg_format(&_tvr_view_msg_table, TVR_VIEW_UPDATE_PARAMETERS) + "\n";
  s += number_line("FormatVersion:", FORMAT_VERSION);
  s += text_line("AutomaticView:", one_line(h.view_tag));
  s += text_line("StartTime:", date_fmt_token_date_time_pname(h.start_time));
  s += text_line("ClientUserID:", one_line(h.client_user));
  s += text_line("ServerUserID:", one_line(server_user));
  s += text_line("Server:", one_line(Tavrel_Util::server_from_url(h.server_url)));
  s += number_line("ProcessID:", h.process_id);
  s += text_line("PreviewOnly:", "FALSE");
  s += text_line("PreserveSILOTimes:", yes_no(h.preserve_times));
  s += text_line("UpdateHijackedFiles:", yes_no(h.hijack_treatment != HIJACK_TREATMENT_KEEP));
  s += text_line("RenameHijackedFiles:", yes_no(h.hijack_treatment == HIJACK_TREATMENT_RENAME));
  s += text_line("ForceUpdateAllLoadRules:", yes_no(h.force));
  s += text_line("Resume:", yes_no(h.resume));
  s += text_line("UpdateOnDemandScope:", yes_no(h.update_ondemand));
  s += imsg_format(&_tvr_view_msg_table, TVR_VIEW_UPDATE_ACTIONS) + "\n";
  return s;
}

std::string Tavrel_Log_Update::format_trailer(const Update_Log_Trailer& given) {
  Tavrel_Trace trace(TAVREL, kClass, "format_trailer");
  Update_Log_Trailer t = given;
  if (t.status == 0 && t.background_status != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Promoting background status %d", t.background_status);
    t.status = t.background_status;
    t.message = t.background_message;
  }
  std::string s = imsg_format(&_tvr_view_msg_table, TVR_VIEW_UPDATE_STATUS) + "\n";
  s += text_line("EndTime:", date_fmt_token_date_time_pname(t.end_time));
  s += text_line("Status:", t.status == 0 ? "Succeeded" : "Failed");
  s += text_line("Cancelled:", yes_no(t.cancelled));
  if (t.status != 0) {
    s += text_line("ErrorMessage:", message_text(t.message));
    s += number_line("ErrorStatus:", t.status);
  }
  return s;
}

int Tavrel_Log_Update::log_header(const Update_Log_Header& header) {
  return write_log(TAVREL_LOG_INFO, format_header(header));
}

int Tavrel_Log_Update::log_trailer(const Update_Log_Trailer& trailer) {
  return write_log(TAVREL_LOG_INFO, format_trailer(trailer));
}
