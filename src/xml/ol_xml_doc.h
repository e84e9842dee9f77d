// OlXmlDoc: an XML document in two roles.
//
// Parse side: the tree of OlXmlElem that the parser builds through push()/pop(). `root` owns
// the tree; `curr` is the element that building stands in. construct() is the factory for new
// elements and may be overridden to build subclasses.
//
// Build side: a DOM document made with create_root_elem() and grown with push_elem(),
// pop_elem(), add_attr(), set_body() and add_elem(), then serialised with get_string() into
// the agent's output form: the XML declaration
//   <?xml version="1.0" encoding="UTF-8" standalone="no" ?>
// directly followed by the compact document (no pretty-printing, no newline). Text and
// attribute values are escaped by the serialiser; attribute order is the library's.
//
// Build-side results: OL_XML_OK, OL_XML_DOM_EXCEPTION (the library refused the step, e.g. an
// invalid element name, or the call came before create_root_elem or after popping past the
// root), OL_XML_NO_DOM_IMPL. Native text that has no UTF-16 form or characters XML cannot
// carry (control characters, unpaired surrogates) are written as U+FFFD in text and attribute
// values so that an answer always goes out; such a name is refused (OL_XML_DOM_EXCEPTION).
// No build-side call throws a library exception.
//
// Not thread-safe: a document belongs to one thread at a time.
#pragma once

#include <xercesc/util/XercesDefs.hpp>

#include <string>

#include "base/tbs.h"

XERCES_CPP_NAMESPACE_BEGIN
class DOMDocument;
class DOMImplementation;
class DOMNode;
class DOMLSSerializer;
XERCES_CPP_NAMESPACE_END

class OlXmlElem;

enum : int {
  OL_XML_OK = 0,
  OL_XML_DOM_EXCEPTION = TBS_ST_FAILURE,
  OL_XML_NO_DOM_IMPL = TBS_ST_NO_ROOM,
};

class OlXmlDoc {
 public:
  OlXmlDoc();
  // Releases the serialiser, then the DOM document, then deletes the tree, even when
  // releasing a library object fails.
  virtual ~OlXmlDoc();

  OlXmlDoc(const OlXmlDoc&) = delete;
  OlXmlDoc& operator=(const OlXmlDoc&) = delete;

  // Opens a new element below `curr` (construct(name, curr)), makes it `curr`, and makes it
  // `root` when there is none yet. Returns the new element. When a root exists and building
  // has already left it (curr is null), nothing is made and null is returned: a document has
  // one root.
  virtual OlXmlElem* push(const std::string& name);
  // Closes the current element: `curr` becomes its parent. No-op when `curr` is null.
  virtual void pop();
  // Makes a new OlXmlElem(this, parent, name, "").
  virtual OlXmlElem* construct(const std::string& name, OlXmlElem* parent);

  OlXmlElem* get_root() { return root; }
  const OlXmlElem* get_root() const { return root; }
  OlXmlElem* get_curr() { return curr; }
  const OlXmlElem* get_curr() const { return curr; }
  bool is_empty() const { return root == nullptr; }

  // Build side. create_root_elem() can be called once per document; a second call gives
  // OL_XML_DOM_EXCEPTION and changes nothing.
  int create_root_elem(const std::string& name);
  // Appends a new element to the current DOM element and makes it current.
  int push_elem(const std::string& name);
  // The current DOM element becomes its parent node.
  int pop_elem();
  // Sets an attribute on the current DOM element.
  int add_attr(const std::string& name, const std::string& value);
  // Appends a text node to the current DOM element.
  int set_body(const std::string& text);
  // push_elem(name), set_body(text), pop_elem(), stopping at the first failure (the current
  // element then stays where that step left it).
  int add_elem(const std::string& name, const std::string& text);
  // Serialises the DOM document into `out` (UTF-8). On failure `out` is cleared.
  int get_string(std::string& out);

 private:
  OlXmlElem* root = nullptr;
  OlXmlElem* curr = nullptr;
  xercesc::DOMDocument* dom_document = nullptr;
  xercesc::DOMImplementation* dom_impl = nullptr;
  xercesc::DOMNode* dom_curr = nullptr;
  xercesc::DOMLSSerializer* dom_serializer = nullptr;
};
