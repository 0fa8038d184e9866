// FairMutex and FairSharedMutex: locks for short sections, under which no thread waits in vain.
#ifndef TKV_PLATFORM_BASE_FAIR_MUTEX_H
#define TKV_PLATFORM_BASE_FAIR_MUTEX_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace tkv {

// With std::mutex, a thread that unlocks and locks again may overtake a waiting one without limit: the waiting thread
// first has to wake up. Here, waiting threads form a queue, and the first of them is overtaken kMostOvertakings times
// at most. A strict queue would hand the mutex to a sleeping thread each time, and be as slow as its waking.
//
// For std::lock_guard and std::unique_lock. Not recursive.
class FairMutex {
 public:
  static constexpr std::uint32_t kMostOvertakings = 64;

  FairMutex() = default;
  FairMutex(const FairMutex&) = delete;
  FairMutex& operator=(const FairMutex&) = delete;

  void lock() {
    std::uint32_t free = 0;
    if (!state_.compare_exchange_strong(free, kHeld, std::memory_order_acquire, std::memory_order_relaxed)) {
      if (!overtake()) lock_in_turn();
    }
  }

  void unlock() {
    const std::uint32_t before = state_.fetch_and(~(kHeld | kAsleep), std::memory_order_release);
    if ((before & kAsleep) != 0) state_.notify_one();
  }

 private:
  static constexpr std::uint32_t kHeld = 1;
  static constexpr std::uint32_t kAsleep = 2;     // the first thread of the queue has to be woken
  static constexpr std::uint32_t kQueued = 4;     // there is a first thread of the queue
  static constexpr std::uint32_t kOvertaken = 8;  // once; the bits from here on count

  // Locks a free mutex ahead of the queue, unless its first thread was overtaken often enough.
  bool overtake() {
    std::uint32_t state = state_.load(std::memory_order_relaxed);
    while ((state & kHeld) == 0 && state / kOvertaken < kMostOvertakings) {
      const std::uint32_t counted = (state & kQueued) != 0 ? state + kOvertaken : state;
      if (state_.compare_exchange_weak(state, counted | kHeld, std::memory_order_acquire, std::memory_order_relaxed)) {
        return true;
      }
    }
    return false;
  }

  void lock_in_turn() {
    const std::uint32_t ticket = tickets_.fetch_add(1, std::memory_order_relaxed);
    for (std::uint32_t first = first_.load(); first != ticket; first = first_.load()) first_.wait(first);
    std::uint32_t state = state_.fetch_or(kQueued, std::memory_order_relaxed) | kQueued;
    for (;;) {
      if ((state & kHeld) == 0) {
        if (state_.compare_exchange_weak(state, kHeld, std::memory_order_acquire, std::memory_order_relaxed)) break;
      } else if ((state & kAsleep) == 0) {
        (void)state_.compare_exchange_weak(state, state | kAsleep, std::memory_order_relaxed);
      } else {
        state_.wait(state, std::memory_order_relaxed);
      }
      state = state_.load(std::memory_order_relaxed);
    }
    first_.fetch_add(1);
    first_.notify_all();
  }

  std::atomic<std::uint32_t> state_{0};
  std::atomic<std::uint32_t> tickets_{0};  // given out to threads that queue
  std::atomic<std::uint32_t> first_{0};    // the ticket of the first thread of the queue
};

// Many threads may hold it in shared mode. While a thread waits to hold it alone, no further ones are let in, which
// std::shared_mutex does not promise.
//
// For std::shared_lock and std::lock_guard. Not recursive in either mode.
class FairSharedMutex {
 public:
  FairSharedMutex() {
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&lock_, &attributes);
    pthread_rwlockattr_destroy(&attributes);
  }
  ~FairSharedMutex() { pthread_rwlock_destroy(&lock_); }
  FairSharedMutex(const FairSharedMutex&) = delete;
  FairSharedMutex& operator=(const FairSharedMutex&) = delete;

  void lock() { pthread_rwlock_wrlock(&lock_); }
  bool try_lock() { return pthread_rwlock_trywrlock(&lock_) == 0; }
  void unlock() { pthread_rwlock_unlock(&lock_); }
  void lock_shared() { pthread_rwlock_rdlock(&lock_); }
  void unlock_shared() { pthread_rwlock_unlock(&lock_); }

 private:
  pthread_rwlock_t lock_;
};

}  // namespace tkv

#endif
