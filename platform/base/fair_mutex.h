// FairMutex and FairSharedMutex: locks for short sections, under which no thread waits in vain.
#ifndef TKV_PLATFORM_BASE_FAIR_MUTEX_H
#define TKV_PLATFORM_BASE_FAIR_MUTEX_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace tkv {

// With std::mutex, a thread that unlocks and locks again may overtake a waiting one without limit: the waiting thread
// first has to wake up. Here, waiting threads form a queue, and the first of them is overtaken kMostOvertakings times,
// and once more by each thread that was locking when it came. A strict queue would hand the mutex to a sleeping thread
// each time, and be as slow as its waking.
//
// Locking a free mutex is one atomic operation, and unlocking it is a plain store. So the processor may look whether
// somebody sleeps before others see that the mutex is free, and a thread that is falling asleep may be missed. That
// thread therefore looks at the mutex some more times first, and never sleeps for long.
//
// For std::lock_guard and std::unique_lock. Not recursive.
class FairMutex {
 public:
  static constexpr std::uint32_t kMostOvertakings = 64;

  FairMutex() = default;
  FairMutex(const FairMutex&) = delete;
  FairMutex& operator=(const FairMutex&) = delete;

  void lock() {
    if (queue_.load(std::memory_order_relaxed) != kNobody || !take()) lock_among_others();
  }

  void unlock() {
    held_.store(0, std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (asleep_.load(std::memory_order_relaxed) != 0) wake();
  }

 private:
  static constexpr std::uint32_t kNobody = 0;

  bool take() {
    std::uint32_t free = 0;
    return held_.compare_exchange_strong(free, 1, std::memory_order_acquire, std::memory_order_relaxed);
  }

  void lock_among_others();
  bool overtake();
  void sleep();
  void wake();

  std::atomic<std::uint32_t> held_{0};
  std::atomic<std::uint32_t> queue_{kNobody};  // or 1 + how often the first thread of the queue was overtaken
  std::atomic<std::uint32_t> asleep_{0};       // 1: the first thread of the queue has to be woken
  std::atomic<std::uint32_t> tickets_{0};      // given out to threads that queue
  std::atomic<std::uint32_t> first_{0};        // the ticket of the first thread of the queue
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
