// Tavrel_Cleartext: the cleartext (contents) of one version in the view's text mode, found in the
// view's cleartext cache or fetched from the server into it.
//
// Cache layout, under the view's cleartext cache directory `cache_root`:
//
//   <cache_root>/.c/<replica uuid>/<L1>/<L2>/<version oid>-<text mode>
//
// uuid and oid in their text form (32 lower-case hex digits grouped 8-4-4-4-12). With
// h = strutl_str_to_hash32(0, <version oid text>), L1 is h % 67 and L2 is (h >> 6) % 67, both in
// lower-case hex without leading zeros ("0" to "42"): at most 67 x 67 leaf directories per replica.
// Directories are made with mode 07777 (less the umask). A cached file has the mode of its temporary
// file with the bits 0277 cleared: readable by the owner, writable by nobody. Its name holds all that
// defines its content, so a cached file is never changed in place, never replaced and never deleted
// here; cleaning the cache is left to the user.
//
// A fetch streams the version into a temporary file in the leaf directory itself (same file system)
// and then renames it into place without replacing anything: a file at the cache path is always whole.
// Every failure after the temporary file was made removes it, so a fetch leaves either the whole file
// or nothing; a crash can leave a temporary file, whose name the cache never looks up. When the rename
// finds a file already there (another process fetched the same version), that file counts as the
// result if it has the same size and no bit of 0277 in its mode.
//
// The fetch is a GET of the session's URL + "/cltxt/<replica>/<version oid>/<text mode>".
//
// Concurrent fetches of one version (replica and oid) are merged through the cleartext scoreboard:
// one GET, every caller sees the file. A caller that hands a listener gets a fetch in the background
// (a pool thread at low priority) and returns at once; a foreground caller that finds a queued
// background fetch of the same version moves it to the foreground queue and waits for it.
//
// Statuses are the agent's (20000 range): 20019 no view, 20021 no oid for the dbid, 20033 not cached
// while disconnected, 20001 a local failure (directory, temporary file, write, rename), 20048/20049
// the server could not be reached or refused the version; texts are added to `message`.
//
// Threads: an object belongs to one thread at a time and takes no lock of the name service; callers
// must not hold tavrel_cache_mutex across getcleartext (a fetch can take as long as the WAN allows).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "base/tbs.h"

class Tavrel_BG_Cleartext_listener;

class Tavrel_Cleartext {
 public:
  static constexpr const char* CACHE_SUBDIR = ".c";
  static constexpr const char* CLTXT_URL_PREFIX = "/cltxt/";
  static constexpr const char* CLTXT_URL_SEPARATOR = "/";
  static constexpr unsigned LEVEL_FANOUT = 67;
  static constexpr mode_t DIR_MODE = 07777;
  static constexpr mode_t CLEARED_MODE_BITS = 0277;

  // `oid` may be TBS_OID_NULL: it is then read from the view database by `dbid`. The listener, when
  // given, is owned from here on and makes getcleartext fetch in the background.
  Tavrel_Cleartext(const tbs_uuid_s& replica, uint32_t dbid, const tbs_oid_s& oid, const std::string& cache_root,
                   Tavrel_BG_Cleartext_listener* listener = nullptr);
  // A copy of everything but the listener (the copy has none).
  Tavrel_Cleartext(const Tavrel_Cleartext& other);
  Tavrel_Cleartext& operator=(const Tavrel_Cleartext&) = delete;
  virtual ~Tavrel_Cleartext();

  // Finds or fetches the file. 0 with `present` 1: cache_path exists. With a listener the fetch runs
  // in the background: 0 with `present` 0 (also when an equal fetch is already under way).
  int getcleartext(int& present);
  // Whether the file is cached (`present`); builds the paths. 20033 when it is not and the view is
  // disconnected.
  int check_cache(int& present);
  // Makes the view-private file `file` the cleartext of this version: copied into the cache, or only
  // removed when the version is cached already.
  int adopt(const std::string& file);
  // cache_path below cache_root, without the "/" between them.
  std::string get_cltxt_relpath() const;

  int wan_fetch_cleartext();
  int finalize_cltxt();
  int gen_tmp_path();
  int make_cltxt_parent();
  int gen_cache_pathname();
  // dir_path: cache_root/.c/<replica>/<L1>/<L2>.
  int gen_cache_dirs();
  int gen_cleartext_url(std::string& url);
  bool cltxt_in_cache();
  int get_view_textmode(std::string& mode);

  const tbs_uuid_s& get_replica() const { return replica; }
  uint32_t get_dbid() const { return dbid; }
  const tbs_oid_s& get_oid() const { return oid; }
  const std::string& get_cache_path() const { return cache_path; }
  const std::string& get_dir_path() const { return dir_path; }
  const std::string& get_tmp_path() const { return tmp_path; }
  const std::string& get_message() const { return message; }
  Tavrel_BG_Cleartext_listener* get_listener() const { return listener; }

 private:
  // Appends catalogue message `number` to `message`.
  void add_message(int number, ...);
  // Appends "<what> failed: <errno text>" to `message`.
  void add_call_failed(const char* what, int err);
  void remove_tmp();
  // The object's name for messages: "D@replicauuid:U", or "oid:O@replicauuid:U" without a dbid.
  std::string location() const;

  tbs_uuid_s replica;
  uint32_t dbid;
  tbs_oid_s oid;
  std::string cache_root;
  std::string cache_path;
  std::string dir_path;
  std::string message;
  std::string textmode;
  std::string tmp_path;
  Tavrel_BG_Cleartext_listener* listener;
};
