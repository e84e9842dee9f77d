#include "core/tavrel_view.h"

#include <sys/stat.h>

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"

Tavrel_View::Tavrel_View(const std::string& storage_path) : m_storage_path(storage_path) {}

Tavrel_View::~Tavrel_View() = default;

Tavrel_View* Tavrel_View::get_view_from_stg(const std::string& storage_path) { return new Tavrel_View(storage_path); }

int Tavrel_View::get_view_info() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "get_view_info");
  struct stat st;
  if (stat(get_metadata_path().c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return TAVREL_ST_NO_VIEW_INFO;
  return 0;
}

int Tavrel_View::cleanup() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "cleanup");
  trace.writeTrace(TRACE_LEVEL_4, "No view tag found to unregister");
  return 1001;
}
