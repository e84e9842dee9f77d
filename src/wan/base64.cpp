#include "wan/base64.h"

#include <array>

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Reverse table: 0-63 for the alphabet, -1 otherwise. Built once, at first use.
const std::array<int, 256>& reverse_table() {
  static const std::array<int, 256> table = [] {
    std::array<int, 256> t;
    t.fill(-1);
    for (int i = 0; i < 64; ++i) t[static_cast<unsigned char>(kAlphabet[i])] = i;
    return t;
  }();
  return table;
}

}  // namespace

std::string Base64::encode(const std::string& text) {
  std::string out;
  out.reserve((text.size() + 2) / 3 * 4);
  size_t i = 0;
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  for (; i + 3 <= text.size(); i += 3) {
    unsigned v = (p[i] << 16) | (p[i + 1] << 8) | p[i + 2];
    out.push_back(kAlphabet[(v >> 18) & 63]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(kAlphabet[(v >> 6) & 63]);
    out.push_back(kAlphabet[v & 63]);
  }
  size_t rest = text.size() - i;
  if (rest > 0) {
    unsigned v = p[i] << 16;
    if (rest == 2) v |= p[i + 1] << 8;
    out.push_back(kAlphabet[(v >> 18) & 63]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(rest == 2 ? kAlphabet[(v >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

std::optional<std::string> Base64::decode(const std::string& text) {
  const auto& rev = reverse_table();
  std::string out;
  out.reserve(text.size() / 4 * 3 + 3);
  unsigned acc = 0;
  int have = 0;  // sextets in acc
  for (char ch : text) {
    if (ch == '=') break;
    if (ch == ' ') ch = '+';
    int v = rev[static_cast<unsigned char>(ch)];
    if (v < 0) continue;
    acc = (acc << 6) | static_cast<unsigned>(v);
    if (++have == 4) {
      out.push_back(static_cast<char>((acc >> 16) & 0xff));
      out.push_back(static_cast<char>((acc >> 8) & 0xff));
      out.push_back(static_cast<char>(acc & 0xff));
      acc = 0;
      have = 0;
    }
  }
  if (have == 1) return std::nullopt;  // 6 bits make no byte
  if (have == 2) {
    out.push_back(static_cast<char>((acc >> 4) & 0xff));
  } else if (have == 3) {
    out.push_back(static_cast<char>((acc >> 10) & 0xff));
    out.push_back(static_cast<char>((acc >> 2) & 0xff));
  }
  return out;
}
