#include "wan/curl_util.h"

#include <openssl/opensslv.h>

#include <cstdlib>
#include <mutex>

#include "base/tavrel_mutex.h"
#include "core/tavrel_config.h"
#include "core/tavrel_trace.h"

static_assert(OPENSSL_VERSION_NUMBER >= 0x10100000L,
              "the TLS library must lock for itself (OpenSSL 1.1 or later): no thread callbacks are installed");

namespace {
Tavrel_Mutex g_init_crit{Tavrel_Lock_Rank::CURL_INIT, "curl global set-up"};
bool g_initialized = false;
Tavrel_Mutex g_cacert_mutex{Tavrel_Lock_Rank::LEAF, "CA file path"};

bool env_present(const char* name) { return std::getenv(name) != nullptr; }

long bounded_setting(const Tavrel_Config* config, const char* key, long fallback, long low, long high) {
  long v = config->get_int_param(key, fallback);
  return (v < low || v > high) ? fallback : v;
}
}  // namespace

void Curl_Util::init_common() {
  std::lock_guard<Tavrel_Mutex> g(g_init_crit);
  if (g_initialized) return;
  Tavrel_Trace trace(RCLIENT, "Curl_Util", "init_common");
  CURLcode rc = curl_global_init(CURL_GLOBAL_ALL);
  if (rc != CURLE_OK) {
    trace.writeTrace(TRACE_LEVEL_1, "curl_global_init failed: %d (%s)", static_cast<int>(rc), curl_easy_strerror(rc));
    return;  // the next call tries again; handles made meanwhile fail to set up
  }
  g_initialized = true;
}

void Curl_Util::global_cleanup() {
  std::lock_guard<Tavrel_Mutex> g(g_init_crit);
  if (!g_initialized) return;
  curl_global_cleanup();
  g_initialized = false;
}

bool Curl_Util::is_initialized() {
  std::lock_guard<Tavrel_Mutex> g(g_init_crit);
  return g_initialized;
}

long Curl_Util::ssl_version_floor() {
  return env_present(ENV_ENABLE_SSLV3) ? CURL_SSLVERSION_DEFAULT : CURL_SSLVERSION_TLSv1_2;
}

const std::string& Curl_Util::cacert_path() {
  static std::string path;
  std::lock_guard<Tavrel_Mutex> g(g_cacert_mutex);
  if (path.empty()) {
    const char* dir = std::getenv(ENV_HOST_CONFIG_DIR);
    std::string base = (dir && *dir) ? dir : DEFAULT_HOST_CONFIG_DIR;
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    path = base + "/" + CACERT_FILE;
  }
  return path;
}

CURLcode Curl_Util::init_common_secopt(CURL* curl, bool set_ciphers) {
  Tavrel_Trace trace(RCLIENT, "Curl_Util", "init_common_secopt");
  init_common();
  if (!curl) return CURLE_FAILED_INIT;
  bool sslv3 = env_present(ENV_ENABLE_SSLV3);
  CURLcode rc;
  if ((rc = curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, env_present(ENV_NOVERIFY_PEER) ? 0L : 1L))) return rc;
  if ((rc = curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, env_present(ENV_NOVERIFY_HOST) ? 0L : 2L))) return rc;
  if ((rc = curl_easy_setopt(curl, CURLOPT_CAINFO, cacert_path().c_str()))) return rc;
  // Only the configured CA file is trusted, not the library's built-in CA directory.
  if ((rc = curl_easy_setopt(curl, CURLOPT_CAPATH, static_cast<char*>(nullptr)))) return rc;
  // The CA file is read afresh for each new connection, so a changed key store counts at once.
  if ((rc = curl_easy_setopt(curl, CURLOPT_CA_CACHE_TIMEOUT, 0L))) return rc;
  if ((rc = curl_easy_setopt(curl, CURLOPT_SSLVERSION, ssl_version_floor()))) return rc;
  if (!sslv3 && set_ciphers) {
    if ((rc = curl_easy_setopt(curl, CURLOPT_SSL_CIPHER_LIST, "DEFAULT:!LOW:!RC4"))) return rc;
  }
  if ((rc = curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https"))) return rc;
  trace.writeTrace(TRACE_LEVEL_5, "verify peer %d, verify host %d, sslv3 %d", env_present(ENV_NOVERIFY_PEER) ? 0 : 1,
                   env_present(ENV_NOVERIFY_HOST) ? 0 : 2, sslv3 ? 1 : 0);
  return CURLE_OK;
}

Curl_Util::Transfer_Limits Curl_Util::get_transfer_limits() {
  const Tavrel_Config* config = Tavrel_Config::get_instance();
  Transfer_Limits l;
  l.connect_timeout_ms = bounded_setting(config, CONF_CONNECT_TIMEOUT_MS, DEFAULT_CONNECT_TIMEOUT_MS, 1, MAX_TIME_MS);
  l.low_speed_time_ms = bounded_setting(config, CONF_LOW_SPEED_TIME_MS, DEFAULT_LOW_SPEED_TIME_MS, 1, MAX_TIME_MS);
  l.low_speed_limit = bounded_setting(config, CONF_LOW_SPEED_LIMIT, DEFAULT_LOW_SPEED_LIMIT, 0, MAX_LOW_SPEED_LIMIT);
  l.request_timeout_ms = bounded_setting(config, CONF_REQUEST_TIMEOUT_MS, DEFAULT_REQUEST_TIMEOUT_MS, 0, MAX_TIME_MS);
  return l;
}
