// A shared directory whose owner is hostile: it replaces the registry's files while root opens the registry and writes
// to it. Nothing outside the directory may change.
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "lmdb_files.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kHostileUser = 54321;
constexpr gid_t kSharedGroup = 1;
constexpr const char* kPrivateText = "private text of root";

// What an observer can tell about a file.
struct Observation {
  std::string content;
  mode_t mode = 0;
  uid_t owner = 0;
  gid_t group = 0;
  bool operator==(const Observation&) const = default;
};

Observation observe(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return {read_file(path), status.st_mode, status.st_uid, status.st_gid};
}

// How often root opens the registry successfully, and how often in vain, before the race ends; more for a long race.
int opens_of_each_kind() {
  const char* const number = std::getenv("TKV_RACE_OPENS");
  return number == nullptr ? 500 : std::atoi(number);
}

class HostileDirectory : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can act as two users";
    const struct group* const entry = getgrgid(kSharedGroup);
    if (entry == nullptr) GTEST_SKIP() << "group " << kSharedGroup << " has no name";
    options_.directory = directory_ / "registry";
    options_.group = entry->gr_name;
    fs::permissions(directory_.path(), fs::perms(0755));
    fs::create_directory(directory_ / "private");
    fs::permissions(directory_ / "private", fs::perms(0700));
    for (const std::string& file : {victim_, planted_}) {
      if (file == planted_) make_directory(directory_ / "planted");
      write_file(file, kPrivateText);
      fs::permissions(file, fs::perms(0600));
    }
    make_directory(options_.directory);
    open_or_fail(options_);
  }

  // A directory of the hostile user.
  static void make_directory(const std::string& path) {
    fs::create_directory(path);
    ASSERT_EQ(chown(path.c_str(), kHostileUser, kSharedGroup), 0);
    ASSERT_EQ(chmod(path.c_str(), 03770), 0);
  }

  // Replaces each of the registry's files by a link to the victim, then by a file of root's that the hostile user can
  // rename, and puts it back.
  [[noreturn]] void swap_forever() const {
    if (setgroups(0, nullptr) != 0 || setgid(kSharedGroup) != 0 || setuid(kHostileUser) != 0) _exit(1);
    const std::string aside = directory_ / "planted/aside";
    for (;;) {
      for (const char* name : {"/lock.mdb", "/data.mdb", "/writer.lock"}) {
        const std::string file = options_.directory + name;
        if (rename(file.c_str(), aside.c_str()) != 0) continue;
        (void)!symlink(victim_.c_str(), file.c_str());
        unlink(file.c_str());
        if (rename(planted_.c_str(), file.c_str()) == 0) rename(file.c_str(), planted_.c_str());
        rename(aside.c_str(), file.c_str());
      }
    }
  }

  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  const std::string victim_ = directory_ / "private/file";
  const std::string planted_ = directory_ / "planted/file";
  LmdbOptions options_;
};

TEST_F(HostileDirectory, NothingOutsideOfItChanges) {
  const Observation victim = observe(victim_);
  const Observation planted = observe(planted_);
  const pid_t swapper = fork();
  if (swapper == 0) swap_forever();
  int opened = 0;
  int refused = 0;
  int written = 0;
  const int least = opens_of_each_kind();
  while (opened < least || refused < least) {
    std::shared_ptr<Store> store;
    if (!open_lmdb_store(options_, &store).ok()) {
      ++refused;
      continue;
    }
    ++opened;
    if (set_text(*store, kRootNode, "x").ok()) ++written;
  }
  kill(swapper, SIGKILL);
  EXPECT_EQ(waitpid(swapper, nullptr, 0), swapper);
  EXPECT_EQ(observe(victim_), victim);
  EXPECT_EQ(std::distance(fs::directory_iterator(directory_ / "private"), {}), 1);
  // The swapper may have been killed while the file, or a link to the victim, was in the registry's directory.
  for (const char* place : {"registry/lock.mdb", "registry/data.mdb", "registry/writer.lock", "planted/file"}) {
    const std::string file = directory_ / place;
    const bool is_planted = fs::is_regular_file(fs::symlink_status(file)) && read_file(file).rfind("private", 0) == 0;
    if (is_planted) {
      EXPECT_EQ(observe(file), planted) << place;
    }
  }
  std::printf("%d sessions opened, %d refused, %d writes\n", opened, refused, written);
}

}  // namespace
}  // namespace tkv::store
