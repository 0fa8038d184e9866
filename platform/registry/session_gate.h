// SessionGate: the lock of a session, and the threads that are inside it. It outlives the session.
#ifndef TKV_PLATFORM_REGISTRY_SESSION_GATE_H
#define TKV_PLATFORM_REGISTRY_SESSION_GATE_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <thread>

#include "base/fair_mutex.h"

namespace tkv::registry {

// A thread that holds the lock is inside. A thread that goes on without the lock, as while it reads or writes, leaves a
// mark, which it takes and removes without waiting for anybody. So an operation that needs nothing but the session's
// tables costs no more than the lock.
//
// For std::lock_guard, among the threads that are inside already.
class SessionGate {
 public:
  SessionGate() = default;
  SessionGate(const SessionGate&) = delete;
  SessionGate& operator=(const SessionGate&) = delete;

  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

  // One thread's stay. It begins with the lock.
  class Visit {
   public:
    explicit Visit(SessionGate& gate) : gate_(gate) { gate_.lock(); }
    ~Visit() {
      if (mark_ != nullptr) mark_->store(false, std::memory_order_release);
      if (has_lock_) gate_.unlock();
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

    // Goes on with the lock, or without it. No effect if that is so already. The first unlock() throws std::bad_alloc
    // if there is no memory for a mark; the lock is then still held.
    void lock() {
      if (!has_lock_) gate_.lock();
      has_lock_ = true;
    }
    void unlock() {
      if (!has_lock_) return;
      if (mark_ == nullptr) mark_ = &gate_.leave_mark();
      has_lock_ = false;
      gate_.unlock();
    }

   private:
    SessionGate& gate_;
    std::atomic<bool>* mark_ = nullptr;
    bool has_lock_ = true;
  };

  // Waits until nobody is inside without the lock. Nobody may enter any more, and the caller must not be inside. Looks
  // again and again, so that a thread that removes its mark need not look for somebody who waits.
  void wait_until_empty() const {
    constexpr std::chrono::microseconds kLongestPause{500};
    for (const std::atomic<bool>& mark : marks_) {
      for (std::chrono::microseconds pause{1}; mark.load(std::memory_order_acquire);
           pause = std::min(2 * pause, kLongestPause)) {
        std::this_thread::sleep_for(pause);
      }
    }
  }

 private:
  // Requires the lock.
  std::atomic<bool>& leave_mark() {
    for (std::atomic<bool>& mark : marks_) {
      if (mark.load(std::memory_order_acquire)) continue;
      mark.store(true, std::memory_order_relaxed);
      return mark;
    }
    return marks_.emplace_back(true);
  }

  FairMutex mutex_;
  std::deque<std::atomic<bool>> marks_;  // grows under the lock; as many as threads were ever inside at once
};

}  // namespace tkv::registry

#endif
