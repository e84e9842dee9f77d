// What an update stream carries for one scope, found from the change log instead of a walk of the
// whole scope.
//
// What the view selects at a path depends on the view's rules, the path, and the element found there:
// its versions, branches, labels and the view's checkout of it. Which element is found at a path
// depends on the versions selected for the directories above it. So a name whose own element and
// whose ancestors' elements did not change since the scope's committed state was worked out shows
// what it showed then, and so does everything below it. Given the elements the change log names
// since that position (UpdateLedger::changed_elements), a delta therefore looks again only at:
//   - the names that hold a changed element, and the directories on the way down to them (each
//     resolved by name, its other entries left alone);
//   - every entry of a directory whose element changed, or that now holds another element or did
//     not exist: its names are diffed against the committed rows below it, one level at a time;
//   - the subtree of a name that became something else: what it held is unloaded, and a directory
//     that is new to the scope is walked whole.
// Committed rows are reached by path (point reads and seeks past a subtree), so the cost follows the
// number of changed names and the size of the directories they sit in, not the size of the scope.
//
// A delta gives exactly the rows a diff of the whole walk gives (update_stream.cpp) with the same
// committed state; the tests run both against random changes. The stream falls back to the walk for a
// first load, Force, a scope with no known position, and when the log cannot tell (a SILO, a link or
// the view's rules changed, or too many elements did).
//
// Load-rule scope: names new to the scope are sent. Automatic scope: only names the view was served
// are looked at (a name it never met is not sent; the agent asks when it meets it), and names at or
// below a load rule are left to that rule's scope.
//
// A ScopeDelta lives inside the caller's read transaction, like the ViewNamespace it uses.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "server/update_ledger.h"
#include "server/view_namespace.h"

namespace tavrel_server {

class ScopeDelta {
 public:
  // Rows go to `out` (SNAP_SEND or SNAP_UNLOAD), each path at most once, in no particular order.
  ScopeDelta(Repo& r, ViewNamespace& ns, const Silo& silo, const tbs_oid_s& scope,
             const std::vector<int64_t>& changed, std::function<void(SnapRow)> out);

  // The scope of the load rule at `top`, a rule the view still has.
  void load_rule(const std::string& top);
  // The automatic scope of the SILO; `rule_paths` are the view's load rules.
  void automatic(const std::vector<std::string>& rule_paths);

 private:
  void mark_dirty(const std::string& top);
  void visit(const std::string& path, const std::optional<Node>& now, const std::optional<SnapRow>& had, size_t depth);
  void merge_entries(const Node& dir, size_t depth);
  void served_below(const Node& dir, size_t depth);
  void dirty_children(const Node& dir, size_t depth);
  // Unloads the committed rows below `path` (and the one at it, `had`, when given).
  void unload_below(const std::string& path, const std::optional<SnapRow>& had);
  // The first committed row after `key` if it lies below `top`.
  std::optional<SnapRow> next_below(const std::string& top, const std::string& key);
  bool excluded(const std::string& path) const;

  Repo& repo_;
  ViewNamespace& ns_;
  UpdateLedger ledger_;
  Silo silo_;
  tbs_oid_s scope_;
  bool is_auto_;
  int64_t view_;
  std::unordered_set<int64_t> changed_;
  std::function<void(SnapRow)> out_;
  std::vector<std::string> rule_paths_;
  // Directories on the way down to a name that holds a changed element -> the names below them.
  std::map<std::string, std::set<std::string>> dirty_;
};

}  // namespace tavrel_server
