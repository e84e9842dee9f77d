#include "xml/ol_xml_elem.h"

#include <ostream>
#include <utility>
#include <vector>

#include "xml/ol_str_util.h"

OlXmlElem::OlXmlElem(OlXmlDoc* d, OlXmlElem* p, std::string t, std::string v)
    : tag(std::move(t)), value(std::move(v)), doc(d), parent(p) {
  if (parent) parent->children.push_back(this);
}

void OlXmlElem::add_attr(const std::string& name, const std::string& val) {
  attrs.push_back(new OlXmlAttr(name, val));
}

OlXmlElem::~OlXmlElem() {
  for (OlXmlAttr* a : attrs) delete a;
  attrs.clear();
  // Tear the subtree down with an explicit stack: each element's lists are emptied before it
  // is deleted, so no destructor below this one ever recurses.
  std::vector<OlXmlElem*> pending;
  pending.insert(pending.end(), children.begin(), children.end());
  pending.insert(pending.end(), extracted.begin(), extracted.end());
  children.clear();
  extracted.clear();
  while (!pending.empty()) {
    OlXmlElem* e = pending.back();
    pending.pop_back();
    pending.insert(pending.end(), e->children.begin(), e->children.end());
    pending.insert(pending.end(), e->extracted.begin(), e->extracted.end());
    e->children.clear();
    e->extracted.clear();
    delete e;
  }
}

std::string OlXmlElem::get_encoded_value() const {
  std::string out = value;
  OlStrUtil::replace_all(out, "&", "&amp;");
  OlStrUtil::replace_all(out, ">", "&gt;");
  OlStrUtil::replace_all(out, "<", "&lt;");
  return out;
}

void OlXmlElem::add_value(std::string_view text) { value.append(text); }

OlXmlElem::AttrList::const_iterator OlXmlElem::find_attr(std::string_view name) const {
  for (auto it = attrs.begin(); it != attrs.end(); ++it) {
    if ((*it)->get_name() == name) return it;
  }
  return attrs.end();
}

std::string OlXmlElem::get_attr(std::string_view name) const {
  auto it = find_attr(name);
  return it == attrs.end() ? std::string() : (*it)->get_value();
}

bool OlXmlElem::has_attr(std::string_view name) const { return find_attr(name) != attrs.end(); }

OlXmlElem* OlXmlElem::extract_child(std::string_view t) {
  for (auto it = children.begin(); it != children.end(); ++it) {
    if ((*it)->tag == t) {
      OlXmlElem* found = *it;
      children.erase(it);
      extracted.push_back(found);
      return found;
    }
  }
  return nullptr;
}

bool OlXmlElem::operator==(const OlXmlElem& other) const {
  return tag == other.tag && value == other.value && children == other.children &&
         attrs == other.attrs;
}

std::ostream& operator<<(std::ostream& os, const OlXmlElem* elem) {
  if (!elem) return os;
  // Each frame is an element whose start tag has been written and the position of the next
  // child to write.
  struct Frame {
    const OlXmlElem* e;
    OlXmlElem::ElemList::const_iterator next;
  };
  std::vector<Frame> stack;
  // Writes the start of `e`; returns true when `e` needs an end tag (and so a frame).
  auto open = [&os](const OlXmlElem* e) {
    os << '<' << e->get_tag();
    for (const OlXmlAttr* a : e->get_attrs()) os << ' ' << a;
    if (e->get_value().empty() && e->get_children().empty()) {
      os << "/>";
      return false;
    }
    os << '>';
    if (!e->get_value().empty()) os << e->get_encoded_value();
    return true;
  };
  if (open(elem)) stack.push_back({elem, elem->get_children().begin()});
  while (!stack.empty()) {
    Frame& f = stack.back();
    if (f.next == f.e->get_children().end()) {
      os << "</" << f.e->get_tag() << '>';
      stack.pop_back();
      continue;
    }
    const OlXmlElem* child = *f.next;
    ++f.next;
    if (open(child)) stack.push_back({child, child->get_children().begin()});
  }
  return os;
}
