// Tavrel_Util: the agent's path and text helpers, message expansion and status mapping. All static,
// all thread-safe; none keeps state except get_view_time (guarded by g_view_time_mutex).
//
// Paths: the pathname separator is "/". Paths from clients pass through globalize_path, which on this
// system leaves them as they are. sanitize_path never touches ".." (callers refuse it themselves).
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <mutex>
#include <string>
#include <vector>

#include "base/imsg.h"
#include "base/tavrel_mutex.h"
#include "base/tbs.h"

// How an update treats a hijacked file.
enum HijackTreatment { HIJACK_TREATMENT_KEEP = 0, HIJACK_TREATMENT_OVERWRITE = 1, HIJACK_TREATMENT_RENAME = 2 };

class Tavrel_Util {
 public:
  static constexpr char PNAME_SEPARATOR = '/';
  // Expansion buffer of format(): a message longer than FORMAT_BUFFER_SIZE - 1 bytes is refused.
  static constexpr size_t FORMAT_BUFFER_SIZE = 153600;

  // 0 stays 0; 1002 and 1052 (not found) give 20002; anything else 20001.
  static int tbs_to_tavrel_status(int status);

  // Expands message `number` of `table` into `out` (replacing its contents) and returns `out`.
  // An unknown number gives "Internal error: could not load message N"; an expansion longer than
  // FORMAT_BUFFER_SIZE - 1 bytes gives "Internal error: message N is too long".
  static std::string& format(std::string& out, const _imsg_message_table_t* table, int number, ...);
  static std::string& vformat(std::string& out, const _imsg_message_table_t* table, int number, va_list ap);
  // Plain printf formatting into a text, with the same size bound ("Internal error: message -1 is
  // too long" past it).
  static std::string snprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

  // Name of the user the process runs as (effective uid); empty when it has none. There is no domain
  // on this system, so the qualified name is the same.
  static std::string process_user();
  static std::string process_qualified_user();
  // The user's home directory ($HOME when set, else the password entry); empty when unknown.
  static std::string get_user_home();

  // One or more ASCII digits and nothing else.
  static bool is_number(const std::string& text);
  // `empty` tells whether the directory holds anything but "." and "..". Returns 0, or 20050 when the
  // directory cannot be opened or read (`empty` is then unchanged).
  static int is_dir_empty(const std::string& dir, int& empty);
  // True for a path that starts at the view root ("/..."), as opposed to one relative to a directory.
  static bool is_absolute_view_rel_path(const std::string& path);

  // White space is " \t\r\n\f\v".
  static std::string trim(const std::string& text);
  static void trim_in_place(std::string& text);
  // Removes every "\r" and "\n" at the end.
  static void strip_crlf(std::string& text);
  static void strip_leading_separators(std::string& path);
  // Removes separators at the end, but leaves a lone "/" alone.
  static void strip_trailing_pathname_separator(std::string& path);
  // The path up to (not including) its last separator: "/a/b" -> "/a", "/a" -> "", "a" -> "".
  static std::string parent(const std::string& path);
  static bool contains_pname_separator(const std::string& text);
  static void globalize_path(std::string& path);
  // Byte comparison of the globalized forms (lengths included).
  static bool paths_equal(const std::string& a, const std::string& b);
  // Runs of "/" become one, "." components go, a trailing "/" goes; a leading "/" stays.
  static std::string sanitize_path(const std::string& path);
  // Splits at each occurrence of `separator` (text, not a set). Empty pieces between separators stay;
  // the piece after the last separator is kept only when not empty. An empty separator gives the
  // whole text as one piece.
  static void tokenize(const std::string& text, std::vector<std::string>& out, const std::string& separator);
  // Whether `name` exists in `path`'s directory or any ancestor of it, up to the root.
  static bool find_in_ancestors(const std::string& path, const std::string& name);
  // The text between two characters after the first "/" and the last "/" of the URL (the rest of the URL
  // when the last "/" comes earlier): "https://host:8443/x/tavrel" -> "host:8443/x".
  static std::string server_from_url(const std::string& url);

  // <0, 0, >0 as the texts compare without regard to ASCII case.
  static int compare_no_case(const std::string& a, const std::string& b);
  // Replaces every occurrence of `from` (not empty) with `to`, left to right; returns the count.
  static int replace_all(std::string& text, const std::string& from, const std::string& to);
  // The text in double quotes when it holds a blank or a tab, else as it is. Null gives "".
  static std::string quote_if_whitespace(const char* text);

  // Text forms of objects for messages.
  static std::string uuid_to_location(const tbs_uuid_s& uuid);                          // "replicauuid:U"
  static std::string uuid_oid_to_location(const tbs_uuid_s& uuid, const tbs_oid_s& oid);  // "oid:O@replicauuid:U"
  static std::string uuid_dbid_to_location(const tbs_uuid_s& uuid, long dbid);           // "D@replicauuid:U"

  // The view's clock: the time of day, but strictly increasing across calls in the process, so two
  // events never share a time stamp.
  static void get_view_time(struct timeval& tv);
  static struct timeval get_view_time();

  // "keep", "overwrite", "rename" (exactly); false for anything else, `out` unchanged.
  static bool parse_hijack_treatment(const std::string& text, HijackTreatment& out);
  static bool kfsm_is_case_sensitive() { return true; }
  // Dotted IPv4 text to an address. 0, or 1072 for text that is not an address.
  static int set_socket_addr(const char* text, struct in_addr* out);

 private:
  static Tavrel_Mutex g_view_time_mutex;  // guards g_last_view_time (a leaf)
  static struct timeval g_last_view_time;
};
