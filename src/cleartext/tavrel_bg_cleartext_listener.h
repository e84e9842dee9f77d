// Tavrel_BG_Cleartext_listener: told how a background cleartext fetch ended. A fetch in the background
// outlives the caller that asked for it, so the caller hands over a listener; the fetch owns it from
// then on and deletes it with itself.
//
// Exactly one of completed() and failed() is called for a fetch that was started (failed() with
// 20026 when the fetch was cancelled because the view is ending); neither when an equal fetch was
// already under way (the request was dropped, and the listener with it). Calls come from a pool
// thread holding no lock of the name service. The base versions do nothing.
#pragma once

#include <string>

class Tavrel_BG_Cleartext_listener {
 public:
  virtual ~Tavrel_BG_Cleartext_listener();
  // The cleartext is in the cache.
  virtual void completed();
  // The fetch failed with the agent status `status` (20000 range); `message` says why.
  virtual void failed(int status, std::string message);
};
