// Curl_Util: the process-wide set-up of libcurl and the agent's TLS policy, applied to every
// transfer handle.
//
// TLS policy (init_common_secopt):
//   - peer verification on (CURLOPT_SSL_VERIFYPEER 1) unless ORLEN_NOVERIFY_PEER is in the environment,
//     host-name verification on (CURLOPT_SSL_VERIFYHOST 2) unless ORLEN_NOVERIFY_HOST is; presence
//     counts, not the value (an empty value also turns the check off);
//   - trust: only the CA file "cacert.pem" of the host configuration directory (the client's key
//     store, set later by Http_Client_Base::init, replaces it); the library's built-in CA directory is
//     switched off, so no other certificate authority is trusted; the file is read for every new
//     connection (no CA cache), so a changed key store counts at once;
//   - protocol floor TLS 1.2; ORLEN_ENABLE_SSLV3 relaxes it to the TLS library's own floor (SSL 3 is
//     never offered otherwise);
//   - HTTP and HTTPS only.
//
// Time limits of every transfer (Transfer_Limits), from tavrel.conf:
//   tavrelWanConnectTimeoutMs  connection set-up, TCP and TLS (default 10000)
//   tavrelWanLowSpeedTimeMs    a transfer that moves fewer than tavrelWanLowSpeedLimit bytes per second
//   tavrelWanLowSpeedLimit     over a whole window of this many ms is aborted (defaults 30000 ms, 1 B/s;
//                              a limit of 0 turns the check off)
//   tavrelWanRequestTimeoutMs  the whole request, connection to last byte (default 3600000, one hour;
//                              0: no overall limit); it ends a reply that trickles just above the floor
// A value that is not a number, or out of range, counts as the default.
//
// The host configuration directory is $TAVREL_HOST_CONFIG_DIR when set and not empty, else
// "/etc/tavrel"; it is worked out once per process.
//
// Thread safety: init_common and the CA path are guarded by their own mutexes; the rest is stateless.
#pragma once

#include <curl/curl.h>

#include <string>

class Curl_Util {
 public:
  static constexpr const char* CACERT_FILE = "cacert.pem";
  static constexpr const char* DEFAULT_HOST_CONFIG_DIR = "/etc/tavrel";
  static constexpr const char* ENV_NOVERIFY_PEER = "ORLEN_NOVERIFY_PEER";
  static constexpr const char* ENV_NOVERIFY_HOST = "ORLEN_NOVERIFY_HOST";
  static constexpr const char* ENV_ENABLE_SSLV3 = "ORLEN_ENABLE_SSLV3";
  static constexpr const char* ENV_HOST_CONFIG_DIR = "TAVREL_HOST_CONFIG_DIR";

  static constexpr const char* CONF_CONNECT_TIMEOUT_MS = "tavrelWanConnectTimeoutMs";
  static constexpr const char* CONF_LOW_SPEED_TIME_MS = "tavrelWanLowSpeedTimeMs";
  static constexpr const char* CONF_LOW_SPEED_LIMIT = "tavrelWanLowSpeedLimit";
  static constexpr const char* CONF_REQUEST_TIMEOUT_MS = "tavrelWanRequestTimeoutMs";
  static constexpr long DEFAULT_CONNECT_TIMEOUT_MS = 10000;
  static constexpr long DEFAULT_LOW_SPEED_TIME_MS = 30000;
  static constexpr long DEFAULT_LOW_SPEED_LIMIT = 1;
  static constexpr long DEFAULT_REQUEST_TIMEOUT_MS = 3600L * 1000;
  static constexpr long MAX_TIME_MS = 24L * 3600 * 1000;
  static constexpr long MAX_LOW_SPEED_LIMIT = 1L << 30;

  struct Transfer_Limits {
    long connect_timeout_ms = DEFAULT_CONNECT_TIMEOUT_MS;
    long low_speed_time_ms = DEFAULT_LOW_SPEED_TIME_MS;
    long low_speed_limit = DEFAULT_LOW_SPEED_LIMIT;  // bytes per second; 0: no check
    long request_timeout_ms = DEFAULT_REQUEST_TIMEOUT_MS;  // 0: no overall limit
  };

  // Once per process: curl_global_init with all features. The TLS library (OpenSSL 1.1 and later)
  // does its own locking, so no thread callbacks are installed.
  static void init_common();
  // Applies the TLS policy above to a handle; returns the first libcurl failure, or CURLE_OK.
  static CURLcode init_common_secopt(CURL* curl, bool set_ciphers);
  // Releases libcurl's global state (curl_global_cleanup) if init_common ran. Handles must be gone.
  static void global_cleanup();
  static bool is_initialized();

  // The CURLOPT_SSLVERSION value that the policy gives for the present environment.
  static long ssl_version_floor();
  // "<host configuration directory>/cacert.pem", worked out once per process.
  static const std::string& cacert_path();
  // The time limits as tavrel.conf sets them now.
  static Transfer_Limits get_transfer_limits();
};
