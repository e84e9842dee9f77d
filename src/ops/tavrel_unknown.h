// Tavrel_Unknown: the answer to a request the agent does not recognise. The factory builds it for a
// well-formed document whose root names no operation (with the document), and for text that is not
// well-formed XML (without one); its request name is "XMLError" in both cases.
//
// Answer: root "XMLError", the tx-id (the root's attribute, or the text-search guess without a
// document), status-code 20020 always (whatever the status field holds), and status-message: message
// 22 with the request name with a document, message 7 with the view location without one.
// Status field: 20021 when there is no document, no root, or no tx-id; otherwise 0.
#pragma once

#include <string>

#include "ops/tavrel_abstract_op.h"

class Tavrel_Unknown : public Tavrel_AbstractOp {
 public:
  // Takes ownership of `doc` (null for text that did not parse); `request` is the raw text, searched
  // for a tx-id when there is no document.
  Tavrel_Unknown(const std::string& location, OlXmlDoc* doc, const std::string& request);

  void process_request() override;
  void get_response(std::string& response) override;

 private:
  void parse_request();
};
