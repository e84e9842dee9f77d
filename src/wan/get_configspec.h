// Get_ConfigSpec: the RPC "Tavrel_Orlen::getconfigspec_rpc", the config spec that the server holds for
// one view.
//
// Request: "ViewUuid=<uuid>"; the two-argument form adds "FreezeLoadScopes=1" or "=0" (the
// one-argument form sends nothing, which the server reads as false). A null view identity cannot be
// sent: run() gives 30010 and sends nothing.
// Reply: up to four text parts, each kept verbatim as one text with its line ends (a part that does
// not come leaves its text empty; a repeated part replaces the earlier one), then Status:
//   CspecElementRules     get_elem_rules()
//   CspecTkmElementRules  get_tkm_elem_rules()      (views of type "tkm")
//   CspecLoadRules        get_load_rules()          one "load <path>" per line
//   CspecFrzLoadScopes    get_frz_load_scopes()     only when frozen scopes were asked for
// A text part may be as large as the command's part bound (set_max_part_body, default 64 MiB).
//
// Use: Get_ConfigSpec cmd(view_uuid); cmd.run(); int st = cmd.get_status_code();
//      cmd.check_rpc_status(log, message, st); then the accessors.
#pragma once

#include <string>

#include "base/tbs.h"
#include "wan/rclient_abstract_cmd.h"

class Get_ConfigSpec : public RClient_Abstract_Cmd {
 public:
  explicit Get_ConfigSpec(const tbs_uuid_s& view_uuid);
  Get_ConfigSpec(const tbs_uuid_s& view_uuid, bool freeze_load_scopes);

  int marshal_request(RClient_Request_Args* args) override;
  int unmarshal_response() override;

  const tbs_uuid_s& get_view_uuid() const { return view_uuid; }
  const std::string& get_elem_rules() const { return elem_rules; }
  const std::string& get_tkm_elem_rules() const { return tkm_elem_rules; }
  const std::string& get_load_rules() const { return load_rules; }
  const std::string& get_frz_load_scopes() const { return frz_load_scopes; }

 protected:
  int unmarshal_part(const std::string& content_id) override;

 private:
  tbs_uuid_s view_uuid;
  bool send_freeze;         // the two-argument form
  bool freeze_load_scopes;
  std::string elem_rules;
  std::string tkm_elem_rules;
  std::string load_rules;
  std::string frz_load_scopes;
  int m_reply_error = 0;    // a part that could not be taken; stands for the rest of the transfer
};
