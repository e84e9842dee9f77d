#include "core/tavrel_config.h"

#include <sys/stat.h>

#include "base/fileutl.h"
#include "base/strutl.h"
#include "base/sysutl.h"
#include "core/tavrel_trace.h"

std::mutex Tavrel_Config::g_config_lock;

namespace {
Tavrel_Config* g_instance = nullptr;
}

Tavrel_Config::Tavrel_Config() {
  m_settings[NUM_CMAPI_THREADS] = "7";
  m_settings[NUM_KFSM_THREADS] = "5";
  m_settings[NUM_GET_THREADS] = "2";
}

Tavrel_Config* Tavrel_Config::get_instance() {
  std::lock_guard<std::mutex> g(g_config_lock);
  if (!g_instance) {
    auto* c = new Tavrel_Config();
    std::string path = c->get_config_file();
    if (!path.empty() && fileutl_exists(path)) c->load(path);
    g_instance = c;
  }
  return g_instance;
}

void Tavrel_Config::reset_for_test() {
  std::lock_guard<std::mutex> g(g_config_lock);
  delete g_instance;
  g_instance = nullptr;
}

std::string Tavrel_Config::find(const std::string& key) const {
  Tavrel_Trace trace(TAVREL, "Tavrel_Config", "find");
  trace.writeTrace(TRACE_LEVEL_5, "Looking for %s", key.c_str());
  auto it = m_settings.find(key);
  if (it == m_settings.end()) return "";
  trace.writeTrace(TRACE_LEVEL_5, "Found value %s", it->second.c_str());
  return it->second;
}

bool Tavrel_Config::get_boolean_param(const std::string& key) const { return strutl_stricmp(find(key), "true") == 0; }

long Tavrel_Config::get_int_param(const std::string& key, long fallback) const {
  long v;
  return strutl_strtol(find(key), &v) ? v : fallback;
}

std::string Tavrel_Config::get_config_file() const {
  std::string home = sysutl_get_homedir();
  if (home.empty()) return "";
  return home + "/" + CONFIG_FILE;
}

bool Tavrel_Config::load(const std::string& path) {
  std::string text;
  if (fileutl_read_file(path, &text, MAX_FILE) != 0) return false;
  load_text(text);
  return true;
}

void Tavrel_Config::load_text(const std::string& text) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Config", "load");
  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    if (nl == std::string::npos) nl = text.size();
    size_t len = nl - pos;
    std::string raw = len > MAX_LINE ? std::string() : text.substr(pos, len);
    pos = nl + 1;
    trace.writeTrace(TRACE_LEVEL_5, "Line read in %s", raw.c_str());
    std::string line = strutl_trim(raw);
    trace.writeTrace(TRACE_LEVEL_5, "Trimmed line read in %s", line.c_str());
    if (line.empty() || line[0] == '#') continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    trace.writeTrace(TRACE_LEVEL_5, "Found =");
    std::string key = strutl_trim(line.substr(0, eq));
    std::string value = strutl_trim(line.substr(eq + 1));
    if (key.empty() || value.empty()) continue;
    trace.writeTrace(TRACE_LEVEL_5, "Adding key [%s] and value [%s]", key.c_str(), value.c_str());
    m_settings[key] = value;
  }
}
