#include "base/fair_mutex.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace tkv {

void FairMutex::lock_among_others() {
  if (overtake()) return;
  const std::uint32_t ticket = tickets_.fetch_add(1, std::memory_order_relaxed);
  for (std::uint32_t first = first_.load(); first != ticket; first = first_.load()) first_.wait(first);
  queue_.store(1, std::memory_order_relaxed);
  while (!take()) sleep();
  asleep_.store(0, std::memory_order_relaxed);
  queue_.store(kNobody, std::memory_order_relaxed);
  first_.fetch_add(1);
  first_.notify_all();
}

// Locks a free mutex ahead of the queue, unless its first thread was overtaken often enough. That thread is the only
// one besides the holder that changes the number, and only while it is kNobody.
bool FairMutex::overtake() {
  if (queue_.load(std::memory_order_relaxed) > kMostOvertakings || !take()) return false;
  const std::uint32_t queue = queue_.load(std::memory_order_relaxed);
  if (queue != kNobody) queue_.store(queue + 1, std::memory_order_relaxed);
  return true;
}

// Returns when the mutex may be free.
void FairMutex::sleep() {
  constexpr int kLooks = 4;
  constexpr timespec kLongest{0, 1'000'000};
  asleep_.store(1);
  for (int look = 0; look < kLooks; ++look) {
    if (held_.load() == 0) return;
    sched_yield();
  }
  (void)syscall(SYS_futex, &asleep_, FUTEX_WAIT_PRIVATE, 1, &kLongest, nullptr, 0);
}

void FairMutex::wake() {
  asleep_.store(0);
  (void)syscall(SYS_futex, &asleep_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

}  // namespace tkv
