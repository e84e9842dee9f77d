// Tavrel_Mountsilo: the request "MountSilo", which mounts a SILO in the view (kernel module and mount
// table) or unmounts it; and the mounting that the start of a view (remount of ".mounted_silos") and
// the config spec operations share.
//
// Request: <MountSilo version="1" tx-id="..."><silo-tag mount-state="true">TAG</silo-tag></MountSilo>.
// "true" (exactly) asks for a mount, any other value or none for an unmount. Refusals of the request
// as in Tavrel_SiloTagOp (20021, message 7). Answer: the envelope.
//
// Statuses of process_silo:
//   0      done; also when the module had the SILO mounted already (20046) or not mounted (20047)
//   20032  nothing to do: already mounted (message 12) or not mounted (message 13) in the table
//   20035  the server could not say what the SILO is, or the view is offline (message 18)
//   20036  the table entry has no replica
//   20037  the module refused the mount (no message), or the unmount (message 75 with the reason)
//   20043  the table file could not be written; the table in memory and the module have changed
//   20019  no view (message 14)
// The table changes only after the module did what was asked, so a failed mount or unmount leaves
// the table as it was.
//
// Threads: an operation object belongs to one thread. Two operations on one tag may pass the table
// test together; the second then meets 20046 or 20047 in the module, and both count as success.
#pragma once

#include <string>

#include "core/tavrel_config.h"
#include "ops/tavrel_silo_tag_op.h"

class Tavrel_View;

class Tavrel_Mountsilo : public Tavrel_SiloTagOp {
 public:
  static constexpr const char* MOUNT_STATE = "mount-state";
  static constexpr const char* REQUEST_NAME = "MountSilo";

  Tavrel_Mountsilo(const std::string& location, OlXmlDoc* doc) : Tavrel_SiloTagOp(location, doc) {}
  // Built in code: bring `tag` into the state `wanted` (true mounted) with process_silo().
  Tavrel_Mountsilo(const std::string& location, const std::string& tag, bool wanted)
      : Tavrel_SiloTagOp(REQUEST_NAME, location, tag), m_wanted(wanted) {}

  void process_request() override;
  void get_response(std::string& response) override { get_envelope_response(response); }

  bool get_wanted_state() const { return m_wanted; }

  // Mounts or unmounts as the wanted state and the table say. Sets and returns the status.
  int process_silo();
  // Asks the server what the SILO is, then do_mount.
  int mount_silo();
  int unmount_silo();
  // Mounts `info` in the module and enters it in the table (mount state 1). 0, 20019, 20031 (a tag
  // the table cannot hold: nothing is mounted), 20037, or set_mount_state's status.
  int do_mount(const SILO_mount_info& info);

  // The mount hook of Tavrel_Config::remount_silos: do_mount of one line of ".mounted_silos".
  static int remount_entry(SILO_mount_info& entry);
  // Installs remount_entry as Tavrel_Config's mount hook (once at process start).
  static void install_mount_hook();

  // A replica or family identity as the module's records carry it: the same 16 bytes.
  static tbs_oid_s as_oid(const tbs_uuid_s& uuid);
  // Waits `seconds` (select, so that it sleeps through nothing but its own time-out).
  static void pause_seconds(int seconds);

 private:
  void parse_request();

  bool m_wanted = false;
};
