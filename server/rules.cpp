#include "server/rules.h"

#include <fnmatch.h>

namespace tavrel_server {

std::string trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t' || s[b] == '\r' || s[b] == '\n')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r' || s[e - 1] == '\n')) --e;
  return s.substr(b, e - b);
}

bool valid_silo_tag(const std::string& tag) {
  if (tag.size() < 2 || tag.size() > 255 || tag[0] != '/') return false;
  if (tag == "/." || tag == "/..") return false;
  for (size_t i = 1; i < tag.size(); ++i) {
    char c = tag[i];
    bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
              c == '-';
    if (!ok) return false;
  }
  return true;
}

bool valid_entry_name(const std::string& name) {
  if (name.empty() || name.size() > 255 || name == "." || name == "..") return false;
  for (char c : name)
    if (c == '/' || c == '\0') return false;
  return true;
}

bool valid_link_target(const std::string& target) {
  return !target.empty() && target.size() <= 1023 && target.find('\0') == std::string::npos;
}

bool split_tag_path(const std::string& path, std::string* tag, std::vector<std::string>* names) {
  if (path.size() > 1023 || path.empty() || path[0] != '/') return false;
  names->clear();
  size_t slash = path.find('/', 1);
  *tag = path.substr(0, slash);
  if (!valid_silo_tag(*tag)) return false;
  if (slash == std::string::npos) return true;
  size_t pos = slash + 1;
  for (;;) {
    size_t next = path.find('/', pos);
    std::string name = path.substr(pos, next == std::string::npos ? std::string::npos : next - pos);
    if (!valid_entry_name(name)) return false;
    names->push_back(name);
    if (next == std::string::npos) break;
    pos = next + 1;
  }
  return true;
}

bool ElementRule::matches(const std::string& path) const {
  switch (pattern_kind) {
    case ANY:
      return true;
    case NAME_GLOB: {
      size_t slash = path.rfind('/');
      std::string leaf = slash == std::string::npos ? path : path.substr(slash + 1);
      return fnmatch(pattern.c_str(), leaf.c_str(), 0) == 0;
    }
    case PATH_GLOB:
      return fnmatch(pattern.c_str(), path.c_str(), FNM_PATHNAME) == 0;
    case SUBTREE_GLOB: {
      // The path itself or any ancestor of it matches the prefix glob.
      std::string p = path;
      for (;;) {
        if (fnmatch(pattern.c_str(), p.c_str(), FNM_PATHNAME) == 0) return true;
        size_t slash = p.rfind('/');
        if (slash == 0 || slash == std::string::npos) return false;
        p.resize(slash);
      }
    }
  }
  return false;
}

bool parse_element_rules(const std::string& text, std::vector<ElementRule>* out, std::string* error) {
  out->clear();
  size_t pos = 0;
  int lineno = 0;
  while (pos <= text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = trim(text.substr(pos, end - pos));
    pos = end + 1;
    ++lineno;
    if (line.empty() || line[0] == '#') continue;
    auto bad = [&](const std::string& why) {
      *error = "element rule line " + std::to_string(lineno) + " \"" + line + "\": " + why;
      return false;
    };
    if (line.size() > 2048) return bad("too long");
    std::vector<std::string> words;
    size_t i = 0;
    while (i < line.size()) {
      while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
      size_t j = i;
      while (j < line.size() && line[j] != ' ' && line[j] != '\t') ++j;
      if (j > i) words.push_back(line.substr(i, j - i));
      i = j;
    }
    if (words.size() != 3 || words[0] != "select") return bad("expected \"select <pattern> <selector>\"");
    ElementRule r;
    r.text = line;
    const std::string& pat = words[1];
    if (pat == "*") {
      r.pattern_kind = ElementRule::ANY;
    } else if (pat[0] == '/') {
      if (pat.size() >= 3 && pat.compare(pat.size() - 3, 3, "/**") == 0) {
        r.pattern_kind = ElementRule::SUBTREE_GLOB;
        r.pattern = pat.substr(0, pat.size() - 3);
        if (r.pattern.empty()) return bad("subtree pattern needs a tag");
      } else {
        r.pattern_kind = ElementRule::PATH_GLOB;
        r.pattern = pat;
      }
      if (r.pattern.find("**") != std::string::npos) return bad("\"**\" is allowed only as the last name");
      if (r.pattern.size() > 1 && r.pattern.back() == '/') return bad("pattern ends in \"/\"");
    } else if (pat.find('/') == std::string::npos) {
      r.pattern_kind = ElementRule::NAME_GLOB;
      r.pattern = pat;
    } else {
      return bad("a path pattern must start with the SILO tag (\"/tag/...\")");
    }
    const std::string& sel = words[2];
    if (sel == "latest") {
      r.selector = ElementRule::LATEST;
    } else if (sel == "none") {
      r.selector = ElementRule::NONE;
    } else if (sel.rfind("latest@", 0) == 0 && sel.size() > 7) {
      r.selector = ElementRule::LATEST_BRANCH;
      r.arg = sel.substr(7);
    } else if (sel.rfind("label:", 0) == 0 && sel.size() > 6) {
      r.selector = ElementRule::LABEL;
      r.arg = sel.substr(6);
    } else if (sel.rfind("version:", 0) == 0 && sel.size() > 8) {
      r.selector = ElementRule::VERSION;
      r.arg = sel.substr(8);
    } else {
      return bad("unknown selector \"" + sel + "\" (latest, latest@BRANCH, label:NAME, version:VSTRING, none)");
    }
    out->push_back(std::move(r));
    if (out->size() > 10000) return bad("too many rules");
  }
  return true;
}

std::vector<std::string> load_rule_paths(const std::string& text) {
  std::vector<std::string> out;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string path, err;
    std::string line = trim(text.substr(pos, end - pos));
    if (!line.empty() && parse_load_rule(line, &path, &err)) out.push_back(path);
    pos = end + 1;
  }
  return out;
}

bool parse_load_rule(const std::string& raw, std::string* path, std::string* error) {
  std::string line = trim(raw);
  if (line.rfind("load ", 0) != 0) {
    *error = "load rule \"" + line + "\": expected \"load /tag/path\"";
    return false;
  }
  std::string p = trim(line.substr(5));
  std::string tag;
  std::vector<std::string> names;
  if (!split_tag_path(p, &tag, &names)) {
    *error = "load rule \"" + line + "\": bad path (tag-prefixed, no \".\", \"..\" or empty names)";
    return false;
  }
  *path = p;
  return true;
}

}  // namespace tavrel_server
