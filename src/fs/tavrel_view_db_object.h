// Tavrel_View_db_object and its family: the SILO-side rows of the view database (elements, versions,
// directory versions, symbolic links, the root directory) presented as short-lived value objects, so that
// the resolver, the name service and the operations never touch the record layer for SILO data.
//
// An object is built on the stack (or by get_object) from a replica uuid and a namespace dbid, looks up
// its SILO's row on demand (load_data) and is thrown away after the call. It caches nothing but the SILO
// row's dbid, so it never goes stale in a way that matters: every operation reads or writes the database
// afresh.
//
// Transactions: every operation runs in a transaction of its own (tvr_db_in_trans), and a failed one
// leaves the database as it was. An operation must therefore not be called inside a transaction that the
// calling thread already holds. Objects are not shared between threads; the database serialises itself
// (tavrel_engine_mutex), and the resolver keeps writers of one directory apart (its OID locks).
//
// Results: operations that answer a status give 0, 20001 (TAVREL_ST_FAILURE) when the object was not
// loaded ("Caller didn't load data.") or the database failed, 20002 when a row is not there; predicates
// give false on any failure. Database statuses are mapped with Tavrel_Util::tbs_to_tavrel_status.
#pragma once

#include <cstdint>
#include <memory>

#include "base/tbs.h"
#include "proto/tavrel_records.h"

class Tavrel_View_db_object {
 public:
  Tavrel_View_db_object(const tbs_uuid_s& replica, uint32_t dbid) : m_replica(replica), m_dbid(dbid) {}
  virtual ~Tavrel_View_db_object() = default;

  // The object's attributes as the view shows them: attributes of the row, link count = number of
  // names, the element's OID, the check-out mark of the element, and for a link its text in `path`.
  virtual int get_rvstat(tavrel_vstat& vstat);
  // The namespace dbid this object stands for (0 when it has none yet). 0, or 20001 when none.
  virtual int get_dbid(unsigned& dbid);
  // Clears the validated mark of every name of the object (an element: of all its versions, which also
  // go stale), so that the next lookup asks the server again.
  virtual int invalidate_obj();
  // Finds the SILO's row: 0, 20002 for a replica the database does not know, 20001 on failure.
  virtual int load_data();

  // The factory: the object of `dbid` (or of `oid`) in the SILO of `replica`, of the class its stored
  // kind asks for (2, 5 an element; 3, 6, 8 a version; 7 a link), loaded; *mtype receives the kind.
  // Null for an unknown SILO, an unknown object, or any other kind.
  static std::unique_ptr<Tavrel_View_db_object> get_object(const tbs_uuid_s& replica, uint32_t dbid,
                                                           silo_mtype_t* mtype);
  static std::unique_ptr<Tavrel_View_db_object> get_object(const tbs_uuid_s& replica, const tbs_oid_s& oid,
                                                           silo_mtype_t* mtype);

  // The class for kind `mtype`, not loaded; null (with the trace "unexpected mtype %d, getting type of
  // %s", `what` naming the object) for a kind that has none.
  static std::unique_ptr<Tavrel_View_db_object> for_kind(const tbs_uuid_s& replica, uint32_t dbid,
                                                         silo_mtype_t mtype, const char* what);

  const tbs_uuid_s& replica() const { return m_replica; }
  uint32_t silo_dbid() const { return m_silo_dbid; }
  uint32_t dbid() const { return m_dbid; }

 protected:
  // True when load_data has found the SILO and the object has a dbid; otherwise traces "Caller didn't
  // load data." in the scope of `function`.
  bool loaded(const char* function) const;
  // load_data when the SILO row is not known yet; traces "Can't load silo object." on failure.
  bool ensure_loaded(const char* function);
  // get_rvstat's reading of object `dbid` of SILO `silo`, in the caller's transaction.
  static int read_rvstat(uint32_t silo, uint32_t dbid, tavrel_vstat* out);

  tbs_uuid_s m_replica;
  uint32_t m_silo_dbid = 0;  // the DB_SILO row's dbid; 0 until loaded
  uint32_t m_dbid = 0;
};
