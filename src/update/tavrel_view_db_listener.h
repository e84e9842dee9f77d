// Tavrel_View_db_listener: applies a whole update stream to the view database, event by event, while it
// arrives (View_Update calls it on the update thread, from the transfer's write callback).
//
//   begin_operation  the view's old GN is read; the stream's GN becomes the new one
//   begin_silo       the SILO's part of the default scope begins (load when the view holds nothing of
//                    the SILO yet, else update)
//   begin_scope      the automatic scope, or a load-rule scope the database must hold (message 51),
//                    begins: a load when the scope is empty, else an update
//   update_object    the object is stored under its name in its parent (found by element OID, message
//                    71), or as the SILO's root; a hijacked file of that name is kept, removed or renamed
//                    as the request says; the log gets its line; the name service and the kernel forget
//                    the name and the element. A directory loaded by two load rules is refused (61).
//   unload_object    the name is marked for removal at the end of its scope (58); a hijack of it is
//                    treated; the log gets its line
//   end_scope        remembered; scopes are closed only at end_operation, since the removals of one
//                    scope may concern names that a later scope of the stream brings back
//   end_silo         the SILO's part of the default scope ends
//   end_operation    every finished scope is closed, the name service and the kernel forget the view,
//                    load scopes found gone are deleted, the load rules' top directories are looked up,
//                    and only then the new GN is stored (also as the view's current GN); last, hijacks
//                    whose elements left the view are swept
//
// Every call first asks Tavrel_View::should_stop_update(): when the view is ending it refuses (the
// stream is drained) and the update is marked cancelled. A failure sets the update's status and text,
// writes an "Error:" line, and refuses. Nothing is rolled back: what was applied stays, the scopes'
// GNs and the view's GN tell how far the update went, and the next update (with resume or without)
// sends the same view GN so that the server sends again what this one did not finish.
//
// Threads: one listener belongs to one update thread; the database calls take their own transactions
// and the name-service calls the cache mutex, one call at a time. Kernel requests go on meanwhile.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/tbs.h"
#include "proto/tavrel_records.h"
#include "wan/rclient_update_listener.h"

class Tavrel_KFSM_Ioctl;
class Tavrel_Update;

// A strict weak order on OIDs (byte order).
struct map_oid_compare {
  bool operator()(const tbs_oid_s& a, const tbs_oid_s& b) const { return a < b; }
};

class Tavrel_View_db_listener : public RClient_Update_Listener {
 public:
  explicit Tavrel_View_db_listener(Tavrel_Update* update);
  ~Tavrel_View_db_listener() override;

  bool begin_operation(unsigned int gn) override;
  bool begin_scope(tavrel_scope const& scope) override;
  bool begin_silo(tbs_uuid_s const& replica_uuid, tbs_oid_s const& family_oid) override;
  bool update_object(tbs_uuid_s const& replica_uuid, tbs_oid_s const& parent_oid, std::string const& path,
                     std::string const& prev_version, std::string const& curr_version, tavrel_vstat const& obj,
                     tavrel_vstat const& elem) override;
  bool unload_object(tbs_uuid_s const& replica_uuid, tbs_oid_s const& parent_oid, std::string const& path,
                     tbs_oid_s const& object_oid) override;
  bool end_scope() override;
  bool end_silo() override;
  bool end_operation() override;

  // Before the stream: the load scopes whose path no longer resolves in their SILO are kept to be
  // deleted at the end. False (with the update's status set) when the scopes cannot be read.
  virtual bool prepare_operation();

  static bool is_auto_scope(const tavrel_scope& scope);
  unsigned get_old_gn() const { return old_gn; }
  unsigned get_new_gn() const { return new_gn; }
  // Objects stored and names unloaded so far.
  unsigned long get_applied() const { return m_applied; }

 protected:
  struct doomed_scope {
    tavrel_scope scope;
  };

  // Sets the update's status (unless one is set) and appends catalogue message `number`; writes the
  // text as an "Error:" line. Returns false.
  bool fail(int status, int number, ...);
  bool fail_text(int status, const std::string& text);
  // Asks whether the update must stop; if so the update is marked cancelled.
  bool stopping();
  // The kernel channel of the view (opened at begin_operation; null before).
  Tavrel_KFSM_Ioctl* ioctl() const { return m_ioctl.get(); }
  // The name service and the kernel forget the name `leaf` in the directory element `parent_oid`, and
  // the objects `oid`/`oid2` (null OIDs are skipped). Failures are traced only: the whole view is
  // forgotten again at the end of the update.
  void flush(const tbs_uuid_s& replica, const tbs_oid_s& oid, const tbs_oid_s& oid2, const tbs_oid_s& parent_oid,
             const std::string& leaf, const std::string& path);
  // Stores `obj` as the SILO root (parent null).
  bool update_root(const tbs_uuid_s& replica, const std::string& path, const std::string& prev_version,
                   const std::string& curr_version, const tavrel_vstat& obj, const tavrel_vstat& elem);
  // Stores `obj` under `leaf` in directory version `parent_ver` in the running scope; *ver_dbid.
  int store(const tbs_uuid_s& replica, const std::string& leaf, uint32_t parent_ver, const tavrel_vstat& obj,
            const tavrel_vstat& elem, uint32_t* ver_dbid, bool* unchanged /* may be null */, std::string& text);
  // The version of element `object_oid` that the view shows (the object itself when it is no element).
  static tbs_oid_s shown_object(const tbs_uuid_s& replica, const tbs_oid_s& object_oid);
  bool process_finished_scope(const tavrel_scope& scope, bool load);
  bool cleanup_deleted_load_rules();
  bool get_lr_metadata();
  static void split_path(const std::string& path, std::string& dir, std::string& leaf);

  Tavrel_Update* update;
  std::unique_ptr<Tavrel_KFSM_Ioctl> m_ioctl;
  tbs_uuid_s current_silo{};
  tbs_oid_s family_oid{};
  tavrel_scope current_scope{};
  bool in_scope = false;
  bool is_load = false;       // the running scope was empty at its begin
  bool silo_is_load = false;  // the SILO had nothing in the default scope at its begin
  unsigned old_gn = 0;
  unsigned new_gn = 0;
  std::map<tbs_oid_s, std::string, map_oid_compare> scope_names;  // directory element -> load rule
  std::vector<std::pair<tavrel_scope, bool>> finished_scopes;
  std::vector<doomed_scope> doomed;
  std::vector<tbs_uuid_s> m_silos;  // SILOs of the stream, for the hijack sweep
  bool m_has_hijacks = true;        // whether any name of the view was hijacked at the begin
  unsigned long m_applied = 0;
  uint32_t m_last_ver_dbid = 0;     // the object the last update_object stored (0: none)
};
