// The order of tag-prefixed paths that a pre-order walk of a tree meets when every directory lists
// its names in byte order: paths compare byte by byte with "/" below every other byte. A directory
// therefore comes right before its subtree, and its subtree before its next sibling:
//   "/p/a" < "/p/a/z" < "/p/a-b" < "/p/ab"
// Names hold neither NUL nor "/", so the order is total and agrees with the walk. The update stream
// relies on that to diff a walk against stored rows in one pass, holding neither side in memory.
//
// The same order is the SQLite collation "tavrel_path", registered on every store connection; store
// columns and queries that must follow the walk's order use it.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tavrel_server {

inline constexpr const char* PATH_COLLATION = "tavrel_path";

// <0, 0 or >0 as `a` comes before, with or after `b`.
int path_order_compare(const char* a, size_t an, const char* b, size_t bn);
inline int path_order_compare(const std::string& a, const std::string& b) {
  return path_order_compare(a.data(), a.size(), b.data(), b.size());
}

// A key after every path at or below `p` and before whatever follows them: "/" sorts below every
// other byte and names hold no NUL.
inline std::string past_subtree(const std::string& p) { return p + std::string(1, '\0'); }

// Whether `p` lies strictly below `top`, or is `top` or lies below it.
inline bool path_below(const std::string& p, const std::string& top) {
  return p.size() > top.size() && p.compare(0, top.size(), top) == 0 && p[top.size()] == '/';
}
inline bool path_at_or_below(const std::string& p, const std::string& top) { return p == top || path_below(p, top); }
// The first of `tops` (a view's load-rule paths) that `p` is at or below, or null.
inline const std::string* path_top_of(const std::string& p, const std::vector<std::string>& tops) {
  for (const std::string& t : tops)
    if (path_at_or_below(p, t)) return &t;
  return nullptr;
}

// Registers the collation on `db`; false when SQLite refuses it.
bool register_path_collation(sqlite3* db);

}  // namespace tavrel_server
