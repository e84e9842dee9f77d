#include "ops/tavrel_abstract_op.h"

#include <atomic>

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"

namespace {
std::atomic<Tavrel_AbstractOp::Factory> g_factory{nullptr};
}

Tavrel_AbstractOp::Tavrel_AbstractOp(const std::string& request_name, const std::string& view_location)
    : m_view_location(view_location), m_request_name(request_name) {}

Tavrel_AbstractOp::~Tavrel_AbstractOp() = default;

void Tavrel_AbstractOp::set_request_factory(Factory factory) { g_factory.store(factory); }

Tavrel_AbstractOp* Tavrel_AbstractOp::create_xml_request_handler(const std::string& request,
                                                                 const std::string& view_location, int* status) {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "create_xml_request_handler");
  Factory f = g_factory.load();
  if (!f) {
    *status = TAVREL_ST_UNRECOGNIZED;
    return nullptr;
  }
  *status = 0;
  return f(request, view_location, status);
}

std::string Tavrel_AbstractOp::xml_escape(const std::string& text, bool attribute) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += attribute ? "&quot;" : "\"";
        break;
      case '\n':
        out += attribute ? "&#10;" : "\n";
        break;
      case '\r':
        out += "&#13;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string Tavrel_AbstractOp::make_status_response(const std::string& root, const std::string& txid, int status,
                                                    const std::string& message) {
  std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><" + root;
  if (!txid.empty()) out += " tx-id=\"" + xml_escape(txid, true) + "\"";
  out += " status-code=\"" + std::to_string(status) + "\"";
  if (message.empty()) return out + "/>";
  return out + "><status-message>" + xml_escape(message, false) + "</status-message></" + root + ">";
}

void Tavrel_AbstractOp::get_error_response(int status, const std::string& request, std::string& response) {
  response = make_status_response("Unknown", "", status, request);
}
