// Set_ConfigSpec: the RPC "Tavrel_Orlen::setconfigspec_rpc", which gives a view new element rules and
// load rules on the server.
//
// Request, in this order: "ViewUuid", "NumElemRules=<n>", n x "ElemRule=<rule>", "NumLoadRules=<m>",
// m x "LoadRule=<rule>", "ForceUpdate=1|0" (1: proceed in spite of the server's warnings). Each rule is
// one line of text; a line end at its very end travels as "%0A". A rule with a line feed before other
// text cannot be sent (the argument coding would garble it), nor can a null view identity: run() then
// gives 30010 and sends nothing.
// Reply: a part "LoadRuleSiloTag" (item SiloTag) per SILO that the load rules need, a part "ViewInfo"
// with the numeric items CurrentOperationGN and ViewGN, then Status.
//
// Guarantees: after a Status of 0 with WAN status 0, get_current_operation_gn() and get_view_gn() come
// from a ViewInfo part, and get_silo_tags() lists each tag once, in the order of the reply. Otherwise
// the command fails with 30009 and a message: a ViewInfo item missing or not a number, an empty
// SiloTag, more than MAX_SILO_TAGS tags, or Status 0 with no ViewInfo part.
//
// Use: Set_ConfigSpec cmd(view_uuid, elem_rules, load_rules, force); cmd.run();
//      int st = cmd.get_status_code(); cmd.check_rpc_status(log, message, st); then the accessors.
#pragma once

#include <string>
#include <vector>

#include "base/tbs.h"
#include "wan/rclient_abstract_cmd.h"

class Set_ConfigSpec : public RClient_Abstract_Cmd {
 public:
  static constexpr size_t MAX_SILO_TAGS = 4096;

  Set_ConfigSpec(const tbs_uuid_s& view_uuid, const std::vector<std::string>& element_rules,
                 const std::vector<std::string>& load_rules, bool force_update);

  int marshal_request(RClient_Request_Args* args) override;
  int unmarshal_response() override;

  const tbs_uuid_s& get_view_uuid() const { return view_uuid; }
  const std::vector<std::string>& get_element_rules() const { return element_rules; }
  const std::vector<std::string>& get_load_rules() const { return load_rules; }
  bool get_force_update() const { return force_update; }
  // Tags of the SILOs that the new load rules need (to be mounted).
  const std::vector<std::string>& get_silo_tags() const { return silo_tags; }
  // The view's new current operation generation number.
  unsigned int get_current_operation_gn() const { return current_operation_gn; }
  // The last generation number that the server counts as committed for the view.
  unsigned int get_view_gn() const { return view_gn; }
  bool has_view_info() const { return have_view_info; }

  // Whether `rule` can travel as one argument: no line feed before other text.
  static bool sendable_rule(const std::string& rule);

 protected:
  int unmarshal_part(const std::string& content_id) override;

 private:
  [[noreturn]] void malformed(const std::string& text);

  tbs_uuid_s view_uuid;
  std::vector<std::string> element_rules;
  std::vector<std::string> load_rules;
  bool force_update;
  std::vector<std::string> silo_tags;
  unsigned int current_operation_gn = 0;
  unsigned int view_gn = 0;
  bool have_view_info = false;
  int m_reply_error = 0;     // a fault of the reply; stands for the rest of the transfer
  std::string m_reply_text;  // its message
};
