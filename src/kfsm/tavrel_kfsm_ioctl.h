// Tavrel_KFSM_Ioctl: the downcalls of the agent to the kernel module. It holds only the view and is
// made where a command is needed, used and deleted; any thread may use its own object at any time,
// also while the LPC threads are blocked (each command opens and closes its own handle).
//
// keep_open() changes that for a stream of commands from one thread, such as the invalidations of an
// update (one or two per applied element): the object then opens one handle at its first command and
// keeps it until it is deleted, and asks the module for the view root once. Its invalidations are
// posted (libkfsm.h): sent in batches without waiting for their answers, at most KFSM_MAX_POSTED at a
// time, so they cost the sender no wait per command (drain() sends what waits in a batch); they give 0
// when sent, and an answer that reports a failure later is traced and counted in posted_failures().
// Any other command, drain() and the destructor first wait for every outstanding answer. A handle whose transport failed is closed and
// the command is sent once more on a new one, so a module daemon that restarted is found again (the
// answers outstanding on the old handle count as failures); only idempotent commands (invalidations,
// stat) should go through a kept handle. A kept object is used by one thread at a time.
//
// send_from_own_thread() goes one step further for a caller whose own time is what counts (the thread
// that applies an update): invalidations are queued, and a sender thread of this object's own posts
// them on the kept handle, in the order they were queued, while the caller goes on. An invalidation
// then gives 0 once queued; one that fails later, the view root included, is traced and counted in
// posted_failures(). The first invalidation queued wakes the sender, which waits up to 2 ms for
// KFSM_POST_BATCH (64) to gather (the caller wakes it again when they have), posts all that are queued,
// sends what the last post left waiting in the handle and takes the answers that have come; so an
// invalidation waits about 2 ms at most, plus the posting of those queued before it, and the caller
// pays at most two wake-ups per batch. At most 4096 wait in the queue (the caller waits for room beyond
// that). drain(), any other command and the destructor first wait until the sender has sent
// everything queued and collected every answer; the other command then runs on the caller's thread,
// on the same handle. When no thread can be had, the caller sends them itself, as with keep_open().
// The sender's mutex (rank LEAF: the caller holds no LEAF lock when it queues or waits) guards the
// queue and the sender's state; the handle, the root and the counts are the sender's while it works
// and the caller's once drain() has returned, never both at once.
//
// Statuses are of the 1000 range (tbs_status_t), except mount_silo and umount_silo, which give the
// agent's own statuses: 0, 20046 (already mounted), 20047 (not mounted), or tbs_to_tavrel_status of
// the module's answer.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "base/tbs.h"
#include "proto/kfsm_records.h"

class Tavrel_View;

// Operation codes of the changes that lead to an object invalidation.
typedef int silo_op_t;

class Tavrel_KFSM_Ioctl {
 public:
  explicit Tavrel_KFSM_Ioctl(Tavrel_View* view);
  virtual ~Tavrel_KFSM_Ioctl();
  Tavrel_KFSM_Ioctl(const Tavrel_KFSM_Ioctl&) = delete;
  Tavrel_KFSM_Ioctl& operator=(const Tavrel_KFSM_Ioctl&) = delete;

  // From now on one handle serves every command of this object (see above).
  void keep_open() { m_keep = true; }
  // From now on invalidations are queued for a sender thread of this object (see above); implies
  // keep_open().
  void send_from_own_thread();
  // Waits for the answers of every posted command.
  void drain();
  // Posted commands whose answers reported a failure, or were lost with a broken handle.
  int posted_failures() const { return m_posted_failures; }

  // The single way of running a block: opens a handle, runs the block (again while the call is
  // interrupted), closes the handle, all while process exit is held off. A failure of the call gives
  // tbs_errno2status of its errno, otherwise the block's status.
  int kfsm_ioctl(kfsmcmd_block* block);

  // Registers the view (tag, storage path, host, uuid) with the module, and records the tag for the
  // LPC threads. 1062 when the request handler cannot be had.
  int register_view();
  int unregister_view();

  // Mounts SILO `mount_point` (its tag, "/name") of storage `storage` in this view.
  int mount_silo(const std::string& mount_point, const std::string& storage, tbs_oid_s replica, tbs_oid_s family);
  // Unmounts it; the module's raw status goes to *status (may be null).
  int umount_silo(const std::string& mount_point, tbs_oid_s replica, int* status);

  // Invalidations of the module's name and attribute caches. 1011 when the view root is unknown.
  int view_inval_view();
  int view_inval_name(const tbs_uuid_s* silo, const tbs_oid_s* dir, const char* name);
  int view_inval_obj(const tbs_uuid_s* silo, const tbs_oid_s* obj, silo_op_t op);
  // The kind of object invalidation for an operation code.
  static uint32_t inval_kind(silo_op_t op);

  // Stat of a path through the module: the attributes and identifiers of the object the path names.
  // view_get_xstat follows a final symbolic link, view_lget_xstat does not. Output pointers may be
  // null. The module's status, or the call's failure.
  int view_get_xstat(const std::string& path, view_vstat* vstat, tbs_oid_s* oid, tbs_uuid_s* uuid, int* flag,
                     tbs_uuid_s* uuid2);
  int view_lget_xstat(const std::string& path, view_vstat* vstat, tbs_oid_s* oid, tbs_uuid_s* uuid, int* flag,
                      tbs_uuid_s* uuid2);

  // Whether names compare exactly on this system: true.
  static bool kfsm_is_case_sensitive() { return true; }

 private:
  int get_xstat(const std::string& path, view_vstat* vstat, tbs_oid_s* oid, tbs_uuid_s* uuid, int* flag, int follow,
                tbs_uuid_s* uuid2);
  int inval(kfsm_inval_info* info);
  // One command on the kept handle, opened when there is none; a broken transport gets one more try on
  // a new handle.
  int kept_command(kfsmcmd_block* block);
  // Takes the oldest outstanding answer (waiting for it when `wait`); false when there was none to take.
  bool collect_one(bool wait);
  void close_kept();
  // Waits for every outstanding answer on the kept handle (the sender's work, or the caller's).
  void drain_kept();
  // Queues an invalidation for the sender; false when the caller is the sender itself.
  bool queue_inval(const kfsm_inval_info& info);

  class Sender;
  Tavrel_View* m_view;
  bool m_keep = false;
  int m_handle = 0;    // the kept handle, 0 while none is open
  std::atomic<int> m_posted_failures{0};
  std::unique_ptr<Sender> m_sender;
  std::string m_root;  // the view root, once asked with a kept handle
};
