#include "proto/rpcargs.h"

namespace tavrel_wan {

namespace {
bool valid_name(const std::string& name) { return !name.empty() && name.find('=') == std::string::npos; }
}  // namespace

void rpcargs_add_arg(std::string* out, const std::string& name, const std::string& value) {
  if (!valid_name(name)) return;
  out->append(name).append("=");
  std::string work = value;
  size_t lf;
  while ((lf = work.find('\n')) != std::string::npos) {
    out->append(work, 0, lf).append("%0A");
    work.erase(0, lf + 1);
  }
  if (!work.empty()) out->append(value);
  out->append("\n");
}

void rpcargs_add_flag(std::string* out, const std::string& name) {
  if (!valid_name(name)) return;
  out->append(name).append("\n");
}

bool rpcargs_parse(const std::string& text, std::vector<RpcArg>* out, std::string* error,
                   const RpcArgLimits& limits) {
  out->clear();
  size_t pos = 0;
  size_t lineno = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    ++lineno;
    if (line.size() > limits.max_line) {
      *error = "argument line " + std::to_string(lineno) + " is longer than " + std::to_string(limits.max_line) +
               " bytes";
      return false;
    }
    if (line.empty()) continue;
    if (out->size() >= limits.max_args) {
      *error = "more than " + std::to_string(limits.max_args) + " arguments";
      return false;
    }
    RpcArg arg;
    size_t eq = line.find('=');
    if (eq == std::string::npos) {
      arg.name = line;
      arg.has_value = false;
    } else {
      arg.name = line.substr(0, eq);
      std::string raw = line.substr(eq + 1);
      arg.value.reserve(raw.size());
      for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '%' && i + 2 < raw.size() && raw[i + 1] == '0' && raw[i + 2] == 'A') {
          arg.value.push_back('\n');
          i += 2;
        } else {
          arg.value.push_back(raw[i]);
        }
      }
    }
    if (arg.name.empty()) {
      *error = "argument line " + std::to_string(lineno) + " has no name";
      return false;
    }
    out->push_back(std::move(arg));
  }
  return true;
}

}  // namespace tavrel_wan
