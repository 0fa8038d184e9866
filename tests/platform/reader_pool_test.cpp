#include "store/lmdb/reader_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>
#include <thread>
#include <vector>

namespace tkv::store {
namespace {

TEST(ReaderPool, AThreadGetsTheSlotItUsedLast) {
  ReaderPool pool;
  ReaderSlot& first = pool.claim(false);
  pool.release(first);
  ReaderSlot& second = pool.claim(false);
  EXPECT_EQ(&first, &second);
  pool.release(second);
}

TEST(ReaderPool, NoSlotIsClaimedTwiceHoweverManyReadersThereAre) {
  ReaderPool pool;
  std::set<ReaderSlot*> claimed;
  for (int i = 0; i < 200; ++i) EXPECT_TRUE(claimed.insert(&pool.claim(i > 0)).second);
  for (ReaderSlot* slot : claimed) pool.release(*slot);
}

TEST(ReaderPool, NoReaderRunsWhileTheMapIsHeldExclusively) {
  ReaderPool pool;
  std::atomic<int> readers{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      while (!stop) {
        ReaderSlot& slot = pool.claim(false);
        ++readers;
        ReaderSlot& nested = pool.claim(true);
        pool.release(nested);
        --readers;
        pool.release(slot);
      }
    });
  }
  for (int i = 0; i < 300; ++i) pool.with_no_readers([&] { EXPECT_EQ(readers, 0); });
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

TEST(ReaderPool, ShortReadersContinueWhileALongReaderIsAwaited) {
  ReaderPool pool;
  pool.begin_long();
  ReaderSlot& held = pool.claim(false);
  std::atomic<bool> alone{false};
  std::future<void> closing = std::async(std::launch::async, [&] { pool.with_no_readers([&] { alone = true; }); });
  for (int i = 0; i < 1000; ++i) {
    std::async(std::launch::deferred, [&] { pool.release(pool.claim(false)); }).get();
    EXPECT_FALSE(alone);
  }
  pool.release(held);
  pool.end_long();
  closing.get();
  EXPECT_TRUE(alone);
}

TEST(ReaderPool, AnExceptionReopensTheGate) {
  ReaderPool pool;
  EXPECT_THROW(pool.with_no_readers([] { throw std::runtime_error("out of memory"); }), std::runtime_error);
  pool.begin_long();
  pool.release(pool.claim(false));
  pool.end_long();
}

}  // namespace
}  // namespace tkv::store
