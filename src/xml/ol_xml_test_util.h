// Helpers shared by the XML layer's tests (not part of the library).
#pragma once

#include <gtest/gtest.h>
#include <locale.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "xml/ol_xml_doc.h"
#include "xml/ol_xml_elem.h"

namespace ol_test {

// Switches the calling thread's LC_CTYPE (and so its native character set) for a scope.
class ScopedCtype {
 public:
  explicit ScopedCtype(const char* name) {
    loc = newlocale(LC_CTYPE_MASK, name, static_cast<locale_t>(0));
    if (!loc) {
      ADD_FAILURE() << "locale " << name << " is not available";
      return;
    }
    old = uselocale(loc);
  }
  ~ScopedCtype() {
    if (!loc) return;
    uselocale(old);
    freelocale(loc);
  }
  ScopedCtype(const ScopedCtype&) = delete;
  ScopedCtype& operator=(const ScopedCtype&) = delete;

 private:
  locale_t loc = static_cast<locale_t>(0);
  locale_t old = static_cast<locale_t>(0);
};

inline std::string text_of(const OlXmlElem* e) {
  std::ostringstream os;
  os << e;
  return os.str();
}

// Content comparison of two trees: tags, values, attributes (as name-sorted sets, since the
// writer does not keep attribute order) and attached children, recursively.
inline ::testing::AssertionResult same_tree(const OlXmlElem* a, const OlXmlElem* b,
                                            const std::string& where = "/") {
  if (!a || !b) {
    if (a == b) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << where << ": one side is null";
  }
  if (a->get_tag() != b->get_tag())
    return ::testing::AssertionFailure() << where << ": tag " << a->get_tag() << " vs "
                                         << b->get_tag();
  if (a->get_value() != b->get_value())
    return ::testing::AssertionFailure() << where << a->get_tag() << ": value [" << a->get_value()
                                         << "] vs [" << b->get_value() << "]";
  auto attrs = [](const OlXmlElem* e) {
    std::vector<std::pair<std::string, std::string>> v;
    for (const OlXmlAttr* at : e->get_attrs()) v.emplace_back(at->get_name(), at->get_value());
    std::sort(v.begin(), v.end());
    return v;
  };
  if (attrs(a) != attrs(b))
    return ::testing::AssertionFailure() << where << a->get_tag() << ": attributes differ";
  if (a->get_children().size() != b->get_children().size())
    return ::testing::AssertionFailure() << where << a->get_tag() << ": " << a->get_children().size()
                                         << " vs " << b->get_children().size() << " children";
  auto ia = a->get_children().begin();
  auto ib = b->get_children().begin();
  for (; ia != a->get_children().end(); ++ia, ++ib) {
    auto r = same_tree(*ia, *ib, where + a->get_tag() + "/");
    if (!r) return r;
  }
  return ::testing::AssertionSuccess();
}

// Rebuilds a parsed tree through the DOM builder: value as one text node first, then the
// children. Returns the first non-zero builder result.
inline int copy_to_dom(const OlXmlElem* e, OlXmlDoc& out, bool is_root = true) {
  int rc = is_root ? out.create_root_elem(e->get_tag()) : out.push_elem(e->get_tag());
  if (rc) return rc;
  for (const OlXmlAttr* a : e->get_attrs())
    if ((rc = out.add_attr(a->get_name(), a->get_value()))) return rc;
  if (!e->get_value().empty() && (rc = out.set_body(e->get_value()))) return rc;
  for (const OlXmlElem* c : e->get_children())
    if ((rc = copy_to_dom(c, out, false))) return rc;
  return is_root ? 0 : out.pop_elem();
}

}  // namespace ol_test
