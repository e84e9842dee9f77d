#include "client/update_log.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace tavrel::client {

namespace {

constexpr size_t kReadBlock = 65536;

bool is(const std::string& key, const char* want) { return key == want; }

}  // namespace

bool UpdateLog::poll(std::vector<std::string>* lines) {
  int fd = open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = true;
  char buf[kReadBlock];
  for (;;) {
    ssize_t n = pread(fd, buf, sizeof buf, m_offset);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = false;
    if (n <= 0) break;
    m_offset += n;
    feed(std::string(buf, static_cast<size_t>(n)), lines);
  }
  close(fd);
  return ok;
}

void UpdateLog::feed(const std::string& bytes, std::vector<std::string>* lines) {
  m_pending += bytes;
  size_t start = 0;
  for (size_t nl; (nl = m_pending.find('\n', start)) != std::string::npos; start = nl + 1) {
    std::string line = m_pending.substr(start, nl - start);
    take_line(line);
    if (lines) lines->push_back(std::move(line));
  }
  m_pending.erase(0, start);
}

void UpdateLog::take_line(const std::string& line) {
  size_t key_end = line.find_first_of(" \t");
  std::string key = line.substr(0, key_end);
  if (key.empty() || key.back() != ':') return;  // a title line
  size_t at = key_end == std::string::npos ? line.size() : line.find_first_not_of(" \t", key_end);
  std::string value = at == std::string::npos ? "" : line.substr(at);
  UpdateLogCounts& c = m_state.counts;
  if (is(key, "New:")) {
    ++c.loaded;
  } else if (is(key, "Updated:")) {
    ++c.updated;
  } else if (is(key, "UnloadDeleted:") || is(key, "UnloadPreserved:") || is(key, "UnloadRenamed:")) {
    ++c.unloaded;
  } else if (is(key, "HijackedPreserved:") || is(key, "HijackedDeleted:") || is(key, "HijackedRenamed:")) {
    ++c.hijacked;
  } else if (is(key, "Error:")) {
    ++c.errors;
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
    m_state.last_error = value;
  } else if (is(key, "FormatVersion:")) {
    m_state.header = true;
  } else if (is(key, "ProcessID:")) {
    m_state.process_id = atoi(value.c_str());
  } else if (is(key, "Resume:")) {
    m_state.resume = value == "TRUE";
  } else if (is(key, "Status:")) {
    m_saw_status = true;
    m_state.succeeded = value == "Succeeded";
  } else if (is(key, "Cancelled:")) {
    m_saw_cancelled = true;
    m_state.cancelled = value == "TRUE";
  } else if (is(key, "ErrorMessage:")) {
    m_state.error_message = value;
  } else if (is(key, "ErrorStatus:")) {
    m_state.error_status = atoi(value.c_str());
  }
  // A success ends with Cancelled:, a failure with ErrorStatus:.
  if (m_saw_status && m_saw_cancelled && (m_state.succeeded || is(key, "ErrorStatus:"))) m_state.finished = true;
}

std::string update_counts_text(const UpdateLogCounts& c) {
  std::string s = std::to_string(c.applied()) + (c.applied() == 1 ? " element" : " elements") + " applied (" +
                  std::to_string(c.loaded) + " new, " + std::to_string(c.updated) + " updated, " +
                  std::to_string(c.unloaded) + " removed";
  if (c.hijacked) s += ", " + std::to_string(c.hijacked) + " hijacked";
  if (c.errors) s += ", " + std::to_string(c.errors) + (c.errors == 1 ? " error" : " errors");
  return s + ")";
}

std::string update_progress_line(const UpdateLogState& s) {
  if (s.counts.applied() == 0 && s.counts.errors == 0) return "updating: waiting for the server";
  return "updating: " + update_counts_text(s.counts);
}

std::vector<std::string> update_log_names(const std::string& log_dir) {
  std::vector<std::string> names;
  DIR* d = opendir(log_dir.c_str());
  if (!d) return names;
  while (struct dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n.size() > 12 && n.compare(0, 7, "update.") == 0 && n.compare(n.size() - 5, 5, ".updt") == 0)
      names.push_back(n);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace tavrel::client
