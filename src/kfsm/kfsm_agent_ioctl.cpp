#include "kfsm/kfsm_agent_ioctl.h"

#include <cerrno>
#include <vector>

#include "core/tavrel_trace.h"

int KFSM_Agent_Ioctl::ask(kfsm_viewroot_type type, uint32_t cmd, uint32_t infolen, uint32_t capacity,
                          std::string& out) {
  Tavrel_Trace trace(TAVREL_KFSM, "KFSM_Agent_Ioctl", cmd == KFSM_CMD_ROOT ? "get_kfsm_root" : "get_extended_naming_suffix");
  int status = 0;
  int handle = kfsm_view_root_open_sil_type(type, &status, 1);
  if (!handle) {
    trace.writeTrace(TRACE_LEVEL_2, "kfsm_view_root_open_sil_type failed: %d", status);
    return TBS_ST_FAILURE;
  }
  std::vector<char> buf(capacity, '\0');
  kfsm_strbuf info[2] = {{buf.data(), 0, capacity}, {nullptr, 0, 0}};
  kfsm_strbuf zero{nullptr, 0, 0};
  int err;
  do {
    err = 0;
    status = 0;
    kfsm_cmd(handle, &err, &status, cmd, 0, &zero, &zero, info, infolen);
  } while (err == EINTR);
  if (err == 0 && status == 0) out.assign(buf.data());
  else if (err != 0) trace.writeTrace(TRACE_LEVEL_2, "kfsm_cmd %u failed: errno %d", cmd, err);
  kfsm_view_root_close_type(1, handle);
  trace.writeTrace(TRACE_LEVEL_3, "Returning %d", status);
  return err != 0 && status == 0 ? TBS_ST_FAILURE : status;
}

int KFSM_Agent_Ioctl::get_kfsm_root(kfsm_viewroot_type type, std::string& out) {
  return ask(type, KFSM_CMD_ROOT, KFSM_ROOT_INFO_IMAGE, KFSM_ROOT_BUF, out);
}

int KFSM_Agent_Ioctl::get_extended_naming_suffix(kfsm_viewroot_type type, std::string& out) {
  return ask(type, KFSM_CMD_SUFFIX, KFSM_SUFFIX_INFO_IMAGE, KFSM_SUFFIX_BUF, out);
}
