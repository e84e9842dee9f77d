#include "ops/tavrel_is_update_in_progress.h"

#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "ops/tavrel_tag.h"

void Tavrel_IsUpdateInProgress::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_IsUpdateInProgress", "process_request");
  if (parse_validate_request(1)) m_status = 0;
}

void Tavrel_IsUpdateInProgress::get_response(std::string& response) {
  Tavrel_Trace trace(TAVREL, "Tavrel_IsUpdateInProgress", "get_response");
  OlXmlDoc doc;
  if (create_response_root(doc) == 0 && m_status == 0)
    doc.add_elem(IS_UPDATE_IN_PROGRESS,
                 Tavrel_View::update_in_progress() ? Tavrel_Tag::TRUE_STRING : Tavrel_Tag::FALSE_STRING);
  finish_response(doc, response);
}
