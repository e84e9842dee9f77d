// Tavrel_View_Storage: file-system helpers for the view storage and the cleartext cache directory.
//
// Files of the storage are read with read_regular_file, never with a plain open: a FIFO or device put
// in place of a file cannot block the agent, a symbolic link is not followed, and the size is bounded.
// remove_tree never follows a symbolic link, so removing a half-made storage cannot reach outside it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class Tavrel_View_Storage {
 public:
  // Reads a regular file whole (no FIFO or device; no symbolic link unless `follow_links`), at most
  // `limit` bytes. 0, or -1 with errno: ENOENT missing, ELOOP a symbolic link, EINVAL not a regular
  // file, EFBIG too large, or the error of open/read.
  static int read_regular_file(const std::string& path, std::string* out, size_t limit, bool follow_links = false);

  // Splits text into lines at "\n" (a final line without "\n" counts; a "\r" before "\n" is kept).
  // A line longer than `max_line` bytes is left out and counted in *too_long (which may be null).
  static std::vector<std::string> split_lines(const std::string& text, size_t max_line, size_t* too_long);

  // Removes `path` and everything below it without following symbolic links. A missing path is
  // success. 0 or -1 with errno of the first failure (removal goes on past failures).
  static int remove_tree(const std::string& path);

  // Whether the directory holds nothing but "." and "..". On failure to open or read it, *status is
  // 20050 and the result false; otherwise *status is 0.
  static bool is_dir_empty(const std::string& path, int* status);

  // Replaces each path separator by the system's one; on this system the path stays as it is.
  static void globalize_path(std::string& path);

  // Whether `name` exists in a proper ancestor directory of `path` (the parent up to "/").
  static bool find_in_ancestors(const std::string& path, const std::string& name);

  // Removes regular files named "<name>.tmpXXXXXX" (six characters, as left by an interrupted atomic
  // rewrite of `name`) directly in `dir`. Returns how many were removed.
  static int remove_stale_temporaries(const std::string& dir, const std::vector<std::string>& names);

  // Whether `name` is "<base>.tmpXXXXXX" for one of `bases`.
  static bool is_temporary_of(const std::string& name, const std::vector<std::string>& bases);
};
