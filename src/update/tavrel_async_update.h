// Tavrel_Async_Update: the thread that runs a whole-view update. It owns the private copy of the
// Tavrel_Update that queue_view_update made (which holds the update gate from then on) and runs
// do_view_update(false) on it, which ends by writing the log's trailer and letting go of the gate.
//
// Should the thread never run (it could not be started), its deletion still ends the update: the
// log gets a trailer with message 62 and the gate is let go, so the waiting request and later
// updates are not held for ever.
#pragma once

#include <memory>

#include "core/tavrel_olthread.h"

class Tavrel_Update;

class Tavrel_Async_Update : public Tavrel_Request_Thread {
 public:
  explicit Tavrel_Async_Update(Tavrel_Update* update);
  ~Tavrel_Async_Update() override;

  int execute() override;
  Tavrel_Update* get_update() const { return m_update.get(); }

 private:
  std::unique_ptr<Tavrel_Update> m_update;
  bool m_executed = false;
};
