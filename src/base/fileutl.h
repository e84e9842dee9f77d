// fileutl: path and file helpers. Statuses: 0 success, -1 failure with errno kept.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

// Makes every missing directory of `path` (the path itself included) with `mode`.
int fileutl_mkpath(const std::string& path, mode_t mode);
// stat(2) that follows links. 0 or -1.
int fileutl_stat(const std::string& path, struct stat* st);
bool fileutl_exists(const std::string& path);
// Removes a file (not a directory); a missing file counts as success.
int fileutl_rm(const std::string& path);
// Removes a file or a whole directory tree; symbolic links are removed, never followed. 0 also when
// nothing is there; -1 with errno on the first failure.
int fileutl_rm_tree(const std::string& path);
int fileutl_rename(const std::string& from, const std::string& to);
// Renames `from` to `to` only when nothing is at `to` (errno EEXIST otherwise): an existing file is never
// replaced. Atomic where the file system offers it; else a hard link and the removal of `from`.
int fileutl_rename_noreplace(const std::string& from, const std::string& to);
// Creates a new, empty file with a unique name beginning with `prefix` in directory `dir`, mode 0600,
// opened for writing in binary mode (no translation of line ends). Returns the open descriptor
// (close-on-exec) and its path in *path, or -1 with errno.
int fileutl_tmpfile_ext_binary(const std::string& dir, const std::string& prefix, std::string* path);
// Copies a regular file's bytes and mode; writes to a temporary then renames, so `to` is whole or absent.
int fileutl_cp(const std::string& from, const std::string& to);
// The path without its last component ("/a/b/c" -> "/a/b", "c" -> "", "/c" -> "/").
std::string fileutl_strip_leaf(const std::string& path);
// Makes a relative path absolute against the working directory, and removes "." components,
// repeated and trailing slashes. ".." components are resolved textually.
std::string fileutl_abspn(const std::string& path);
// True when `parent` equals `path` or is one of its ancestor directories (component-wise).
bool fileutl_pname_equal_or_parent(const std::string& parent, const std::string& path);
// Writes `data` to `path` atomically: temporary file in the same directory, fsync, rename, fsync of
// the directory. A crash leaves either the old or the new content. 0 or -1.
int fileutl_write_atomic(const std::string& path, const std::string& data, mode_t mode);
// Reads a whole file, refusing one larger than `limit` bytes (errno EFBIG). 0 or -1.
int fileutl_read_file(const std::string& path, std::string* out, size_t limit);
// CRC-32 (the IEEE 802.3 polynomial, reflected, initial and final value 0xffffffff) of `len` bytes:
// "123456789" gives 0xcbf43926.
uint32_t fileutl_crc_buffer(const void* data, size_t len);
