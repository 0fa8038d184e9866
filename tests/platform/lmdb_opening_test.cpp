// Threads of one process that open registries at the same time, while the disk is slow for one of them.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <semaphore>
#include <string>
#include <string_view>
#include <vector>

#include "lmdb_files.h"
#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace {

std::atomic<bool> next_is_slow{false};
std::atomic<bool> next_lock_file_is_slow{false};
std::binary_semaphore waiting{0};
std::binary_semaphore done{0};

void wait_if(std::atomic<bool>& slow) {
  if (!slow.exchange(false)) return;
  waiting.release();
  done.acquire();
}

}  // namespace

extern "C" [[gnu::visibility("default")]] int fsync(int file) {
  wait_if(next_is_slow);
  return static_cast<int>(syscall(SYS_fsync, file));
}

extern "C" [[gnu::visibility("default")]] int renameat2(int from_directory, const char* from, int to_directory,
                                                        const char* to, unsigned flags) noexcept {
  const auto result = static_cast<int>(syscall(SYS_renameat2, from_directory, from, to_directory, to, flags));
  if (std::string_view(to) == "lock.mdb") wait_if(next_lock_file_is_slow);
  return result;
}

namespace tkv::store {
namespace {

using namespace std::chrono_literals;

// Holds up the next call of a kind until its end.
class SlowDisk {
 public:
  explicit SlowDisk(std::atomic<bool>& next) : next_(next) { next_ = true; }
  ~SlowDisk() {
    if (!next_.exchange(false)) done.release();
  }
  SlowDisk(const SlowDisk&) = delete;
  SlowDisk& operator=(const SlowDisk&) = delete;

  static bool wait_until_used() { return waiting.try_acquire_for(60s); }

 private:
  std::atomic<bool>& next_;
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
    const SlowDisk disk(next_is_slow);
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

// Whether this process holds locks on a file, as other processes see it.
bool others_find_it_locked(const std::string& path) {
  const int answer = in_child([&] {
    const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_len = 1;
    return file >= 0 && fcntl(file, F_GETLK, &range) == 0 && range.l_type != F_UNLCK ? 0 : 1;
  });
  return answer == 0;
}

// Otherwise the next process to open the registry would take it for unused, and begin its table of readers anew.
TEST(LmdbOpening, AThreadThatCreatesTheLockFileLeavesItLockedByTheOthers) {
  const TemporaryDirectory directory;
  const std::string registry = directory / "registry";
  std::shared_ptr<Store> opened;
  std::future<bool> created;
  {
    const SlowDisk disk(next_lock_file_is_slow);
    created = open_in_another_thread(registry);
    ASSERT_TRUE(SlowDisk::wait_until_used());
    ASSERT_TRUE(open_registry(registry, &opened).ok());
    EXPECT_TRUE(others_find_it_locked(registry + "/lock.mdb"));
  }
  EXPECT_TRUE(created.get());
  EXPECT_TRUE(others_find_it_locked(registry + "/lock.mdb"));
}

}  // namespace
}  // namespace tkv::store
