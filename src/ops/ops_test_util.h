// Helpers shared by the operation framework's tests (not part of the library).
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "core/tavrel_status.h"
#include "ops/tavrel_abstract_op.h"
#include "ops/tavrel_connect.h"
#include "ops/tavrel_disconnect.h"
#include "ops/tavrel_endview.h"
#include "ops/tavrel_get_mounted_silo_list.h"
#include "ops/tavrel_is_project_silo.h"
#include "ops/tavrel_is_silo_mounted.h"
#include "ops/tavrel_is_silo_public.h"
#include "ops/tavrel_is_update_in_progress.h"
#include "ops/tavrel_mkview.h"
#include "ops/tavrel_mountsilo.h"
#include "ops/tavrel_startview.h"
#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_parser.h"
#include "xml/ol_xml_test_util.h"

namespace ops_test {

// An answer of the agent, read back with the agent's own parser (in a UTF-8 locale, so that U+FFFD
// and other non-ASCII text read back).
struct Reply {
  bool parsed = false;
  std::string root;
  std::map<std::string, std::string> attrs;
  bool has_message = false;
  std::string message;
  std::vector<std::string> other_children;  // tags of children other than status-message

  bool has_attr(const std::string& name) const { return attrs.count(name) != 0; }
  std::string attr(const std::string& name) const {
    auto it = attrs.find(name);
    return it == attrs.end() ? std::string() : it->second;
  }
  int status() const { return has_attr("status-code") ? std::stoi(attr("status-code")) : -1; }
};

inline Reply read_reply(const std::string& text) {
  ol_test::ScopedCtype utf8("C.UTF-8");
  Reply r;
  OlXmlParser parser;
  OlXmlParser::Result result;
  std::unique_ptr<OlXmlDoc> doc(parser.parse(text, result));
  if (!doc || !doc->get_root()) return r;
  r.parsed = true;
  OlXmlElem* root = doc->get_root();
  r.root = root->get_tag();
  for (const OlXmlAttr* a : root->get_attrs()) r.attrs[a->get_name()] = a->get_value();
  for (const OlXmlElem* c : root->get_children()) {
    if (c->get_tag() == "status-message" && !r.has_message) {
      r.has_message = true;
      r.message = c->get_value();
    } else {
      r.other_children.push_back(c->get_tag());
    }
  }
  return r;
}

// Builds, runs and answers one request through a factory; the answer text, or "" when no operation
// came back (then *status says why).
template <class Factory>
std::string run_request(Factory factory, const std::string& request, const std::string& location, int* status,
                        int* op_status = nullptr) {
  std::unique_ptr<Tavrel_AbstractOp> op(factory(request, location, status));
  if (!op) return "";
  op->process_request();
  std::string response;
  op->get_response(response);
  if (op_status) *op_status = op->get_status();
  return response;
}

// The operations of this folder as a table, installed for every test of the program (the agent installs
// its whole table at start; that table lives above this library).
template <class Op>
Tavrel_AbstractOp* make_op(const std::string& location, OlXmlDoc* doc) {
  return Tavrel_AbstractOp::make_with_doc<Op>(location, doc);
}
inline const Tavrel_Op_Entry kViewOps[] = {
    {"Connect", "1", &make_op<Tavrel_Connect>},
    {"Disconnect", "1", &make_op<Tavrel_Disconnect>},
    {"EndView", "1", &make_op<Tavrel_Endview>},
    {"GetMountedSiloList", "1", &make_op<Tavrel_GetMountedSiloList>},
    {"IsSiloMounted", "1", &make_op<Tavrel_IsSiloMounted>},
    {"IsProjectSilo", "1", &make_op<Tavrel_IsProjectSilo>},
    {"IsUpdateInProgress", "1", &make_op<Tavrel_IsUpdateInProgress>},
    {"IsSiloPublic", "1", &make_op<Tavrel_IsSiloPublic>},
    {"MkView", "1", &make_op<Tavrel_Mkview>},
    {"MountSilo", "1", &make_op<Tavrel_Mountsilo>},
    {"StartView", "1", &make_op<Tavrel_Startview>},
};
inline const bool kViewOpsInstalled =
    (Tavrel_AbstractOp::set_op_table(kViewOps, sizeof(kViewOps) / sizeof(kViewOps[0])), true);

}  // namespace ops_test
