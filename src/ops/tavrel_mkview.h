// Tavrel_Mkview: the request "MkView", the first request of an agent that makes a new view.
//
// Request (tx-id optional):
//   <MkView version="1"><view-uuid/><view-type/><cltxt-cache-dir/><preserve-silo-modified-time/>
//     <server-tag/><text-mode/><server online="...">...</server></MkView>
// Every child but preserve-silo-modified-time is required (missing or empty: 20021 with the message
// naming it); the server element must be there and, online, complete (20022, message 4).
//
// Steps: refuse an existing storage (20018, message 6; a storage left half-made by a creation that
// died counts as absent), parse, create the view's storage (Tavrel_View::create), install the view,
// then online: log in and fetch the view's config spec, whose element rules are cached in the
// storage. A failure after the storage was made removes it again, so a failed MkView leaves nothing
// behind and can simply be repeated. The answer is the envelope.
#pragma once

#include <memory>
#include <string>

#include "core/tavrel_view.h"
#include "ops/tavrel_abstract_op.h"

class Tavrel_Mkview : public Tavrel_AbstractOp {
 public:
  static constexpr const char* VIEW_UUID = "view-uuid";
  static constexpr const char* VIEW_TYPE = "view-type";
  static constexpr const char* CLTXT_CACHE_DIR = "cltxt-cache-dir";
  static constexpr const char* PRESERVE_TIME = "preserve-silo-modified-time";
  static constexpr const char* SERVER_TAG = "server-tag";
  static constexpr const char* TEXT_MODE = "text-mode";

  Tavrel_Mkview(const std::string& location, OlXmlDoc* doc) : Tavrel_AbstractOp(location, doc) {}

  void process_request() override;
  void get_response(std::string& response) override { get_envelope_response(response); }

 private:
  void parse_request();

  std::string m_uuid;
  std::string m_view_type;
  std::string m_cache_dir;
  std::string m_server_tag;
  std::string m_text_mode;
  int m_preserve_time = 0;
  std::unique_ptr<Tavrel_View> m_kept_view;
};
