#include "ops/tavrel_configspec.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/fileutl.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view_storage.h"
#include "core/tavrel_util.h"

int Tavrel_ConfigSpec::get_rules(const std::string& file, std::string& out) {
  Tavrel_Trace trace(TAVREL, "Tavrel_ConfigSpec", "get_rules");
  const std::string path = m_storage + "/" + file;
  out.clear();
  struct stat st;
  if (stat(path.c_str(), &st) != 0 && errno == ENOENT) {
    trace.writeTrace(TRACE_LEVEL_4, "%s does not exist", path.c_str());
    return TAVREL_ST_NOT_FOUND;
  }
  std::string text;
  if (Tavrel_View_Storage::read_regular_file(path, &text, MAX_RULE_FILE) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Could not open file : %s", path.c_str());
    return TAVREL_ST_FAILURE;
  }
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    out += Tavrel_Util::trim(text.substr(start, end - start));
    out += "\r\n";
    start = end + 1;
  }
  return TAVREL_ST_OK;
}

int Tavrel_ConfigSpec::save_rules(const std::string& file, const std::string& text) {
  Tavrel_Trace trace(TAVREL, "Tavrel_ConfigSpec", "save_rules");
  const std::string path = m_storage + "/" + file;
  trace.writeTrace(TRACE_LEVEL_4, "Writing [%s] to %s", text.c_str(), path.c_str());
  if (fileutl_write_atomic(path, text, 0600) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Could not open file : %s", path.c_str());
    return TAVREL_ST_WRITE_FILE;
  }
  return TAVREL_ST_OK;
}
