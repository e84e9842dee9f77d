#include "ops/tavrel_mkview.h"

#include "base/fileutl.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "ops/tavrel_configspec.h"
#include "ops/tavrel_connect.h"
#include "ops/tavrel_getconfigspec.h"
#include "core/tavrel_msg_table.h"
#include "ops/tavrel_server.h"
#include "ops/tavrel_tag.h"
#include "xml/ol_xml_util.h"

void Tavrel_Mkview::parse_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Mkview", "parse_request");
  OlXmlElem* root = parse_validate_request(0);
  if (!root) return;
  const char* location = m_view_location.c_str();
  struct Field {
    const char* tag;
    std::string* value;
    const char* missing;
    int message;
  };
  // In the order the request carries them; preserve-silo-modified-time sits between the cache
  // directory and the server tag and is optional.
  const Field before[] = {{VIEW_UUID, &m_uuid, "View uuid not found", TVR_LIB_NO_VIEW_UUID},
                          {VIEW_TYPE, &m_view_type, "View type not found", TVR_LIB_NO_VIEW_TYPE},
                          {CLTXT_CACHE_DIR, &m_cache_dir, "No cache directory", TVR_LIB_NO_CLTXT_DIR}};
  const Field after[] = {{SERVER_TAG, &m_server_tag, "No server tag", TVR_LIB_NO_SERVER_TAG},
                         {TEXT_MODE, &m_text_mode, "No text mode", TVR_LIB_NO_TEXT_MODE}};
  auto read = [&](const Field& f) {
    *f.value = OlXmlUtil::get_value(root, f.tag);
    if (!f.value->empty()) return true;
    trace.writeTrace(TRACE_LEVEL_2, "%s", f.missing);
    fail(TAVREL_ST_MALFORMED, f.message, location);
    return false;
  };
  for (const Field& f : before)
    if (!read(f)) return;
  m_preserve_time = OlXmlUtil::get_value(root, PRESERVE_TIME) == Tavrel_Tag::TRUE_STRING ? 1 : 0;
  for (const Field& f : after)
    if (!read(f)) return;
  int st = Tavrel_Server::parse_server_info(root, 1, 1);
  if (st == 0 && !Tavrel_Server::is_valid()) st = TAVREL_ST_SERVER_INFO;
  if (st != 0) fail(st, TVR_LIB_BAD_SERVER_INFO, location);
}

void Tavrel_Mkview::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Mkview", "process_request");
  const std::string& location = m_view_location;
  trace.writeTrace(TRACE_LEVEL_4, "Checking if storage exists - %s", location.c_str());
  if (fileutl_exists(location) && !Tavrel_View::is_abandoned_creation(location)) {
    m_status = TAVREL_ST_STORAGE_EXISTS;
    m_status_message.clear();
    append_message(TVR_LIB_VIEW_EXISTS, location.c_str());
    return;
  }
  trace.writeTrace(TRACE_LEVEL_4, "Parsing request");
  parse_request();
  if (m_status != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Parse failed with %d", m_status);
    trace.writeTrace(TRACE_LEVEL_2, "uuid = %s", m_uuid.c_str());
    trace.writeTrace(TRACE_LEVEL_2, "servertag = %s", m_server_tag.c_str());
    trace.writeTrace(TRACE_LEVEL_2, "textmode = %s", m_text_mode.c_str());
    trace.writeTrace(TRACE_LEVEL_2, "viewtype = %s", m_view_type.c_str());
    trace.writeTrace(TRACE_LEVEL_2, "cachedir = %s", m_cache_dir.c_str());
    return;
  }

  Tavrel_View* view = Tavrel_View::get_view_from_list(m_uuid, m_server_tag, m_text_mode, m_view_type, m_cache_dir,
                                                      location, m_preserve_time);
  if (!view) {
    m_status = TAVREL_ST_NO_OBJECT;
    append_message(TVR_LIB_OUT_OF_MEMORY);
    return;
  }
  trace.writeTrace(TRACE_LEVEL_4, "Creating view");
  m_status = view->create();
  trace.writeTrace(TRACE_LEVEL_4, "Status from create view = %d", m_status);
  m_status_message += view->get_status_message();
  trace.writeTrace(TRACE_LEVEL_4, "Status message from create view = %s", view->get_status_message().c_str());
  if (m_status != 0) {
    view->cleanup_storage();
    delete view;
    return;
  }
  if (!install_view(view)) m_kept_view.reset(view);  // no process view to hand it to (tests)

  if (!Tavrel_Server::is_online()) return;
  m_status = Tavrel_Connect::connect_to_server(m_status_message, location);
  trace.writeTrace(TRACE_LEVEL_4, "Status from Login run = %d", m_status);
  if (m_status != 0) {
    view->cleanup();  // registered with the module by create(): a later MkView may use the tag again
    view->cleanup_storage();
    return;
  }
  // The new view starts with the rules the server holds for it.
  Tavrel_ConfigSpec cspec(location);
  int st = Tavrel_GetConfigSpec::get_server_cspec(view, cspec, m_status_message);
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Fetching the config spec failed with %d", st);
    m_status = TAVREL_ST_NO_OBJECT;
    view->cleanup();
    view->cleanup_storage();
  }
}
