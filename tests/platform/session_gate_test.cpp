#include "registry/session_gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace tkv::registry {
namespace {

using Visit = SessionGate::Visit;

TEST(SessionGate, ThreadsWithoutTheLockAreInsideAtTheSameTime) {
  SessionGate gate;
  Visit first(gate);
  first.unlock();
  Visit second(gate);
  second.unlock();
  const std::lock_guard lock(gate);
}

TEST(SessionGate, OneThreadAtATimeHasTheLock) {
  SessionGate gate;
  constexpr int kThreads = 8;
  constexpr int kRounds = 5'000;
  int total = 0;
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        Visit visit(gate);
        ++total;
        visit.unlock();
        visit.lock();
        ++total;
        if (i % 2 == 0) visit.unlock();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(total, 2 * kThreads * kRounds);
}

TEST(SessionGate, LockingTwiceAndUnlockingTwiceIsDoingSoOnce) {
  SessionGate gate;
  {
    Visit visit(gate);
    visit.lock();
    visit.unlock();
    visit.unlock();
    visit.lock();
  }
  const std::lock_guard lock(gate);
  gate.wait_until_empty();
}

// Visits end in another order than they began in, with the lock and without it.
TEST(SessionGate, EveryThreadThatIsInsideWithoutTheLockIsAwaited) {
  SessionGate gate;
  constexpr int kVisits = 5;
  std::vector<std::optional<Visit>> visits(kVisits);
  for (auto& visit : visits) visit.emplace(gate).unlock();
  std::atomic<int> left{0};
  auto emptied = std::async(std::launch::async, [&] {
    gate.wait_until_empty();
    return left.load();
  });
  for (const int number : {1, 4, 0, 3, 2}) {
    std::this_thread::yield();
    auto& visit = visits[static_cast<std::size_t>(number)];
    if (number % 2 == 0) visit->lock();
    ++left;
    visit.reset();
  }
  EXPECT_EQ(emptied.get(), kVisits);
}

}  // namespace
}  // namespace tkv::registry
