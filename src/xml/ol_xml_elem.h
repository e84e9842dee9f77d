// OlXmlElem: one element of a parsed document tree, in native text.
//
// Ownership: an element owns its attributes, its attached children (`children`) and the
// children that extract_child() has taken out (`extracted`). Extracted children stay alive
// until their former parent dies, so a pointer handed out by extract_child() stays valid as
// long as the parent does. The document (`doc`) and the parent are not owned.
//
// Consumption: extract_child() moves the first matching child out of `children`; a child can
// therefore be found only once. OlXmlUtil::get_value() and OlXmlUtil::tag_exists() are built on
// it and consume too.
//
// Not thread-safe: an element belongs to the thread that parses or reads its document.
#pragma once

#include <iosfwd>
#include <list>
#include <string>
#include <string_view>

#include "xml/ol_xml_attr.h"

class OlXmlDoc;

class OlXmlElem {
 public:
  using ElemList = std::list<OlXmlElem*>;
  using AttrList = std::list<OlXmlAttr*>;

  // Appends the new element to parent->children when `parent` is not null.
  OlXmlElem(OlXmlDoc* doc, OlXmlElem* parent, std::string tag, std::string value);

  // Appends an attribute (document order is kept; duplicates are not checked).
  virtual void add_attr(const std::string& name, const std::string& value);

  // Frees attributes, children and extracted children. The tree is torn down without
  // recursion, so a tree of any depth can be deleted.
  virtual ~OlXmlElem();

  OlXmlElem(const OlXmlElem&) = delete;
  OlXmlElem& operator=(const OlXmlElem&) = delete;

  bool is_root() const { return parent == nullptr; }
  OlXmlElem* get_parent() const { return parent; }
  OlXmlDoc* get_doc() const { return doc; }
  const ElemList& get_children() const { return children; }
  const ElemList& get_extracted() const { return extracted; }
  const AttrList& get_attrs() const { return attrs; }
  const std::string& get_tag() const { return tag; }

  // The concatenated character data of the element, in order of arrival; text between
  // children is included, whitespace too.
  const std::string& get_value() const { return value; }

  // The value with "&", ">" and "<" replaced by "&amp;", "&gt;" and "&lt;" (ampersand first,
  // so nothing is escaped twice). Quotes are left alone.
  std::string get_encoded_value() const;

  // Appends character data to the value.
  void add_value(std::string_view text);

  // First attribute called `name`, or get_attrs().end().
  AttrList::const_iterator find_attr(std::string_view name) const;
  // Value of the first attribute called `name`, or empty text.
  std::string get_attr(std::string_view name) const;
  bool has_attr(std::string_view name) const;

  // Finds the first attached child whose tag equals `tag` byte for byte, moves it from
  // `children` to `extracted` and returns it; null when there is none. A second call with the
  // same tag finds the next such child.
  OlXmlElem* extract_child(std::string_view tag);

  // Shallow comparison: tags and values equal, and the children and attribute lists hold the
  // same pointers in the same order. Two separately built trees with children or attributes
  // are therefore never equal; compare content explicitly where that is meant.
  bool operator==(const OlXmlElem& other) const;
  bool operator!=(const OlXmlElem& other) const { return !(*this == other); }

 private:
  std::string tag;
  std::string value;
  OlXmlDoc* doc;
  OlXmlElem* parent;
  ElemList children;
  ElemList extracted;
  AttrList attrs;
};

// Text form of an element and its attached children, used for traces and to pass parts of a
// parsed request on:
//   "<" tag, then " " + attribute for each attribute (raw, see OlXmlAttr), then
//   "/>" when there is neither value nor child, otherwise ">" + encoded value (when not
//   empty) + each child in order + "</" tag ">".
// Extracted children are not written. Written without recursion. Null writes nothing.
std::ostream& operator<<(std::ostream& os, const OlXmlElem* elem);
