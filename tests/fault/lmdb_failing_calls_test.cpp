// The n-th system call or allocation fails, for every n: what is reported as failed has not happened, what is reported
// as done has, and the registry stays sound.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "failing_calls.h"
#include "lmdb_files.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

using fault::Call;
using fault::has_failed;

struct FailingCall {
  const char* name;
  Call call;
};

class LmdbFailingCalls : public ::testing::TestWithParam<FailingCall> {
 protected:
  LmdbFailingCalls() { options_.directory = directory_ / "registry"; }

  template <typename Work>
  Status with_failure(int nth, Work work) {
    return fault::with_failure(GetParam().call, nth, work);
  }

  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  LmdbOptions options_;
};

// A write of keys and values of several sizes, all of which carry the text.
Status write_text(Store& store, const std::string& text) {
  return store.write([&](Update& update) -> Status {
    Node node;
    if (Status status = update.new_id(&node.id); !status.ok()) return status;
    if (Status status = update.insert(kRootNode, text, node); !status.ok()) return status;
    const std::string large(10'000, text.back());
    if (Status status = update.set_value(node.id, 3, std::as_bytes(std::span(large))); !status.ok()) return status;
    return update.set_value(kRootNode, 3, std::as_bytes(std::span(text)));
  });
}

TEST_P(LmdbFailingCalls, AWriteIsMadeOrNotAsReported) {
  constexpr int kMost = 2000;
  std::string present = "0";
  auto store = open_or_fail(options_);
  ASSERT_TRUE(write_text(*store, present).ok());
  int failed = 0;
  int nth = 0;
  do {
    ASSERT_LT(++nth, kMost);
    const std::string text = std::to_string(nth);
    const Status status = with_failure(nth, [&] { return write_text(*store, text); });
    if (status.ok()) present = text;
    failed += !status.ok();
    EXPECT_EQ(text_of(*store), present) << nth << ": " << status.text();
    expect_sound(*store);
  } while (has_failed);
  if (GetParam().call == Call::kWrite || GetParam().call == Call::kSync) {
    EXPECT_GT(failed, 0);
  }
  store.reset();
  store = open_or_fail(options_);
  EXPECT_EQ(text_of(*store), present);
  expect_sound(*store);
}

TEST_P(LmdbFailingCalls, AnOpeningLeavesTheRegistryAsItWas) {
  constexpr int kMost = 2000;
  ASSERT_TRUE(write_text(*open_or_fail(options_), "former").ok());
  int nth = 0;
  do {
    ASSERT_LT(++nth, kMost);
    std::shared_ptr<Store> store;
    const Status status = with_failure(nth, [&] { return open_lmdb_store(options_, &store); });
    EXPECT_EQ(status.ok(), store != nullptr) << nth << ": " << status.text();
    if (store != nullptr) {
      EXPECT_EQ(text_of(*store), "former");
    }
    store.reset();
    EXPECT_EQ(text_of(*open_or_fail(options_)), "former") << nth;
  } while (has_failed);
  expect_sound(*open_or_fail(options_));
}

TEST_P(LmdbFailingCalls, AWriteThatMakesTheMapGrowIsMadeOrNotAsReported) {
  constexpr int kMost = 3000;
  options_.first_map_size = 256 * 1024;
  const std::string large(600 * 1024, 'l');
  int nth = 0;
  do {
    ASSERT_LT(++nth, kMost);
    LmdbOptions options = options_;
    options.directory = directory_ / std::to_string(nth);
    const auto store = open_or_fail(options);
    ASSERT_TRUE(set_text(*store, kRootNode, "former").ok());
    const Status status = with_failure(nth, [&] { return set_text(*store, kRootNode, large); });
    EXPECT_EQ(text_of(*store), status.ok() ? large : "former") << nth << ": " << status.text();
    expect_sound(*store);
    std::filesystem::remove_all(options.directory);
  } while (has_failed);
}

INSTANTIATE_TEST_SUITE_P(Calls, LmdbFailingCalls,
                         ::testing::Values(FailingCall{"Open", Call::kOpen}, FailingCall{"Map", Call::kMap},
                                           FailingCall{"Write", Call::kWrite}, FailingCall{"Sync", Call::kSync},
                                           FailingCall{"Allocate", Call::kAllocate}),
                         [](const auto& call) { return call.param.name; });

}  // namespace
}  // namespace tkv::store
