// The doubles that the tests of the registry client use do what their headers say.
#include "faulty_store.h"

#include <gtest/gtest.h>

#include "memory_store.h"

namespace tkv::store {
namespace {

class FaultyStoreTest : public ::testing::Test {
 protected:
  Status insert(std::string_view name) {
    return store_.write([&](Update& update) -> Status {
      Node node;
      if (Status status = update.new_id(&node.id); !status.ok()) return status;
      return update.insert(kRootNode, name, node);
    });
  }

  Status find(std::string_view name) {
    Node node;
    return store_.read([&](View& view) { return view.find(kRootNode, name, &node); });
  }

  FaultyStore store_{std::make_shared<MemoryStore>()};
};

TEST_F(FaultyStoreTest, PassesCallsOn) {
  EXPECT_TRUE(insert("a").ok());
  EXPECT_TRUE(find("a").ok());
  EXPECT_TRUE(find("b").is(PRTKV_NO_SUCH_KEY));
  EXPECT_STREQ(store_.kind(), "memory");
}

TEST_F(FaultyStoreTest, FailsTheNamedCallOnceAndChangesNothing) {
  store_.fail(Call::kInsert, 2, {PRTKV_STORAGE_FULL, "no room"});
  EXPECT_TRUE(insert("a").ok());
  const Status failed = insert("b");
  EXPECT_TRUE(failed.is(PRTKV_STORAGE_FULL));
  EXPECT_EQ(failed.text(), "no room");
  EXPECT_TRUE(find("b").is(PRTKV_NO_SUCH_KEY));
  EXPECT_TRUE(insert("b").ok());
}

TEST_F(FaultyStoreTest, AFailingCommitTakesBackWhatTheFunctionWrote) {
  store_.fail(Call::kCommit, 1, PRTKV_STORAGE_FAILED);
  EXPECT_TRUE(insert("a").is(PRTKV_STORAGE_FAILED));
  EXPECT_TRUE(find("a").is(PRTKV_NO_SUCH_KEY));
}

TEST_F(FaultyStoreTest, EveryCallOfAnOperationCanBeMadeToFail) {
  ASSERT_TRUE(insert("probe").ok());
  const std::size_t calls = store_.calls();
  EXPECT_EQ(calls, 4u);  // write, new_id, insert, commit
  for (std::size_t nth = 1; nth <= calls; ++nth) {
    store_.reset();
    store_.fail_any(nth, PRTKV_STORAGE_FAILED);
    EXPECT_TRUE(insert("a").is(PRTKV_STORAGE_FAILED)) << "call " << nth;
    EXPECT_TRUE(find("a").is(PRTKV_NO_SUCH_KEY)) << "call " << nth;
  }
}

TEST_F(FaultyStoreTest, AFailureCanLast) {
  store_.fail(Call::kRead, 1, PRTKV_UNREACHABLE, FaultyStore::kAlways);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(find("a").is(PRTKV_UNREACHABLE));
  store_.reset();
  EXPECT_TRUE(find("a").is(PRTKV_NO_SUCH_KEY));
}

TEST_F(FaultyStoreTest, FunctionsRunTwiceAndTheFirstRunIsInVain) {
  store_.run_functions_twice();
  int runs = 0;
  ASSERT_TRUE(store_
                  .write([&](Update& update) -> Status {
                    ++runs;
                    Node node;
                    if (Status status = update.new_id(&node.id); !status.ok()) return status;
                    return update.insert(kRootNode, "a", node);
                  })
                  .ok());
  EXPECT_EQ(runs, 2);
  EXPECT_TRUE(find("a").ok());
}

}  // namespace
}  // namespace tkv::store
