// Tavrel_ConfigSpec: the local half of the view's config spec. Element rules are kept in the view
// storage as a cache of what the server holds:
//   .config_spec       the element rules, as the server gave them (byte for byte)
//   .config_spec_tkm   the stream rules of a view of type "tkm"
// Both are written whole and atomically (temporary file, fsync, rename; mode 0600), so a crash leaves
// the old or the new rules. Reading trims every line and joins the lines with "\r\n" behind each.
//
// Load rules live in the view database as load scopes; that half joins this class with the database.
//
// Thread safety: none of its own; the files are written by one request at a time (the update gate).
#pragma once

#include <string>

#include "proto/view_storage_names.h"

class Tavrel_ConfigSpec {
 public:
  // Larger rule files are refused as unreadable (20001).
  static constexpr size_t MAX_RULE_FILE = 64u << 20;

  explicit Tavrel_ConfigSpec(const std::string& storage) : m_storage(storage) {}
  virtual ~Tavrel_ConfigSpec() = default;

  // Reads a rule file of the storage into `out` (replaced): each line trimmed, followed by "\r\n".
  // 0; 20002 when the file does not exist; 20001 when it cannot be read.
  int get_rules(const std::string& file, std::string& out);
  // Writes `text` as the whole content of a rule file. 0 or 20008.
  int save_rules(const std::string& file, const std::string& text);

  int get_cached_elem_rules(std::string& out) { return get_rules(VIEW_STG_CONFIG_SPEC, out); }
  int get_cached_tkm_elem_rules(std::string& out) { return get_rules(VIEW_STG_CONFIG_SPEC_TKM, out); }
  int save_elem_rules(const std::string& text) { return save_rules(VIEW_STG_CONFIG_SPEC, text); }
  int save_tkm_elem_rules(const std::string& text) { return save_rules(VIEW_STG_CONFIG_SPEC_TKM, text); }

  const std::string& get_storage() const { return m_storage; }

 private:
  std::string m_storage;
};
