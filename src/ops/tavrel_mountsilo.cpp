#include "ops/tavrel_mountsilo.h"

#include <sys/select.h>

#include <cstring>
#include <vector>

#include "core/tavrel_log.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "kfsm/tavrel_kfsm_ioctl.h"
#include "core/tavrel_msg_table.h"
#include "ops/tavrel_server.h"
#include "ops/tavrel_tag.h"
#include "proto/kfsm_status.h"
#include "wan/get_siloinfo.h"
#include "xml/ol_xml_elem.h"

tbs_oid_s Tavrel_Mountsilo::as_oid(const tbs_uuid_s& u) {
  tbs_oid_s o;
  memcpy(o.bytes, u.bytes, sizeof o.bytes);
  return o;
}

void Tavrel_Mountsilo::pause_seconds(int seconds) {
  struct timeval tv = {seconds, 0};
  select(0, nullptr, nullptr, nullptr, &tv);
}

void Tavrel_Mountsilo::parse_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Mountsilo", "parse_request");
  OlXmlElem* tag = parse_silo_tag();
  if (!tag) return;
  m_wanted = tag->get_attr(MOUNT_STATE) == Tavrel_Tag::TRUE_STRING;
  trace.writeTrace(TRACE_LEVEL_4, "%s wanted %s", m_silo_tag.c_str(), m_wanted ? "mounted" : "unmounted");
}

void Tavrel_Mountsilo::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Mountsilo", "process_request");
  parse_request();
  if (m_status == 0) process_silo();
}

int Tavrel_Mountsilo::process_silo() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Mountsilo", "process_silo");
  trace.writeTrace(TRACE_LEVEL_4, "Getting mount state for %s", m_silo_tag.c_str());
  const bool mounted = Tavrel_Config::get_instance()->get_mount_state(m_silo_tag);
  if (m_wanted && !mounted) {
    m_status = mount_silo();
  } else if (!m_wanted && mounted) {
    m_status = unmount_silo();
  } else {
    m_status = TAVREL_ST_MOUNT_CONFLICT;
    assign_message(mounted ? TVR_LIB_ALREADY_MOUNTED : TVR_LIB_NOT_MOUNTED, m_silo_tag.c_str());
  }
  trace.writeTrace(TRACE_LEVEL_4, "Status %d", m_status);
  return m_status;
}

int Tavrel_Mountsilo::mount_silo() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Mountsilo", "mount_silo");
  // Without a session the server cannot be asked; the command would only fail later and slower.
  if (!Tavrel_Server::is_online()) {
    trace.writeTrace(TRACE_LEVEL_2, "Offline: no SILO information for %s", m_silo_tag.c_str());
    append_message(TVR_LIB_MOUNT_FAILED, m_silo_tag.c_str());
    return TAVREL_ST_SILO_INFO;
  }
  Get_SILOInfo cmd(m_silo_tag);
  cmd.run();
  int rpc_status = cmd.get_status_code();
  std::string text;
  int st = cmd.check_rpc_status(Tavrel_Log::get_instance(m_view_location), text, rpc_status);
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Get_SILOInfo for %s failed: %d", m_silo_tag.c_str(), st);
    m_status_message += text;
    if (!m_status_message.empty() && m_status_message.back() != '\n') m_status_message += "\n";
    append_message(TVR_LIB_MOUNT_FAILED, m_silo_tag.c_str());
    return TAVREL_ST_SILO_INFO;
  }
  SILO_mount_info info = cmd.to_mount_info();
  info.silo_tag = m_silo_tag;
  info.mount_state = 1;
  return do_mount(info);  // a refusal of the module is its status alone (20037)
}

int Tavrel_Mountsilo::do_mount(const SILO_mount_info& info) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Mountsilo", "do_mount");
  if (!table_can_hold(info.silo_tag)) {
    // Mounting it would leave the module with a SILO that the table can never record or unmount.
    trace.writeTrace(TRACE_LEVEL_1, "Refusing silo tag [%s]", info.silo_tag.c_str());
    return TAVREL_ST_INTERNAL;
  }
  if (get_view() != 0) {
    trace.writeTrace(TRACE_LEVEL_1, " get_view failed ");
    return TAVREL_ST_NO_VIEW_INFO;
  }
  int st = Tavrel_KFSM_Ioctl(m_view).mount_silo(info.silo_tag, info.storage, as_oid(info.replica_uuid),
                                                as_oid(info.family_uuid));
  trace.writeTrace(TRACE_LEVEL_4, "Status from mount_silo = %d", st);
  if (st == TAVREL_ST_ALREADY_MOUNTED) st = 0;
  if (st != 0) return TAVREL_ST_KERNEL_MOUNT;
  SILO_mount_info entry = info;
  entry.mount_state = 1;
  return Tavrel_Config::get_instance()->set_mount_state(entry);
}

int Tavrel_Mountsilo::unmount_silo() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Mountsilo", "unmount_silo");
  SILO_mount_info info = Tavrel_Config::get_instance()->get_mount_info(m_silo_tag);
  if (tbs_uuid_is_null(info.replica_uuid)) {
    trace.writeTrace(TRACE_LEVEL_1, "replica uuid not found");
    return TAVREL_ST_SILO_NOT_IN_TABLE;
  }
  if (int st = get_view(); st != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "no ioctl available");
    return st;
  }
  int error = 0;
  int st = Tavrel_KFSM_Ioctl(m_view).umount_silo(m_silo_tag, as_oid(info.replica_uuid), &error);
  trace.writeTrace(TRACE_LEVEL_4, "Status from umount_silo = %d (%d)", st, error);
  if (st == TAVREL_ST_NOT_MOUNTED) {
    trace.writeTrace(TRACE_LEVEL_3, "SILO not mounted, setting status to OK");
    st = 0;
  }
  if (st != 0) {
    append_message(TVR_LIB_UNMOUNT_FAILED, m_silo_tag.c_str(), tbs_strerror(error));
    return TAVREL_ST_KERNEL_MOUNT;
  }
  info.mount_state = 0;
  return Tavrel_Config::get_instance()->set_mount_state(info);
}

int Tavrel_Mountsilo::remount_entry(SILO_mount_info& entry) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Mountsilo", "remount_entry");
  Tavrel_Mountsilo op(std::string(), entry.silo_tag, true);
  int st = op.do_mount(entry);
  trace.writeTrace(TRACE_LEVEL_3, "Remount %s: %d", entry.silo_tag.c_str(), st);
  return st;
}

void Tavrel_Mountsilo::install_mount_hook() { Tavrel_Config::set_mount_hook(&Tavrel_Mountsilo::remount_entry); }

