// Tavrel_Db_Flusher: makes deferred commits durable. After a commit that was written but not synced
// (the database's deferred durability), note_commit() arms a deadline 50 ms ahead unless one is armed;
// the flusher's thread syncs the journal through its sync point when the deadline passes. stop() syncs
// what is pending and joins the thread.
//
// Locks: m_mutex (rank LEAF) guards the deadline, the sync point and the stop flag; the sync itself runs
// without it. note_commit is called with the engine mutex held; the thread never takes the engine mutex.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <thread>

#include "base/tavrel_mutex.h"
#include "db/rec/journal.h"

class Tavrel_Db_Flusher {
 public:
  static constexpr std::chrono::milliseconds DELAY{50};

  Tavrel_Db_Flusher() = default;
  ~Tavrel_Db_Flusher() { stop(); }
  Tavrel_Db_Flusher(const Tavrel_Db_Flusher&) = delete;
  Tavrel_Db_Flusher& operator=(const Tavrel_Db_Flusher&) = delete;

  // Starts (or restarts) the thread on the journal's sync point.
  void start(std::shared_ptr<tavrel::rec::SyncPoint> point);
  void note_commit();
  // Syncs what is pending now; 0 or the engine status of the sync.
  int sync_now();
  void stop();

 private:
  void run();
  Tavrel_Mutex m_mutex{Tavrel_Lock_Rank::LEAF, "Tavrel_Db_Flusher::m_mutex"};
  std::condition_variable_any m_cond;
  std::shared_ptr<tavrel::rec::SyncPoint> m_point;
  bool m_armed = false;
  bool m_stop = false;
  std::chrono::steady_clock::time_point m_deadline;
  std::thread m_thread;
};
