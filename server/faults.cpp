#include "server/faults.h"

namespace tavrel_server {

bool FaultInjector::valid_kind(const std::string& k) {
  return k == "refuse_login" || k == "delay_before" || k == "delay_inside" || k == "cut_after" || k == "cut_parts" ||
         k == "http_status" || k == "corrupt_header" || k == "status";
}

void FaultInjector::arm(const Fault& f) {
  std::lock_guard<std::mutex> g(mu_);
  faults_.push_back(f);
}

void FaultInjector::clear() {
  std::lock_guard<std::mutex> g(mu_);
  faults_.clear();
}

std::vector<Fault> FaultInjector::armed() {
  std::lock_guard<std::mutex> g(mu_);
  return faults_;
}

FaultPlan FaultInjector::take(const std::string& rpc) {
  FaultPlan p;
  std::lock_guard<std::mutex> g(mu_);
  for (auto it = faults_.begin(); it != faults_.end();) {
    if (!it->match.empty() && it->match != rpc) {
      ++it;
      continue;
    }
    const std::string& k = it->kind;
    if (k == "refuse_login") {
      if (rpc != "Tavrel_Orlen::login_rpc") {
        ++it;
        continue;
      }
      p.refuse_login = true;
    } else if (k == "delay_before") {
      p.delay_before_ms = it->value;
    } else if (k == "delay_inside") {
      p.delay_inside_ms = it->value;
    } else if (k == "cut_after") {
      p.cut_after = it->value;
    } else if (k == "cut_parts") {
      p.cut_parts = it->value;
    } else if (k == "http_status") {
      p.http_status = int(it->value);
    } else if (k == "corrupt_header") {
      p.corrupt_header = true;
    } else if (k == "status") {
      p.status_override = true;
      p.status_code = int32_t(it->value);
    }
    if (it->count > 0 && --it->count == 0) {
      it = faults_.erase(it);
    } else {
      ++it;
    }
  }
  return p;
}

}  // namespace tavrel_server
