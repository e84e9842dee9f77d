#include "fs/tavrel_view_db.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/tbs.h"
#include "core/tavrel_config.h"
#include "core/tavrel_trace.h"
#include "db/tavrel_db_container.h"
#include "db/tavrel_db_vns.h"
#include "db/tavrel_engine_db.h"

namespace {

void apply_sync_setting(Tavrel_Trace& trace) {
  tvr_db_sync_mode_t mode = TVR_DB_SYNC_DEFERRED;
  std::string text = Tavrel_Config::get_instance()->find("tavrelDbSync");
  if (!text.empty() && !tvr_db_parse_sync_mode(text, &mode)) {
    trace.writeTrace(TRACE_LEVEL_1, "tavrelDbSync \"%s\" is neither \"deferred\" nor \"commit\"; using \"deferred\"",
                     text.c_str());
    mode = TVR_DB_SYNC_DEFERRED;
  }
  tvr_db_set_sync_mode(mode);
}

}  // namespace

int Tavrel_View_db::start_db(const std::string& storage, const std::string& uuid_text, Tavrel_View_db** db) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db", "start_db");
  *db = new Tavrel_View_db(storage);
  if (chdir(storage.c_str()) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Cannot enter the view storage %s: %s", storage.c_str(), strerror(errno));
    return TBS_ST_INTERNAL;
  }
  apply_sync_setting(trace);
  // The container pool first: a repair's check walks it.
  int st = tavrel_storage_init();
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Cannot set up the container pool of %s: %d", storage.c_str(), st);
    return st;
  }
  int created = 0;
  st = tavrel_db_init(&created);
  trace.writeTrace(TRACE_LEVEL_3, "View %s database: status %d, created %d, open %d", uuid_text.c_str(), st, created,
                   tvr_db_is_open() ? 1 : 0);
  return st;
}

void Tavrel_View_db::close_db(Tavrel_View_db* db) {
  tvr_db_close_db();
  delete db;
}

int Tavrel_View_db::reset_db() { return tavrel_db_reset(); }

int Tavrel_View_db::view_gn(unsigned& gn) {
  uint32_t v = 0;
  int st = tavrel_db_get_vns_view_gn(&v);
  if (st == 0) gn = v;
  return st;
}

int Tavrel_View_db::create_view_row(const std::string& uuid_text, unsigned gn) {
  tbs_uuid_s uuid;
  if (tbs_str_to_uuid(uuid_text, &uuid) != 0) return TBS_ST_BAD_ARG;
  return tavrel_db_create_vns_view(uuid, gn);
}
