#include "wan/http_client_post.h"

#include "core/tavrel_trace.h"
#include "wan/rclient_messages.h"

Http_Client_Post::Http_Client_Post(const std::string& u, RClient_Session* s, const std::string& ks,
                                   const std::string& ks_pw, void* write_data, std::vector<std::string>* resp_headers)
    : Http_Client_Base(1, u, s, ks, ks_pw, write_data, resp_headers) {}

Http_Client_Post::~Http_Client_Post() {
  // Freeing the form detaches it from the handle, which goes back to the pool afterwards.
  if (form) curl_mime_free(form);
}

int Http_Client_Post::add_request_field(const std::string& name, const std::string& value) {
  parts.push_back({name, value});
  return 0;
}

int Http_Client_Post::set_additional_args() {
  Tavrel_Trace trace(RCLIENT, "Http_Client_Post", "set_additional_args");
  if (form) curl_mime_free(form);
  form = curl ? curl_mime_init(curl) : nullptr;
  bool ok = form != nullptr;
  for (const request_part& p : parts) {
    if (!ok) break;
    curl_mimepart* part = curl_mime_addpart(form);
    ok = part && curl_mime_name(part, p.name.c_str()) == CURLE_OK &&
         curl_mime_data(part, p.value.data(), p.value.size()) == CURLE_OK;
  }
  if (ok) ok = curl_easy_setopt(curl, CURLOPT_MIMEPOST, form) == CURLE_OK;
  if (!ok) {
    error_message = rclient_msg(RCLIENT_MSG_FORM);
    trace.writeTrace(TRACE_LEVEL_2, "%s", error_message.c_str());
    return RCLIENT_ST_TRANSPORT;
  }
  return 0;
}
