// Threads of one process that open registries at the same time, while the disk is slow for one of them.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <semaphore>
#include <string>
#include <vector>

#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace {

std::atomic<bool> next_is_slow{false};
std::binary_semaphore waiting{0};
std::binary_semaphore done{0};

}  // namespace

extern "C" [[gnu::visibility("default")]] int fsync(int file) {
  if (next_is_slow.exchange(false)) {
    waiting.release();
    done.acquire();
  }
  return static_cast<int>(syscall(SYS_fsync, file));
}

namespace tkv::store {
namespace {

using namespace std::chrono_literals;

// Holds up the next fsync until its end.
class SlowDisk {
 public:
  SlowDisk() { next_is_slow = true; }
  ~SlowDisk() {
    if (!next_is_slow.exchange(false)) done.release();
  }
  SlowDisk(const SlowDisk&) = delete;
  SlowDisk& operator=(const SlowDisk&) = delete;

  static bool wait_until_used() { return waiting.try_acquire_for(60s); }
};

Status open_registry(const std::string& directory, std::shared_ptr<Store>* store) {
  LmdbOptions options;
  options.directory = directory;
  return open_lmdb_store(options, store);
}

std::future<bool> open_in_another_thread(const std::string& directory) {
  return std::async(std::launch::async, [directory] {
    std::shared_ptr<Store> store;
    return open_registry(directory, &store).ok();
  });
}

TEST(LmdbOpening, DoesNotWaitForTheCreationOfAnotherRegistry) {
  const TemporaryDirectory directory;
  std::shared_ptr<Store> existing;
  ASSERT_TRUE(open_registry(directory / "existing", &existing).ok());
  std::future<bool> created;
  std::future<bool> opened;
  std::future<bool> opened_again;
  {
    const SlowDisk disk;
    created = open_in_another_thread(directory / "created");
    ASSERT_TRUE(SlowDisk::wait_until_used());
    opened = open_in_another_thread(directory / "new");
    opened_again = open_in_another_thread(directory / "existing");
    EXPECT_EQ(opened.wait_for(60s), std::future_status::ready);
    EXPECT_EQ(opened_again.wait_for(60s), std::future_status::ready);
    EXPECT_EQ(created.wait_for(0s), std::future_status::timeout);
  }
  EXPECT_TRUE(created.get());
  EXPECT_TRUE(opened.get());
  EXPECT_TRUE(opened_again.get());
}

TEST(LmdbOpening, ThreadsThatCreateARegistryAtOnceShareIt) {
  constexpr int kThreads = 8;
  const TemporaryDirectory directory;
  std::vector<std::shared_ptr<Store>> stores(kThreads);
  std::vector<std::future<bool>> opened;
  for (auto& store : stores) {
    opened.push_back(
        std::async(std::launch::async, [&] { return open_registry(directory / "registry", &store).ok(); }));
  }
  for (auto& each : opened) EXPECT_TRUE(each.get());
  if (HasFailure()) return;
  const auto add = [](Update& update) -> Status {
    Node node;
    if (Status status = update.new_id(&node.id); !status.ok()) return status;
    return update.insert(kRootNode, "a", node);
  };
  ASSERT_TRUE(stores.front()->write(add).ok());
  for (auto& store : stores) {
    Node node;
    EXPECT_TRUE(store->read([&](View& view) { return view.find(kRootNode, "a", &node); }).ok());
  }
}

}  // namespace
}  // namespace tkv::store
