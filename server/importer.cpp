#include "server/importer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "server/rules.h"

namespace tavrel_server {

namespace {

struct Walker {
  Repo& repo;
  const ImportOptions& opt;
  ImportStats& stats;
  int64_t silo;

  static timeval mtime_of(const struct stat& st) { return timeval{st.st_mtim.tv_sec, st.st_mtim.tv_nsec / 1000}; }

  std::string read_file(const std::string& fs_path, uint64_t size) {
    int fd = ::open(fs_path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) fail(TBS_ST_INTERNAL, "cannot open " + fs_path + ": " + std::strerror(errno));
    std::string data;
    data.resize(size);
    size_t got = 0;
    while (got < size) {
      ssize_t n = ::read(fd, data.data() + got, size - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += size_t(n);
    }
    ::close(fd);
    if (got != size) fail(TBS_ST_INTERNAL, "file " + fs_path + " changed size while being imported");
    return data;
  }

  // Fills directory version `dirver` with the entries of `fs_dir`.
  void fill(const std::string& fs_dir, const std::string& wire_dir, int64_t dirver) {
    DIR* d = ::opendir(fs_dir.c_str());
    if (!d) fail(TBS_ST_INTERNAL, "cannot read directory " + fs_dir + ": " + std::strerror(errno));
    std::vector<std::string> names;
    while (struct dirent* de = ::readdir(d)) {
      std::string n = de->d_name;
      if (n == "." || n == "..") continue;
      names.push_back(std::move(n));
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      std::string fs_path = fs_dir + "/" + name;
      std::string wire_path = wire_dir + "/" + name;
      if (!valid_entry_name(name) || wire_path.size() > 1023) {
        stats.skipped.push_back(wire_path + ": name or path too long");
        continue;
      }
      struct stat st;
      if (::lstat(fs_path.c_str(), &st) != 0) fail(TBS_ST_INTERNAL, "cannot stat " + fs_path + ": " + std::strerror(errno));
      timeval t = mtime_of(st);
      uint32_t mode = st.st_mode & 07777;
      if (S_ISDIR(st.st_mode)) {
        Element e = repo.new_element(silo, KIND_DIR, mode, t);
        Version v = repo.new_version(e, *repo.branch_by_name(e.id, "main"), 0, 0, mode, t);
        repo.add_entry(dirver, Entry{name, e.id, 0});
        ++stats.dirs;
        fill(fs_path, wire_path, v.id);
      } else if (S_ISREG(st.st_mode)) {
        if (uint64_t(st.st_size) > opt.max_file_size) {
          stats.skipped.push_back(wire_path + ": larger than the size limit");
          continue;
        }
        std::string data = read_file(fs_path, uint64_t(st.st_size));
        int64_t content = repo.put_content(data);
        Element e = repo.new_element(silo, KIND_FILE, mode, t);
        repo.new_version(e, *repo.branch_by_name(e.id, "main"), content, data.size(), mode, t);
        repo.add_entry(dirver, Entry{name, e.id, 0});
        ++stats.files;
        stats.bytes += data.size();
      } else if (S_ISLNK(st.st_mode)) {
        char buf[4096];
        ssize_t n = ::readlink(fs_path.c_str(), buf, sizeof buf);
        if (n < 0) fail(TBS_ST_INTERNAL, "cannot read link " + fs_path + ": " + std::strerror(errno));
        std::string target(buf, size_t(n));
        if (!valid_link_target(target)) {  // absolute targets are kept as they are
          stats.skipped.push_back(wire_path + ": symbolic link target is too long");
          continue;
        }
        Link l = repo.new_link(silo, target, t);
        repo.add_entry(dirver, Entry{name, 0, l.id});
        ++stats.links;
      } else {
        stats.skipped.push_back(wire_path + ": not a file, directory or symbolic link");
      }
    }
  }
};

}  // namespace

ImportStats import_tree(Store& store, const std::string& tag, const std::string& source, const ImportOptions& opt) {
  if (!valid_silo_tag(tag)) fail(TBS_ST_BAD_ARG, "bad SILO tag \"" + tag + "\" (expected /name with [A-Za-z0-9._-])");
  struct stat st;
  if (::stat(source.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    fail(TBS_ST_BAD_ARG, "import source " + source + " is not a directory");
  return store.write([&](Repo& repo) {
    ImportStats stats;
    std::string storage = opt.storage.empty() ? store.path() + "#" + tag : opt.storage;
    for (char& ch : storage)  // the agent's mount table splits on "="; the text travels in a header line
      if (ch == '=' || (unsigned char)ch < 0x20 || (unsigned char)ch == 0xFF) ch = '_';
    if (storage.size() > 1000) storage.resize(1000);
    timeval t{st.st_mtim.tv_sec, st.st_mtim.tv_nsec / 1000};
    repo.pause_change_log(true);  // every name is new: one "everything changed" replaces a row per element
    stats.silo = repo.create_silo(tag, opt.is_public, opt.is_project, storage, t);
    Version root = *repo.latest(stats.silo.root_elem, "main");
    uint32_t mode = st.st_mode & 07777;
    repo.db().stmt("UPDATE version SET mode=? WHERE id=?").bind(1, mode).bind(2, root.id).run();
    repo.db().stmt("UPDATE element SET mode=? WHERE id=?").bind(1, mode).bind(2, stats.silo.root_elem).run();
    Walker w{repo, opt, stats, stats.silo.id};
    w.fill(source, tag, root.id);
    repo.pause_change_log(false);
    return stats;
  });
}

}  // namespace tavrel_server
