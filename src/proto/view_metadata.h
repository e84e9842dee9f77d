// The view's metadata file (VIEW_STG_METADATA, ".tavrel" in the storage directory).
//
// Format: one "key=value" line per field, lines ended by "\n" (a last line without one counts). A
// line is split at its first "="; key and value are trimmed of white space at both ends (space, tab,
// CR, LF, VT, FF), so "key = a=b \r" gives key "key" and value "a=b". A line without "=" is ignored,
// and so is a line longer than VIEW_METADATA_MAX_LINE bytes. A key may appear more than once; the
// last line wins. Keys the reader does not know are its to ignore. The whole file is at most
// VIEW_METADATA_MAX_FILE bytes; a longer one is not a metadata file.
//
// The agent writes the file whole, atomically, with the keys below in this order: versionid (always
// "1.0"), view-uuid, server-tag, text-mode, view-type, preserve-silo-modified-time ("true" or
// "false"), server-url, cltxt-cache-dir, cache-size (decimal). It never writes a line end inside a
// value.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

inline constexpr char VIEW_MD_VERSION_ID[] = "versionid";
inline constexpr char VIEW_MD_VERSION_ID_VALUE[] = "1.0";
inline constexpr char VIEW_MD_VIEW_UUID[] = "view-uuid";
inline constexpr char VIEW_MD_SERVER_TAG[] = "server-tag";
inline constexpr char VIEW_MD_TEXT_MODE[] = "text-mode";
inline constexpr char VIEW_MD_VIEW_TYPE[] = "view-type";
inline constexpr char VIEW_MD_PRESERVE_TIME[] = "preserve-silo-modified-time";
inline constexpr char VIEW_MD_SERVER_URL[] = "server-url";
inline constexpr char VIEW_MD_CLTXT_CACHE_DIR[] = "cltxt-cache-dir";
inline constexpr char VIEW_MD_CACHE_SIZE[] = "cache-size";
inline constexpr char VIEW_MD_SEP[] = "=";

constexpr size_t VIEW_METADATA_MAX_FILE = 64 * 1024;
constexpr size_t VIEW_METADATA_MAX_LINE = 16 * 1024;

struct View_Metadata_Field {
  std::string key;
  std::string value;
};

// The fields of `text` in file order (repeated keys included). False, with *fields empty, when the
// text is longer than VIEW_METADATA_MAX_FILE. *too_long (may be null) counts the lines skipped for
// their length.
bool view_metadata_parse(const std::string& text, std::vector<View_Metadata_Field>* fields,
                         size_t* too_long = nullptr);

// The value of the last field named `key`; false when there is none.
bool view_metadata_find(const std::vector<View_Metadata_Field>& fields, const std::string& key, std::string* value);
