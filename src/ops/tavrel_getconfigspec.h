// Tavrel_GetConfigSpec: the config spec as the server holds it, brought into the view's cache.
//
// get_server_cspec asks the server (Get_ConfigSpec with the view's identity) and saves the element
// rules in the storage's rule file, and for a view of type "tkm" the stream rules too. The request
// operation that answers clients (rules from the cache, load rules from the view database) joins
// this class with the view database.
#pragma once

#include <string>

class Tavrel_ConfigSpec;
class Tavrel_View;

class Tavrel_GetConfigSpec {
 public:
  // 0 on success. A failed call gives the status of check_rpc_status (its text appended to
  // `message`); a rule file that cannot be written gives 20008 with message 46. The rules of the
  // reply are handed back through the out parameters when they are not null.
  static int get_server_cspec(Tavrel_View* view, Tavrel_ConfigSpec& cspec, std::string& message,
                              std::string* elem_rules = nullptr, std::string* load_rules = nullptr);
};
