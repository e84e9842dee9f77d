#include "server/request_log.h"

namespace tavrel_server {

namespace {
std::string escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '\n') out += "\\n";
    else if (c == '\r') out += "\\r";
    else if (c == '\t') out += "\\t";
    else out.push_back(c);
  }
  return out;
}
}  // namespace

std::string LogEntry::line() const {
  return std::to_string(seq) + "\t" + method + "\t" + escape(path) + "\t" + escape(rpc) + "\t" +
         std::to_string(http_status) + "\t" + (status < 0 ? std::string("-") : std::to_string(status)) + "\t" +
         escape(args);
}

RequestLog::RequestLog(size_t capacity, const std::string& file) : capacity_(capacity ? capacity : 1) {
  if (!file.empty()) file_ = std::fopen(file.c_str(), "a");
}

RequestLog::~RequestLog() {
  if (file_) std::fclose(file_);
}

void RequestLog::add(LogEntry e) {
  if (e.args.size() > 4096) e.args.resize(4096);
  std::lock_guard<std::mutex> g(mu_);
  e.seq = next_seq_++;
  if (file_) {
    std::string l = e.line() + "\n";
    std::fwrite(l.data(), 1, l.size(), file_);
    std::fflush(file_);
  }
  entries_.push_back(std::move(e));
  while (entries_.size() > capacity_) entries_.pop_front();
}

std::vector<LogEntry> RequestLog::since(uint64_t since) {
  std::lock_guard<std::mutex> g(mu_);
  std::vector<LogEntry> out;
  for (const auto& e : entries_)
    if (e.seq > since) out.push_back(e);
  return out;
}

void RequestLog::clear() {
  std::lock_guard<std::mutex> g(mu_);
  entries_.clear();
}

}  // namespace tavrel_server
