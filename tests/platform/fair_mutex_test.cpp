#include "base/fair_mutex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

namespace tkv {
namespace {

void in_threads(int count, const std::function<void(int)>& work) {
  std::vector<std::thread> threads;
  for (int number = 0; number < count; ++number) threads.emplace_back(work, number);
  for (std::thread& thread : threads) thread.join();
}

TEST(FairMutex, HoldsOneThreadAtATime) {
  FairMutex mutex;
  int total = 0;
  constexpr int kThreads = 8;
  constexpr int kRounds = 20'000;
  in_threads(kThreads, [&](int) {
    for (int i = 0; i < kRounds; ++i) {
      const std::lock_guard lock(mutex);
      ++total;
    }
  });
  EXPECT_EQ(total, kThreads * kRounds);
}

void work_for(std::chrono::microseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < end) continue;
}

// How often a thread that unlocks and at once locks again overtakes another, from when that one is about to lock. It
// holds the mutex for longer than a thread takes to wake up.
std::uint64_t overtakings(FairMutex& mutex) {
  std::uint64_t locked = 0;  // guarded by the mutex
  std::atomic<bool> about_to_lock{false};
  std::atomic<bool> has_locked{false};
  std::uint64_t seen = 0;
  mutex.lock();
  std::thread other([&] {
    about_to_lock = true;
    const std::lock_guard lock(mutex);
    seen = locked;
    has_locked = true;
  });
  while (!about_to_lock) std::this_thread::yield();
  while (!has_locked) {
    mutex.unlock();
    mutex.lock();
    ++locked;
    work_for(std::chrono::microseconds(100));
  }
  mutex.unlock();
  other.join();
  return seen;
}

TEST(FairMutex, AWaitingThreadIsNotOvertakenWithoutLimit) {
  FairMutex mutex;
  std::vector<std::uint64_t> counts(11);
  for (std::uint64_t& count : counts) count = overtakings(mutex);
  // The other thread may lose the processor before it has begun to wait.
  std::nth_element(counts.begin(), counts.begin() + 5, counts.end());
  EXPECT_LE(counts[5], FairMutex::kMostOvertakings + 1);
}

// Each turn of the other thread begins while the mutex is held, and mostly with sleep.
TEST(FairMutex, AThreadThatSleepsGetsItsTurn) {
  FairMutex mutex;
  std::atomic<int> wanted{0};
  std::atomic<int> had{0};
  constexpr int kTurns = 200;
  std::thread other([&] {
    for (int turn = 1; turn <= kTurns; ++turn) {
      while (wanted.load() < turn) std::this_thread::yield();
      const std::lock_guard lock(mutex);
      had = turn;
    }
  });
  for (int turn = 1; turn <= kTurns; ++turn) {
    {
      const std::lock_guard lock(mutex);
      wanted = turn;
      work_for(std::chrono::microseconds(turn % 2 == 0 ? 100 : 0));
      EXPECT_EQ(had.load(), turn - 1);
    }
    while (had.load() < turn) std::this_thread::yield();
  }
  other.join();
}

TEST(FairMutex, EveryOneOfManyThreadsGetsItsTurns) {
  FairMutex mutex;
  constexpr int kThreads = 8;
  std::atomic<int> started{0};
  std::atomic<int> finished{0};
  in_threads(kThreads, [&](int number) {
    for (++started; started.load() < kThreads;) std::this_thread::yield();
    // The first thread needs a thousand turns among others that go on until it has had them.
    for (int turns = 0; number == 0 ? turns < 1000 : finished.load() == 0; ++turns) {
      const std::lock_guard lock(mutex);
    }
    ++finished;
  });
  EXPECT_EQ(finished.load(), kThreads);
}

TEST(FairSharedMutex, ReadersShareAndAWaitingWriterGoesFirst) {
  FairSharedMutex mutex;
  std::atomic<bool> waits{false};
  std::atomic<bool> written{false};
  mutex.lock_shared();
  std::thread sharer([&] { const std::shared_lock lock(mutex); });
  sharer.join();
  EXPECT_FALSE(mutex.try_lock());
  std::thread writer([&] {
    waits = true;
    const std::lock_guard lock(mutex);
    written = true;
  });
  while (!waits) std::this_thread::yield();
  std::vector<std::thread> readers;
  for (int number = 0; number < 4; ++number) {
    readers.emplace_back([&] {
      while (!written) {
        const std::shared_lock lock(mutex);
      }
    });
  }
  mutex.unlock_shared();
  writer.join();
  for (std::thread& reader : readers) reader.join();
  EXPECT_TRUE(written);
}

}  // namespace
}  // namespace tkv
