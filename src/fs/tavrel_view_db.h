// Tavrel_View_db: the view's database as the rest of the agent sees it. The database itself is process-
// wide (src/db/tavrel_engine_db.h: one view per agent process); this class gives its life and its
// view-level rows. The object made by start_db stands for the open database of the storage it names.
//
// start_db enters the storage directory (the database works relative to the working directory), sets up
// the container pool ".s", reads `tavrelDbSync` from tavrel.conf ("deferred", the default, or "commit"; anything else is reported and
// taken as "deferred"), and opens, creates or repairs the database through its state file.
#pragma once

#include <string>

class Tavrel_View_db {
 public:
  explicit Tavrel_View_db(const std::string& storage) : m_storage(storage) {}
  const std::string& storage() const { return m_storage; }

  // 0, or a status of the 1000 range: 1008 when the storage cannot be entered or the database cannot
  // be opened or made; the database then stays closed. *db receives the object in both cases.
  static int start_db(const std::string& storage, const std::string& uuid_text, Tavrel_View_db** db);
  // Closes the database (purified: a clean close leaves it idle) and deletes the object.
  static void close_db(Tavrel_View_db* db);
  // Closes and starts the database again from its state file.
  static int reset_db();
  // The view's generation number, and the view row (made at view creation).
  static int view_gn(unsigned& gn);
  static int create_view_row(const std::string& uuid_text, unsigned gn);

 private:
  std::string m_storage;
};
