// The namespace of one view as its rules select it now: what a name resolves to, which version of an
// element the view sees, the path of a directory version, and the metadata records sent for objects.
//
// Selection for element E at path P in view V: E's checkout version if E is checked out in V;
// otherwise the element rules (the stream rules of a "tkm" view that has them) evaluated at P.
// Symbolic links are not versioned and are always visible.
//
// A ViewNamespace is a short-lived value built per request over a Repo inside one transaction.
#pragma once

#include <optional>
#include <unordered_map>
#include <string>
#include <vector>

#include "proto/tavrel_records.h"
#include "server/rules.h"
#include "server/store.h"

namespace tavrel_server {

// An object of the namespace: a version of an element (file or directory), or a symbolic link.
struct Node {
  Silo silo;
  std::string path;  // tag-prefixed
  bool is_link = false;
  Element elem;  // when !is_link
  Version ver;   // when !is_link
  Link link;     // when is_link
  bool checked_out = false;
  tbs_oid_s parent_elem_oid{};  // null for the SILO root
};

class ViewNamespace {
 public:
  // Parses the view's rules; bad stored rules fall back to none selected (and are reported by
  // Set_ConfigSpec before they can be stored).
  ViewNamespace(Repo& repo, const ViewRow& view);

  Repo& repo() { return repo_; }
  const ViewRow& view() const { return view_; }

  // The version V selects for `e` at `path`, or none; *checked_out tells a checkout version.
  std::optional<Version> select(const Element& e, const std::string& path, bool* checked_out);

  // The SILO root as V selects it (1052 if no version is selected).
  Node root(const Silo& silo);
  // Resolves a tag-prefixed path from the SILO root (1002 for an unknown name, 1052 for a name with
  // no selected version, 1072 for a malformed path).
  Node resolve(const std::string& path);
  // The child `name` of directory version `dir` at `dir_path` (names from `dir`, versions from the
  // current selection).
  Node child(const Silo& silo, const Version& dir, const Element& dir_elem, const std::string& dir_path,
             const std::string& name);
  // A node for entry `e` of a directory at `dir_path`; nullopt when no version is selected.
  std::optional<Node> entry_node(const Silo& silo, const Element& dir_elem, const std::string& dir_path,
                                 const Entry& e);
  // The path at which V sees directory version `dir` (from what was served to V, else by walking up
  // the directory versions that name its element); 1087 when V cannot reach it.
  std::string path_of(const Silo& silo, const Version& dir);

  // The path at which V sees element `elem` now, if it can reach it.
  std::optional<std::string> path_of_element(const Silo& silo, int64_t elem) { return path_of_elem(silo, elem, 0); }
  // A node for a given version or link OID of `silo` (path empty when V cannot reach it); 1002 when the
  // OID is unknown in that SILO.
  Node node_for_oid(const Silo& silo, const tbs_oid_s& oid);
  // A node for the version V selects now for element `elem` (1052 when none).
  Node node_for_element(const Silo& silo, const tbs_oid_s& elem_oid);

  // The load scope of an object at `path`: the scope of the load rule at or above it, else the
  // automatic scope; GN is the view's current counter.
  tavrel_scope scope_for(const std::string& path);

  // Metadata records.
  tavrel_vstat obj_vstat(const Node& n);
  tavrel_vstat elem_vstat(const Node& n);
  tavrel_dirent dirent(const Node& n, const std::string& name, uint32_t off);

  // Records what is being sent to V, in the served set.
  ServedRow served_row(const Node& n);

 private:
  std::optional<std::string> path_of_elem(const Silo& silo, int64_t elem, int depth);
  std::optional<std::string> path_of_elem_uncached(const Silo& silo, int64_t elem, int depth);

  Repo& repo_;
  ViewRow view_;
  std::vector<ElementRule> rules_;
  std::vector<std::string> load_paths_;
  // Paths of elements found during this value's life (the store does not change under it).
  std::unordered_map<int64_t, std::optional<std::string>> elem_paths_;
};

}  // namespace tavrel_server
