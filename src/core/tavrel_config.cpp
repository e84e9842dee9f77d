#include "core/tavrel_config.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <atomic>
#include <memory>

#include "base/fileutl.h"
#include "base/strutl.h"
#include "base/sysutl.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "core/tavrel_view_storage.h"
#include "proto/view_storage_names.h"

Tavrel_Mutex Tavrel_Config::g_config_lock{Tavrel_Lock_Rank::CONFIG, "Tavrel_Config::g_config_lock"};
std::map<std::string, SILO_mount_info> Tavrel_Config::g_mounted_silos;
std::map<tbs_uuid_s, SILO_mount_info, map_uuid_compare> Tavrel_Config::g_mounted_silos_uuid;

namespace {
std::atomic<Tavrel_Config*> g_instance{nullptr};
Tavrel_Mutex g_instance_lock{Tavrel_Lock_Rank::LEAF, "Tavrel_Config instance"};  // creation and reset
std::atomic<Tavrel_Config::Mount_Hook> g_mount_hook{nullptr};
std::atomic<Tavrel_Config::View_Lookup> g_view_lookup{nullptr};

const char* flag_text(bool b) { return b ? "true" : "false"; }

// Takes the text before the first "=" off `rest` (all of it when there is none), trimmed.
std::string take_field(std::string& rest) {
  size_t eq = rest.find('=');
  std::string field = strutl_trim(rest.substr(0, eq));
  rest = eq == std::string::npos ? std::string() : rest.substr(eq + 1);
  return field;
}

// The same from the end of `rest`.
std::string take_last_field(std::string& rest) {
  size_t eq = rest.rfind('=');
  std::string field = strutl_trim(eq == std::string::npos ? rest : rest.substr(eq + 1));
  rest = eq == std::string::npos ? std::string() : rest.substr(0, eq);
  return field;
}

bool has_line_end(const std::string& s) { return s.find_first_of("\r\n") != std::string::npos; }

// Removes the entry of `tag` from both tables; the caller holds g_config_lock.
void erase_tag(const std::string& tag) {
  auto it = Tavrel_Config::g_mounted_silos.find(tag);
  if (it == Tavrel_Config::g_mounted_silos.end()) return;
  auto u = Tavrel_Config::g_mounted_silos_uuid.find(it->second.family_uuid);
  if (u != Tavrel_Config::g_mounted_silos_uuid.end() && u->second.silo_tag == tag)
    Tavrel_Config::g_mounted_silos_uuid.erase(u);
  Tavrel_Config::g_mounted_silos.erase(it);
}
}  // namespace

std::string SILO_mount_info::to_line() const {
  const char* sep = Tavrel_Config::KEY_VALUE_SEP;
  return silo_tag + sep + tbs_uuid_to_str(replica_uuid) + sep + tbs_uuid_to_str(family_uuid) + sep + storage + sep +
         flag_text(is_public) + sep + flag_text(is_project_silo);
}

Tavrel_Config::Tavrel_Config() {
  m_settings[NUM_CMAPI_THREADS] = "7";
  m_settings[NUM_KFSM_THREADS] = "5";
  m_settings[NUM_GET_THREADS] = "2";
}

Tavrel_Config* Tavrel_Config::get_instance() {
  Tavrel_Config* c = g_instance.load(std::memory_order_acquire);
  if (c) return c;
  std::lock_guard<Tavrel_Mutex> g(g_instance_lock);
  c = g_instance.load(std::memory_order_relaxed);
  if (!c) {
    c = new Tavrel_Config();
    std::string path = c->get_config_file();
    if (!path.empty() && fileutl_exists(path)) c->load(path);
    g_instance.store(c, std::memory_order_release);
  }
  return c;
}

void Tavrel_Config::reset_for_test() {
  std::lock_guard<Tavrel_Mutex> g(g_instance_lock);
  delete g_instance.exchange(nullptr);
}

void Tavrel_Config::clear_mount_tables_for_test() {
  std::lock_guard<Tavrel_Mutex> g(g_config_lock);
  g_mounted_silos.clear();
  g_mounted_silos_uuid.clear();
}

void Tavrel_Config::set_mount_hook(Mount_Hook hook) { g_mount_hook = hook; }

void Tavrel_Config::set_view_lookup(View_Lookup lookup) { g_view_lookup = lookup; }

bool Tavrel_Config::has_mount_hook() { return g_mount_hook.load() != nullptr; }

bool Tavrel_Config::has_view_lookup() { return g_view_lookup.load() != nullptr; }

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
  // A symbolic link is followed (a settings file often lives elsewhere), but only a regular file is
  // read: a FIFO in its place must not block the agent's start.
  std::string text;
  if (Tavrel_View_Storage::read_regular_file(path, &text, MAX_FILE, true) != 0) return false;
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

// ----------------------------------------------------------------------------------------------------
// Mount table

std::string Tavrel_Config::get_mounted_file() const {
  Tavrel_Trace trace(TAVREL, "Tavrel_Config", "get_mounted_file");
  View_Lookup lookup = g_view_lookup.load();
  Tavrel_View* view = lookup ? lookup() : nullptr;
  if (!view) {
    trace.writeTrace(TRACE_LEVEL_1, " get_view failed ");
    return "";
  }
  return view->get_storage_path() + "/" + VIEW_STG_MOUNTED_SILOS;
}

bool Tavrel_Config::get_mount_state(std::string tag) {
  std::lock_guard<Tavrel_Mutex> g(g_config_lock);
  auto it = g_mounted_silos.find(tag);
  return it != g_mounted_silos.end() && it->second.mount_state == 1;
}

SILO_mount_info Tavrel_Config::get_mount_info(std::string tag) {
  std::lock_guard<Tavrel_Mutex> g(g_config_lock);
  auto it = g_mounted_silos.find(tag);
  return it == g_mounted_silos.end() ? SILO_mount_info() : it->second;
}

SILO_mount_info Tavrel_Config::get_mount_info(const tbs_uuid_s& family) {
  std::lock_guard<Tavrel_Mutex> g(g_config_lock);
  auto it = g_mounted_silos_uuid.find(family);
  return it == g_mounted_silos_uuid.end() ? SILO_mount_info() : it->second;
}

std::vector<SILO_mount_info> Tavrel_Config::get_mounted_silos() {
  std::lock_guard<Tavrel_Mutex> g(g_config_lock);
  std::vector<SILO_mount_info> out;
  out.reserve(g_mounted_silos.size());
  for (const auto& [tag, info] : g_mounted_silos) out.push_back(info);
  return out;
}

int Tavrel_Config::set_mount_state(const SILO_mount_info& info) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Config", "set_mount_state");
  // An entry the file cannot hold line for line is refused before anything changes.
  if (info.silo_tag.empty() || info.silo_tag.find('=') != std::string::npos || has_line_end(info.silo_tag) ||
      has_line_end(info.storage)) {
    trace.writeTrace(TRACE_LEVEL_1, "Refusing silo tag [%s]: empty, or holds \"=\" or a line end",
                     info.silo_tag.c_str());
    return TAVREL_ST_INTERNAL;
  }
  std::lock_guard<Tavrel_Mutex> g(g_config_lock);
  // Both tables always hold the same entries: the tag's old entry goes, and so does any entry that
  // holds the new family under another tag.
  erase_tag(info.silo_tag);
  if (info.mount_state == 1) {
    auto u = g_mounted_silos_uuid.find(info.family_uuid);
    if (u != g_mounted_silos_uuid.end()) erase_tag(u->second.silo_tag);
    g_mounted_silos_uuid.erase(info.family_uuid);
    g_mounted_silos[info.silo_tag] = info;
    g_mounted_silos_uuid[info.family_uuid] = info;
  }
  std::string file = get_mounted_file();
  if (file.empty()) {
    trace.writeTrace(TRACE_LEVEL_1, "get_mounted_file returned empty file name");
    return TAVREL_ST_INTERNAL;
  }
  return write_mounted_file_locked(file);
}

int Tavrel_Config::write_mounted_file_locked(const std::string& file) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Config", "set_mount_state");
  std::string text;
  const char* sep = KEY_VALUE_SEP;
  for (const auto& [tag, e] : g_mounted_silos) {
    const std::string flags = std::string(flag_text(e.is_public)) + sep + flag_text(e.is_project_silo);
    trace.writeTrace(TRACE_LEVEL_5, "writing %s%s%s%s%s%s%s%s%s to file : %s", tag.c_str(), sep,
                     tbs_uuid_to_str(e.replica_uuid).c_str(), sep, tbs_uuid_to_str(e.family_uuid).c_str(), sep,
                     e.storage.c_str(), sep, flags.c_str(), file.c_str());
    text += e.to_line() + "\n";
  }
  // Temporary file, fsync, rename, fsync of the directory: the file is the old table or the new one.
  if (fileutl_write_atomic(file, text, 0600) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Could not open file : %s", file.c_str());
    return TAVREL_ST_MOUNTED_FILE;
  }
  trace.writeTrace(TRACE_LEVEL_4, "Opened file : %s", file.c_str());
  return 0;
}

SILO_mount_info* Tavrel_Config::decode_mount_info(const std::string& line) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Config", "decode_mount_info");
  std::string rest = line;
  const std::string tag = take_field(rest);
  const std::string replica = take_field(rest);
  const std::string family = take_field(rest);
  // The flags are the last two fields; what stands between family and flags is the storage path.
  std::string is_public, is_project, storage;
  size_t seps = 0;
  for (char c : rest) seps += c == '=';
  if (seps >= 2) {
    is_project = take_last_field(rest);
    is_public = take_last_field(rest);
    storage = strutl_trim(rest);
  } else {
    storage = take_field(rest);
    is_public = take_field(rest);
    is_project = strutl_trim(rest);
  }
  trace.writeTrace(TRACE_LEVEL_4, "silo tag %s, repl oid %s, fam oid %s, storage %s, is_public %s, is_project_silo %s",
                   tag.c_str(), replica.c_str(), family.c_str(), storage.c_str(), is_public.c_str(),
                   is_project.c_str());
  if (tag.empty()) {
    trace.writeTrace(TRACE_LEVEL_1, "No silo tag");
    return nullptr;
  }
  auto info = std::make_unique<SILO_mount_info>();
  if (tbs_str_to_uuid(replica, &info->replica_uuid) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Invalid replica OID %s", replica.c_str());
    return nullptr;
  }
  if (tbs_str_to_uuid(family, &info->family_uuid) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Invalid family OID %s", family.c_str());
    return nullptr;
  }
  info->silo_tag = tag;
  info->storage = storage;
  info->is_public = is_public == "true";
  info->is_project_silo = is_project == "true";
  info->mount_state = 1;
  return info.release();
}

int Tavrel_Config::remount_silos() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Config", "remount_silos");
  std::vector<std::unique_ptr<SILO_mount_info>> entries;
  {
    std::lock_guard<Tavrel_Mutex> g(g_config_lock);
    if (!g_mounted_silos.empty()) return TAVREL_ST_UPDATE_RUNNING;
    std::string file = get_mounted_file();
    if (file.empty()) {
      trace.writeTrace(TRACE_LEVEL_1, "get_mounted_file returned empty file name");
      return TAVREL_ST_INTERNAL;
    }
    if (!fileutl_exists(file)) {
      trace.writeTrace(TRACE_LEVEL_4, "File does not exist..nothing to remount");
      return 0;
    }
    std::string text;
    if (Tavrel_View_Storage::read_regular_file(file, &text, MAX_MOUNT_FILE) != 0) {
      trace.writeTrace(TRACE_LEVEL_1, "Could not open file : %s", file.c_str());
      return TAVREL_ST_MOUNTED_FILE;
    }
    size_t too_long = 0;
    for (const std::string& line : Tavrel_View_Storage::split_lines(text, MAX_MOUNT_LINE, &too_long)) {
      trace.writeTrace(TRACE_LEVEL_4, "line [%s]", line.c_str());
      if (strutl_trim(line).empty()) continue;
      SILO_mount_info* e = decode_mount_info(line);
      if (!e) {
        trace.writeTrace(TRACE_LEVEL_1, "Error decoding [%s]", line.c_str());
        continue;
      }
      entries.emplace_back(e);
    }
    if (too_long) trace.writeTrace(TRACE_LEVEL_1, "Error decoding %zu overlong lines", too_long);
  }
  // Mounting takes g_config_lock itself (set_mount_state), so it runs outside it.
  Mount_Hook mount = g_mount_hook.load();
  bool failed = false;
  for (auto& e : entries) {
    int rc = mount ? mount(*e) : TAVREL_ST_KERNEL_MOUNT;
    if (rc != 0) {
      trace.writeTrace(TRACE_LEVEL_1, "Remount of %s failed: %d%s", e->silo_tag.c_str(), rc,
                       mount ? "" : " (no mount operation installed)");
      failed = true;
    }
  }
  return failed ? TAVREL_ST_REMOUNT : 0;
}

int Tavrel_Config::get_silo_info_and_path(std::string& path, SILO_mount_info& info) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Config", "get_silo_info_and_path");
  Tavrel_View_Storage::globalize_path(path);
  trace.writeTrace(TRACE_LEVEL_5, "Globalized path is %s", path.c_str());
  std::map<std::string, SILO_mount_info> table;
  {
    std::lock_guard<Tavrel_Mutex> g(g_config_lock);
    table = g_mounted_silos;
  }
  std::string whole = path;
  while (!whole.empty() && whole.back() == '/') whole.pop_back();
  auto plain_tag = [&](std::string tag) {
    if (!tag.empty() && tag.back() == '/') {
      trace.writeTrace(TRACE_LEVEL_5, "silotag before modification is %s", tag.c_str());
      while (!tag.empty() && tag.back() == '/') tag.pop_back();
      trace.writeTrace(TRACE_LEVEL_5, "silotag after modification is %s", tag.c_str());
    }
    return tag;
  };
  // The path names a SILO root.
  for (const auto& [key, e] : table) {
    if (plain_tag(key) == whole && !whole.empty()) {
      trace.writeTrace(TRACE_LEVEL_4, "Matched %s", key.c_str());
      path.clear();
      trace.writeTrace(TRACE_LEVEL_4, "New path %s", path.c_str());
      info = e;
      return 0;
    }
  }
  // The first tag, in tag order, that the path begins with, followed by a separator.
  for (const auto& [key, e] : table) {
    const std::string tag = plain_tag(key);
    if (tag.empty() || path.size() <= tag.size() || path.compare(0, tag.size(), tag) != 0 || path[tag.size()] != '/')
      continue;
    trace.writeTrace(TRACE_LEVEL_4, "Matched %s", key.c_str());
    path = path.substr(tag.size());
    trace.writeTrace(TRACE_LEVEL_4, "New path %s", path.c_str());
    info = e;
    return 0;
  }
  return TAVREL_ST_NOT_MOUNTED;
}
