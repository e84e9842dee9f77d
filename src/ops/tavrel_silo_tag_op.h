// Tavrel_SiloTagOp: base of the operations about one SILO, named by the request child "silo-tag"
// (MountSilo and the mount-table queries IsSiloMounted, IsSiloPublic, IsProjectSilo).
//
// Request: <Op version="1" tx-id="..."><silo-tag>/proj</silo-tag></Op>. The tag is taken as it
// stands (no trimming, no path rewriting). Refused with 20021 and message 7:
//   * no envelope attributes (see parse_validate_request);
//   * no "silo-tag" child, or an empty one (trace "No silo_tag");
//   * a tag holding "=", a carriage return or a line feed: the mount table file keeps one SILO per
//     line with "=" between its fields, so such a tag could never be entered in it.
//
// Threads: an operation belongs to the one thread that runs it.
#pragma once

#include <string>

#include "ops/tavrel_abstract_op.h"

class OlXmlElem;

class Tavrel_SiloTagOp : public Tavrel_AbstractOp {
 public:
  static constexpr const char* SILO_TAG = "silo-tag";

  Tavrel_SiloTagOp(const std::string& location, OlXmlDoc* doc) : Tavrel_AbstractOp(location, doc) {}
  // Built in code for `tag`, without a request document.
  Tavrel_SiloTagOp(const std::string& request_name, const std::string& location, const std::string& tag)
      : Tavrel_AbstractOp(request_name, location), m_silo_tag(tag) {}

  const std::string& get_silo_tag() const { return m_silo_tag; }

  // Whether the mount table can hold `tag`: not empty, and no "=", CR or LF in it.
  static bool table_can_hold(const std::string& tag);

 protected:
  // Checks the envelope (tx-id required) and reads the tag. Returns the "silo-tag" element (owned by
  // the request document), or null with the status and message set.
  OlXmlElem* parse_silo_tag();
  // The envelope, and when the status is 0 one element `name` holding "true" or "false".
  void get_boolean_response(const char* name, bool value, std::string& response);

  std::string m_silo_tag;
};
