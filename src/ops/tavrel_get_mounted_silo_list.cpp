#include "ops/tavrel_get_mounted_silo_list.h"

#include <vector>

#include "core/tavrel_config.h"
#include "core/tavrel_trace.h"

void Tavrel_GetMountedSiloList::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_GetMountedSiloList", "process_request");
  if (parse_validate_request(1)) m_status = 0;
}

void Tavrel_GetMountedSiloList::get_response(std::string& response) {
  Tavrel_Trace trace(TAVREL, "Tavrel_GetMountedSiloList", "get_response");
  OlXmlDoc doc;
  if (create_response_root(doc) == 0 && m_status == 0) {
    const std::vector<SILO_mount_info> silos = Tavrel_Config::get_instance()->get_mounted_silos();
    int rc = doc.push_elem(MOUNTED_SILO_LIST);
    for (size_t i = 0; rc == 0 && i < silos.size(); i++) {
      trace.writeTrace(TRACE_LEVEL_4, "silo %s", silos[i].silo_tag.c_str());
      rc = doc.add_elem(SILO_TAG, silos[i].silo_tag);
    }
    if (rc == 0) doc.pop_elem();
  }
  finish_response(doc, response);
}
