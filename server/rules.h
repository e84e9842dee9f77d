// Element rules and load rules of a view.
//
// Element rule grammar (one rule per line; blank lines and lines starting with "#" are ignored;
// leading and trailing blanks and a CR before the line end are trimmed):
//
//   rule     = "select" SP pattern SP selector
//   pattern  = "*"                     every path
//            | NAME-GLOB               a glob without "/" matched against the last name ("*.c", "Makefile")
//            | "/tag/..."              a glob against the whole tag-prefixed path; "*" and "?" stay within
//                                      one name
//            | "/tag/.../**"           that path (a glob as above) and everything below it
//   selector = "latest"                newest version on branch main
//            | "latest@" BRANCH        newest version on the named branch
//            | "label:" NAME           the version carrying the label
//            | "version:" VSTRING      that version ("main/3", "main/dev/1")
//            | "none"                  no version: the name is invisible
//
// Evaluation for an element at path P: the first rule whose pattern matches P and whose selector
// resolves to an existing version of the element wins; "none" ends the search with no version; no
// rule gives no version.
//
// Load rules: "load /tag/path", one per line; the path is tag-prefixed, has no "..", "." or empty
// names and no trailing "/".
#pragma once

#include <string>
#include <vector>

namespace tavrel_server {

struct ElementRule {
  enum Pattern { ANY, NAME_GLOB, PATH_GLOB, SUBTREE_GLOB } pattern_kind = ANY;
  std::string pattern;  // the glob (for SUBTREE_GLOB without the "/**")
  enum Selector { LATEST, LATEST_BRANCH, LABEL, VERSION, NONE } selector = LATEST;
  std::string arg;  // branch, label or version string
  std::string text;  // the rule as written (trimmed)

  bool matches(const std::string& path) const;
};

// Parses rule text; on failure returns false with a message naming the line.
bool parse_element_rules(const std::string& text, std::vector<ElementRule>* out, std::string* error);

// Checks a single load rule line and gives its path.
bool parse_load_rule(const std::string& line, std::string* path, std::string* error);
// The paths of the valid load rules of a view's rule text, in order (invalid lines are skipped).
std::vector<std::string> load_rule_paths(const std::string& text);

// Whether `tag` is a valid SILO tag: "/" followed by [A-Za-z0-9._-]+ (and not "/." or "/..").
bool valid_silo_tag(const std::string& tag);
// Whether `name` is a valid entry name: 1-255 bytes, no "/", no NUL, not "." or "..".
bool valid_entry_name(const std::string& name);
// Whether `target` can be a symbolic link's text: 1-1023 bytes without NUL. The text is data, relative
// or absolute alike; whoever follows the link decides what it means.
bool valid_link_target(const std::string& target);
// Splits a tag-prefixed path ("/tag/a/b") into the tag and the names below it; false if malformed
// (empty names, ".", "..", over 1023 bytes).
bool split_tag_path(const std::string& path, std::string* tag, std::vector<std::string>* names);

std::string trim(const std::string& s);

}  // namespace tavrel_server
