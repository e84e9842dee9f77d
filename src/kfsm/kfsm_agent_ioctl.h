// KFSM_Agent_Ioctl: questions to the kernel module that are not about one view: the module's root
// directory (under which every view appears as <root>/<view tag>) and the extended naming suffix.
#pragma once

#include <string>

#include "kfsm/libkfsm.h"

class KFSM_Agent_Ioctl {
 public:
  // The module's root path into `out`. 0, 1001 when the module cannot be reached, or the module's
  // status; `out` changes only on success.
  static int get_kfsm_root(kfsm_viewroot_type type, std::string& out);
  // The extended naming suffix (empty when the module has none). Same statuses.
  static int get_extended_naming_suffix(kfsm_viewroot_type type, std::string& out);

 private:
  static int ask(kfsm_viewroot_type type, uint32_t cmd, uint32_t infolen, uint32_t capacity, std::string& out);
};
