// Tavrel_Server: the one set of WAN server parameters of the process (URL, credentials, proxy,
// groups) and the online flag.
//
// The `server` element of MkView, StartView and Connect:
//   <server online="true|false"><server-url/><username/><domain/><password/><proxy-username/>
//   <proxy-password/><f-proxy-host/><f-proxy-port/><ol-primary-group/><ol-groups/></server>
//
// Thread safety: g_session_lock serialises the requests that change the online state (Connect,
// Disconnect); it is an outer lock (rank SERVER_SESSION), held across their Login and Logout and the
// wait for background work, so it is never taken under another lock. The fields are guarded by
// g_fields_lock (a leaf), and readers take copies through the accessors.
// Passwords never reach a trace: they show as "<empty>" or "<not empty>".
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "base/tavrel_mutex.h"
#include "core/tavrel_online.h"

class OlXmlElem;

class Tavrel_Server {
 public:
  static constexpr const char* SERVER = "server";
  static constexpr const char* ONLINE = "online";
  static constexpr const char* SERVER_URL = "server-url";
  static constexpr const char* SERVER_USERNAME = "username";
  static constexpr const char* SERVER_DOMAIN = "domain";
  static constexpr const char* SERVER_PASSWORD = "password";
  static constexpr const char* PROXY_USERNAME = "proxy-username";
  static constexpr const char* PROXY_PASSWORD = "proxy-password";
  static constexpr const char* PROXY_HOST = "f-proxy-host";
  static constexpr const char* PROXY_PORT = "f-proxy-port";
  static constexpr const char* OL_PRIMARY_GROUP = "ol-primary-group";
  static constexpr const char* OL_GROUPS = "ol-groups";
  static constexpr const char* SERVER_OFFLINE = "offline";
  static constexpr const char* TRUESTRING = "true";
  static constexpr const char* FALSESTRING = "false";
  static constexpr const char* URL_CONTEXT = "tavrel";

  struct Fields {
    std::string url, username, domain, password, proxy_username, proxy_password, proxy_host, proxy_port,
        primary_group, groups;
  };

  // Takes the child `server` out of `elem` and fills the fields. With `read_url` the child
  // `server-url` sets the URL (then customised); with `read_online` the attribute `online` sets the
  // online flag ("true", "false" or empty; anything else is 20022). Credentials are always replaced.
  // Returns 0 or 20022.
  static int parse_server_info(OlXmlElem* elem, int read_url, int read_online);
  // Trims the URL, makes it end in "/" and appends "tavrel". An empty URL stays empty.
  static void customize_url();
  // Offline: always true. Online: URL, user and password set; proxy host and port both set or both
  // empty; proxy user and password likewise.
  static bool is_valid();

  static Fields get_fields();
  static void set_fields(const Fields& f);
  static std::string get_url();
  // The online flag itself lives in core (core/tavrel_online.h), where every layer reads it.
  static bool is_online() { return tavrel_is_online(); }
  static void set_online(bool on) { tavrel_set_online(on); }

  static Tavrel_Mutex g_session_lock;

 private:
  static Tavrel_Mutex g_fields_lock;
  static Fields g_fields;
};
