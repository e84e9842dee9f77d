#include "xml/ol_xml_doc.h"

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufFormatTarget.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <cstring>

#include "xml/ol_util.h"
#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_util.h"

using namespace xercesc;

namespace {

const char* const kScope = "XML:OlXmlDoc";

// True for the code units of a UTF-16 string that XML 1.0 can carry, with surrogates checked
// as pairs by the caller.
bool xml_char(char32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

// Native text to UTF-16 that the serialiser will accept: invalid native bytes and characters
// outside the XML character range become U+FFFD.
std::u16string to_dom_text(const std::string& text) {
  std::u16string s = OlXmlUtil::native_to_xerces_lossy(text);
  for (std::size_t i = 0; i < s.size(); ++i) {
    char16_t u = s[i];
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF) {
      ++i;  // a valid pair
      continue;
    }
    if ((u >= 0xD800 && u <= 0xDFFF) || !xml_char(u)) s[i] = 0xFFFD;
  }
  return s;
}

void trace_dom_error(const char* func, const XMLCh* msg) {
  if (!OlUtil::tracing()) return;
  std::string text = OlXmlUtil::xerces_to_native_lossy(msg, msg ? XMLString::stringLen(msg) : 0);
  OlUtil::trace(2, kScope, "%s: DOM exception: %s", func, text.c_str());
}

}  // namespace

OlXmlDoc::OlXmlDoc() = default;

OlXmlDoc::~OlXmlDoc() {
  try {
    if (dom_serializer) dom_serializer->release();
  } catch (...) {
  }
  dom_serializer = nullptr;
  try {
    if (dom_document) dom_document->release();
  } catch (...) {
  }
  dom_document = nullptr;
  delete root;
  root = nullptr;
  curr = nullptr;
}

OlXmlElem* OlXmlDoc::push(const std::string& name) {
  if (root && !curr) return nullptr;
  OlXmlElem* e = construct(name, curr);
  curr = e;
  if (!root) root = e;
  return curr;
}

void OlXmlDoc::pop() {
  if (curr) curr = curr->get_parent();
}

OlXmlElem* OlXmlDoc::construct(const std::string& name, OlXmlElem* parent) {
  return new OlXmlElem(this, parent, name, "");
}

int OlXmlDoc::create_root_elem(const std::string& name) {
  if (dom_document) return OL_XML_DOM_EXCEPTION;
  OlXmlUtil::platform_init();
  static const XMLCh kCore[] = u"core";
  dom_impl = DOMImplementationRegistry::getDOMImplementation(kCore);
  if (!dom_impl) return OL_XML_NO_DOM_IMPL;
  std::u16string wide;
  if (!OlXmlUtil::try_native_to_xerces(name, wide)) {
    OlUtil::trace(2, kScope, "create_root_elem: element name has no UTF-16 form");
    return OL_XML_DOM_EXCEPTION;
  }
  try {
    dom_document = dom_impl->createDocument(nullptr, wide.c_str(), nullptr);
    dom_serializer = dom_impl->createLSSerializer();
    dom_serializer->getDomConfig()->setParameter(XMLUni::fgDOMWRTDiscardDefaultContent, true);
    dom_curr = dom_document->getDocumentElement();
    return OL_XML_OK;
  } catch (const DOMException& e) {
    trace_dom_error("create_root_elem", e.getMessage());
  }
  if (dom_serializer) dom_serializer->release();
  dom_serializer = nullptr;
  if (dom_document) dom_document->release();
  dom_document = nullptr;
  dom_curr = nullptr;
  return OL_XML_DOM_EXCEPTION;
}

int OlXmlDoc::push_elem(const std::string& name) {
  if (!dom_document || !dom_curr) return OL_XML_DOM_EXCEPTION;
  std::u16string wide;
  if (!OlXmlUtil::try_native_to_xerces(name, wide)) return OL_XML_DOM_EXCEPTION;
  try {
    DOMElement* e = dom_document->createElement(wide.c_str());
    dom_curr->appendChild(e);
    dom_curr = e;
    return OL_XML_OK;
  } catch (const DOMException& e) {
    trace_dom_error("push_elem", e.getMessage());
    return OL_XML_DOM_EXCEPTION;
  }
}

int OlXmlDoc::pop_elem() {
  if (!dom_curr) return OL_XML_DOM_EXCEPTION;
  dom_curr = dom_curr->getParentNode();
  return OL_XML_OK;
}

int OlXmlDoc::add_attr(const std::string& name, const std::string& value) {
  if (!dom_document || !dom_curr || dom_curr->getNodeType() != DOMNode::ELEMENT_NODE)
    return OL_XML_DOM_EXCEPTION;
  std::u16string wide_name;
  if (!OlXmlUtil::try_native_to_xerces(name, wide_name)) return OL_XML_DOM_EXCEPTION;
  std::u16string wide_value = to_dom_text(value);
  try {
    static_cast<DOMElement*>(dom_curr)->setAttribute(wide_name.c_str(), wide_value.c_str());
    return OL_XML_OK;
  } catch (const DOMException& e) {
    trace_dom_error("add_attr", e.getMessage());
    return OL_XML_DOM_EXCEPTION;
  }
}

int OlXmlDoc::set_body(const std::string& text) {
  if (!dom_document || !dom_curr) return OL_XML_DOM_EXCEPTION;
  std::u16string wide = to_dom_text(text);
  try {
    dom_curr->appendChild(dom_document->createTextNode(wide.c_str()));
    return OL_XML_OK;
  } catch (const DOMException& e) {
    trace_dom_error("set_body", e.getMessage());
    return OL_XML_DOM_EXCEPTION;
  }
}

int OlXmlDoc::add_elem(const std::string& name, const std::string& text) {
  int rc = push_elem(name);
  if (rc != OL_XML_OK) return rc;
  rc = set_body(text);
  if (rc != OL_XML_OK) return rc;
  return pop_elem();
}

int OlXmlDoc::get_string(std::string& out) {
  out.clear();
  if (!dom_document || !dom_serializer) return OL_XML_DOM_EXCEPTION;
  DOMLSOutput* output = nullptr;
  int rc = OL_XML_DOM_EXCEPTION;
  try {
    MemBufFormatTarget target(1023);
    output = dom_impl->createLSOutput();
    output->setByteStream(&target);
    if (dom_serializer->write(dom_document, output)) {
      const char* raw = reinterpret_cast<const char*>(target.getRawBuffer());
      out.assign(raw, strnlen(raw, target.getLen()));
      rc = OL_XML_OK;
    } else {
      OlUtil::trace(2, kScope, "get_string: serialiser reported failure");
    }
  } catch (const DOMException& e) {
    trace_dom_error("get_string", e.getMessage());
  } catch (const XMLException& e) {
    trace_dom_error("get_string", e.getMessage());
  } catch (const OutOfMemoryException&) {
    OlUtil::trace(2, kScope, "get_string: out of memory");
  }
  if (output) output->release();
  if (rc != OL_XML_OK) out.clear();
  return rc;
}
