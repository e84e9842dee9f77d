#include "db/tavrel_db_flusher.h"

#include <mutex>

void Tavrel_Db_Flusher::start(std::shared_ptr<tavrel::rec::SyncPoint> point) {
  stop();
  std::lock_guard<Tavrel_Mutex> g(m_mutex);
  m_point = std::move(point);
  m_stop = false;
  m_armed = false;
  m_thread = std::thread([this] { run(); });
}

void Tavrel_Db_Flusher::note_commit() {
  std::lock_guard<Tavrel_Mutex> g(m_mutex);
  if (m_armed || !m_point) return;
  m_armed = true;
  m_deadline = std::chrono::steady_clock::now() + DELAY;
  m_cond.notify_all();
}

int Tavrel_Db_Flusher::sync_now() {
  std::shared_ptr<tavrel::rec::SyncPoint> point;
  {
    std::lock_guard<Tavrel_Mutex> g(m_mutex);
    point = m_point;
  }
  return point ? point->sync() : 0;
}

void Tavrel_Db_Flusher::stop() {
  std::shared_ptr<tavrel::rec::SyncPoint> point;
  {
    std::lock_guard<Tavrel_Mutex> g(m_mutex);
    m_stop = true;
    m_cond.notify_all();
  }
  if (m_thread.joinable()) m_thread.join();
  {
    std::lock_guard<Tavrel_Mutex> g(m_mutex);
    point.swap(m_point);
    m_armed = false;
  }
  if (point) point->sync();
}

void Tavrel_Db_Flusher::run() {
  std::unique_lock<Tavrel_Mutex> lk(m_mutex);
  while (!m_stop) {
    if (!m_armed) {
      m_cond.wait(lk);
      continue;
    }
    if (m_cond.wait_until(lk, m_deadline) != std::cv_status::timeout && !m_stop) continue;
    m_armed = false;
    std::shared_ptr<tavrel::rec::SyncPoint> point = m_point;
    lk.unlock();
    if (point) point->sync();  // a failure shows again at the next checkpoint, which syncs the files
    lk.lock();
  }
}
