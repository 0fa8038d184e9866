// A failing disk yields PRTKV_STORAGE_FAILED and harms no acknowledged write. Once it works again, so does writing.
//
// The system calls that write the registry's file are this program's own: a program's symbols take precedence over
// libc's, for LMDB too. They fail on demand, and keep a record.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "lmdb_files.h"
#include "temporary_directory.h"

namespace {

enum class Target { kNone, kData, kMeta, kSync, kDirectorySync };

struct Disk {
  Target failing = Target::kNone;
  int error = 0;  // errno of the failure; 0: half of the write is done
  int times = 1 << 30;
  int steps_to_live = -1;  // calls until this process is killed, before it does the last of them; -1: it lives on
  std::string record;      // "d" data written, "s" synced, "m" meta page written and synced, in order
  std::set<std::string> synced_directories;
};
Disk disk;
std::atomic<int> times_read = 0;  // calls that asked for the times of a file

// LMDB writes the meta page through a descriptor that syncs each write.
bool is_meta(int file) { return (fcntl(file, F_GETFL) & O_DSYNC) != 0; }

bool fails(Target target) { return disk.failing == target && disk.times > 0 && disk.times-- > 0; }

bool is_plain_file(int file) {
  struct stat status {};
  return syscall(SYS_fstat, file, &status) == 0 && S_ISREG(status.st_mode);
}

// The file names the writer for other processes; a failure to write it harms nothing.
bool is_writer_lock(int file) {
  std::array<char, 4096> path;
  const ssize_t size = readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), path.data(), path.size());
  return size > 0 && std::string_view(path.data(), static_cast<std::size_t>(size)).ends_with("/writer.lock");
}

void step() {
  if (disk.steps_to_live > 0 && --disk.steps_to_live == 0) raise(SIGKILL);
}

int fail() {
  errno = disk.error;
  return -1;
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] ssize_t pwrite(int file, const void* bytes, std::size_t size, off_t offset) {
  if (is_writer_lock(file)) return syscall(SYS_pwrite64, file, bytes, size, offset);
  step();
  const bool meta = is_meta(file);
  const bool failing = fails(meta ? Target::kMeta : Target::kData);
  if (failing && disk.error != 0) return fail();
  const std::size_t count = failing ? size / 2 : size;
  const ssize_t written = syscall(SYS_pwrite64, file, bytes, count, offset);
  if (!failing) disk.record += meta ? "m" : "d";
  return written;
}

[[gnu::visibility("default")]] ssize_t writev(int file, const struct iovec* parts, int count) {
  if (!is_plain_file(file)) return syscall(SYS_writev, file, parts, count);
  step();
  const bool failing = fails(Target::kData);
  if (failing && disk.error != 0) return fail();
  if (failing) return syscall(SYS_writev, file, parts, count / 2 > 0 ? count / 2 : 0);
  disk.record += "d";
  return syscall(SYS_writev, file, parts, count);
}

[[gnu::visibility("default")]] int fdatasync(int file) {
  step();
  if (fails(Target::kSync)) return fail();
  disk.record += "s";
  return static_cast<int>(syscall(SYS_fdatasync, file));
}

[[gnu::visibility("default")]] int fsync(int file) {
  step();
  if (fails(Target::kDirectorySync)) return fail();
  disk.synced_directories.insert(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file)));
  return static_cast<int>(syscall(SYS_fsync, file));
}

[[gnu::visibility("default")]] int mkdirat(int directory, const char* path, mode_t mode) noexcept {
  step();
  return static_cast<int>(syscall(SYS_mkdirat, directory, path, mode));
}

[[gnu::visibility("default")]] int renameat2(int from_directory, const char* from, int to_directory, const char* to,
                                             unsigned flags) noexcept {
  step();
  return static_cast<int>(syscall(SYS_renameat2, from_directory, from, to_directory, to, flags));
}

[[gnu::visibility("default")]] int unlinkat(int directory, const char* path, int flags) noexcept {
  step();
  return static_cast<int>(syscall(SYS_unlinkat, directory, path, flags));
}

[[gnu::visibility("default")]] int fstatat(int directory, const char* path, struct stat* status, int flags) noexcept {
  ++times_read;
  return static_cast<int>(syscall(SYS_newfstatat, directory, path, status, flags));
}

[[gnu::visibility("default")]] int fstat(int file, struct stat* status) noexcept {
  return fstatat(file, "", status, AT_EMPTY_PATH);
}

[[gnu::visibility("default")]] int stat(const char* path, struct stat* status) noexcept {
  return fstatat(AT_FDCWD, path, status, 0);
}

[[gnu::visibility("default")]] int lstat(const char* path, struct stat* status) noexcept {
  return fstatat(AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW);
}

[[gnu::visibility("default")]] int statx(int directory, const char* path, int flags, unsigned mask,
                                         struct statx* status) noexcept {
  if ((mask & (STATX_ATIME | STATX_CTIME | STATX_MTIME)) != 0) ++times_read;
  return static_cast<int>(syscall(SYS_statx, directory, path, flags, mask, status));
}

}  // extern "C"

namespace tkv::store {
namespace {

namespace fs = std::filesystem;

class LmdbFailingDisk : public ::testing::Test {
 protected:
  LmdbFailingDisk() { options_.directory = directory_ / "registry"; }
  ~LmdbFailingDisk() override { disk = Disk{}; }

  TemporaryDirectory directory_;
  LmdbOptions options_;
};

TEST_F(LmdbFailingDisk, AWriteIsAcknowledgedAfterItsDataAndThenItsMetaPageAreOnDisk) {
  const auto store = open_or_fail(options_);
  disk.record.clear();
  ASSERT_TRUE(set_text(*store, kRootNode, "x").ok());
  EXPECT_EQ(disk.record, "dsm");
}

// A file system that was asked for the times of a file gives the next write a time of its own, and has to write the
// inode in the synchronous write that follows.
TEST_F(LmdbFailingDisk, NeitherAWriteNorAReadAsksForTheTimesOfFiles) {
  const auto store = open_or_fail(options_);
  ASSERT_TRUE(set_text(*store, kRootNode, "x").ok());
  ASSERT_GT(times_read, 0);  // while the files were opened
  times_read = 0;
  ASSERT_TRUE(set_text(*store, kRootNode, "y").ok());
  EXPECT_EQ(text_of(*store), "y");
  EXPECT_EQ(times_read, 0);
}

struct Case {
  const char* name;
  Target target;
  int error;
  prtkv_result result;
};

class LmdbFailingDiskCase : public LmdbFailingDisk, public ::testing::WithParamInterface<Case> {};

TEST_P(LmdbFailingDiskCase, IsReportedAndTheFormerStateStays) {
  const auto store = open_or_fail(options_);
  ASSERT_TRUE(set_text(*store, kRootNode, "former").ok());
  for (int again = 0; again < 3; ++again) {
    disk.failing = GetParam().target;
    disk.error = GetParam().error;
    const Status status = set_text(*store, kRootNode, std::string(20'000, 'x'));
    disk = Disk{};
    EXPECT_EQ(status.code(), GetParam().result) << status.text();
    EXPECT_NE(status.text().find(options_.directory), std::string::npos) << status.text();
    EXPECT_EQ(text_of(*store), "former");
  }
  expect_sound(*store);
  EXPECT_EQ(in_child([&] { return text_of(*open_or_fail(options_)) == "former" ? 0 : 1; }), 0);
  ASSERT_TRUE(set_text(*store, kRootNode, "later").ok());
  EXPECT_EQ(text_of(*store), "later");
  EXPECT_EQ(in_child([&] { return text_of(*open_or_fail(options_)) == "later" ? 0 : 1; }), 0);
}

TEST_P(LmdbFailingDiskCase, TheNextWriteNeedsNoReadBefore) {
  const auto store = open_or_fail(options_);
  ASSERT_TRUE(set_text(*store, kRootNode, "former").ok());
  disk.failing = GetParam().target;
  disk.error = GetParam().error;
  EXPECT_EQ(set_text(*store, kRootNode, std::string(20'000, 'x')).code(), GetParam().result);
  disk = Disk{};
  const Status status = set_text(*store, kRootNode, "later");
  EXPECT_TRUE(status.ok()) << status.text();
  EXPECT_EQ(text_of(*store), "later");
}

TEST_P(LmdbFailingDiskCase, DuringCreationLeavesNoFreshRegistry) {
  disk.failing = GetParam().target;
  disk.error = GetParam().error;
  std::shared_ptr<Store> store;
  const Status status = open_lmdb_store(options_, &store);
  disk = Disk{};
  EXPECT_EQ(status.code(), GetParam().result) << status.text();
  EXPECT_FALSE(fs::exists(options_.directory + "/data.mdb"));
  EXPECT_TRUE(fs::is_empty(options_.directory));
  EXPECT_TRUE(set_text(*open_or_fail(options_), kRootNode, "x").ok());
}

INSTANTIATE_TEST_SUITE_P(Failures, LmdbFailingDiskCase,
                         ::testing::Values(Case{"DataError", Target::kData, EIO, PRTKV_STORAGE_FAILED},
                                           Case{"DataNoSpace", Target::kData, ENOSPC, PRTKV_STORAGE_FULL},
                                           Case{"DataQuota", Target::kData, EDQUOT, PRTKV_STORAGE_FULL},
                                           Case{"DataCutShort", Target::kData, 0, PRTKV_STORAGE_FULL},
                                           Case{"SyncError", Target::kSync, EIO, PRTKV_STORAGE_FAILED},
                                           Case{"SyncNoSpace", Target::kSync, ENOSPC, PRTKV_STORAGE_FULL},
                                           Case{"MetaError", Target::kMeta, EIO, PRTKV_STORAGE_FAILED},
                                           Case{"MetaNoSpace", Target::kMeta, ENOSPC, PRTKV_STORAGE_FULL}),
                         [](const auto& failure) { return failure.param.name; });

TEST_F(LmdbFailingDisk, ReadersInOtherThreadsContinueDuringFailures) {
  const auto store = open_or_fail(options_);
  ASSERT_TRUE(set_text(*store, kRootNode, "former").ok());
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) {
      EXPECT_EQ(text_of(*store), "former");
    }
  });
  for (int i = 0; i < 300; ++i) {
    disk.failing = Target::kMeta;
    disk.error = EIO;
    disk.times = 1;
    EXPECT_TRUE(set_text(*store, kRootNode, "later").is(PRTKV_STORAGE_FAILED));
  }
  disk = Disk{};
  stop = true;
  reader.join();
}

// Runs `child` in processes that are killed at their first, second, third, ... step, until one of them completes.
void kill_at_every_step(const std::function<int()>& child, const std::function<void()>& look) {
  int outcome = 128 + SIGKILL;
  int steps = 0;
  while (outcome == 128 + SIGKILL) {
    ++steps;
    outcome = in_child([&] {
      disk.steps_to_live = steps;
      return child();
    });
    SCOPED_TRACE("killed at step " + std::to_string(steps));
    look();
  }
  EXPECT_EQ(outcome, 0);
  EXPECT_GT(steps, 4);
}

TEST_F(LmdbFailingDisk, KilledAnywhereDuringCreationLeavesAWholeRegistryOrNone) {
  kill_at_every_step(
      [&] {
        std::shared_ptr<Store> store;
        return open_lmdb_store(options_, &store).ok() ? 0 : 1;
      },
      [&] {
        EXPECT_TRUE(set_text(*open_or_fail(options_), kRootNode, "x").ok());
        fs::remove_all(options_.directory);
      });
}

TEST_F(LmdbFailingDisk, KilledAnywhereInAWriteLeavesTheStateBeforeOrAfterIt) {
  ASSERT_TRUE(set_text(*open_or_fail(options_), kRootNode, "former").ok());
  const std::string later(50'000, 'l');
  kill_at_every_step([&] { return set_text(*open_or_fail(options_), kRootNode, later).ok() ? 0 : 1; },
                     [&] {
                       const auto store = open_or_fail(options_);
                       const std::string text = text_of(*store);
                       EXPECT_TRUE(text == "former" || text == later) << text.size();
                       expect_sound(*store);
                       ASSERT_TRUE(set_text(*store, kRootNode, "former").ok());
                     });
}

TEST_F(LmdbFailingDisk, EverythingCreatedForAFreshRegistryIsMadeDurable) {
  options_.directory = directory_ / "above/further/registry";
  options_.create_parents = true;
  open_or_fail(options_);
  EXPECT_EQ(disk.synced_directories, (std::set<std::string>{directory_.path(), directory_ / "above",
                                                            directory_ / "above/further", options_.directory}));
}

TEST_F(LmdbFailingDisk, ADirectoryThatCannotBeMadeDurableIsAFailure) {
  disk.failing = Target::kDirectorySync;
  disk.error = EIO;
  std::shared_ptr<Store> store;
  EXPECT_TRUE(open_lmdb_store(options_, &store).is(PRTKV_STORAGE_FAILED));
  disk = Disk{};
  EXPECT_TRUE(set_text(*open_or_fail(options_), kRootNode, "x").ok());
}

}  // namespace
}  // namespace tkv::store
