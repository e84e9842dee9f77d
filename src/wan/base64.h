// Base64: the standard alphabet "A-Za-z0-9+/" with "=" padding, as the login credentials travel.
//
// decode() reads forgivingly, as form data may have been through a web form: a blank counts as "+",
// any other byte outside the alphabet is skipped, and "=" ends the data. Input whose last group holds a
// single character (6 bits, no whole byte) has no decoding: the result is empty (nullopt).
#pragma once

#include <optional>
#include <string>

class Base64 {
 public:
  static std::string encode(const std::string& text);
  static std::optional<std::string> decode(const std::string& text);
};
