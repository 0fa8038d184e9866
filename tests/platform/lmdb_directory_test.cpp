// Where an embedded registry may be located, how its files are created, and what is refused and left untouched.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "lmdb_files.h"
#include "newer_record.h"
#include "store/lmdb/directory.h"
#include "store/lmdb/file_system_type.h"
#include "store/record.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

namespace fs = std::filesystem;

mode_t mode_of(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

gid_t group_of(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_gid;
}

class Umask {
 public:
  explicit Umask(mode_t mask) : former_(umask(mask)) {}
  ~Umask() { umask(former_); }

 private:
  const mode_t former_;
};

// Switches to an unprivileged user for the lifetime of the object.
class AsNobody {
 public:
  AsNobody() : switched_(geteuid() == 0 && seteuid(65534) == 0) {}
  ~AsNobody() {
    if (switched_) {
      EXPECT_EQ(seteuid(0), 0);
    }
  }

 private:
  const bool switched_;
};

class LmdbDirectory : public ::testing::Test {
 protected:
  Status open(const std::string& directory, bool create = true) {
    LmdbOptions options;
    options.directory = directory;
    options.create = create;
    std::shared_ptr<Store> store;
    return open_lmdb_store(options, &store);
  }

  void expect_refused(const std::string& directory, prtkv_result code, const std::string& part) {
    const Status status = open(directory);
    EXPECT_EQ(status.code(), code) << status.text();
    EXPECT_NE(status.text().find(part), std::string::npos) << status.text();
    EXPECT_NE(status.text().find(directory), std::string::npos) << status.text();
  }

  // The file is refused and left as it is.
  void expect_file_refused(prtkv_result code, const std::string& part) {
    const std::string before = read_file(registry_ + "/data.mdb");
    expect_refused(registry_, code, part);
    EXPECT_EQ(read_file(registry_ + "/data.mdb"), before);
  }

  TemporaryDirectory temporary_;
  const std::string registry_ = temporary_ / "registry";
};

TEST_F(LmdbDirectory, IsCreatedWithItsFilesForTheOwnerAlone) {
  for (const mode_t mask : {0, 022, 077, 0177, 0277}) {
    const Umask masked(mask);
    const std::string directory = registry_ + std::to_string(mask);
    ASSERT_TRUE(open(directory).ok());
    EXPECT_EQ(mode_of(directory), 0700u) << mask;
    EXPECT_EQ(mode_of(directory + "/data.mdb"), 0600u) << mask;
    EXPECT_EQ(mode_of(directory + "/lock.mdb"), 0600u) << mask;
  }
}

TEST_F(LmdbDirectory, HoldsNothingButTheTwoFiles) {
  ASSERT_TRUE(open(registry_).ok());
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(registry_)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"data.mdb", "lock.mdb"}));
}

TEST_F(LmdbDirectory, AnExistingDirectoryKeepsItsMode) {
  fs::create_directory(registry_);
  fs::permissions(registry_, fs::perms(0755));
  ASSERT_TRUE(open(registry_).ok());
  EXPECT_EQ(mode_of(registry_), 0755u);
  EXPECT_EQ(mode_of(registry_ + "/data.mdb"), 0600u);
}

class LmdbGroup : public LmdbDirectory {
 protected:
  // Root may assign any group; other users only their own.
  void SetUp() override {
    const gid_t gid = geteuid() == 0 ? 1 : getegid();
    const struct group* const entry = getgrgid(gid);
    if (entry == nullptr) GTEST_SKIP() << "group " << gid << " has no name";
    options_.directory = registry_;
    options_.group = entry->gr_name;
    gid_ = gid;
  }

  void expect_shared() {
    for (const std::string& path : {registry_, registry_ + "/data.mdb", registry_ + "/lock.mdb"})
      EXPECT_EQ(group_of(path), gid_) << path;
    EXPECT_EQ(mode_of(registry_), 03770u);
    EXPECT_EQ(mode_of(registry_ + "/data.mdb"), 0660u);
    EXPECT_EQ(mode_of(registry_ + "/lock.mdb"), 0660u);
  }

  LmdbOptions options_;
  gid_t gid_ = 0;
};

TEST_F(LmdbGroup, SharesDirectoryAndFilesWhateverTheUmask) {
  const Umask masked(077);
  open_or_fail(options_);
  expect_shared();
}

TEST_F(LmdbGroup, AnOwnersPrivateRegistryIsNotSharedUnasked) {
  ASSERT_TRUE(open(registry_).ok());
  const gid_t owner = group_of(registry_ + "/data.mdb");
  std::shared_ptr<Store> store;
  const Status status = open_lmdb_store(options_, &store);
  EXPECT_TRUE(status.is(PRTKV_UNUSABLE)) << status.code();
  EXPECT_NE(status.text().find("chgrp " + options_.group + " '" + registry_ + "'"), std::string::npos) << status.text();
  EXPECT_EQ(mode_of(registry_ + "/data.mdb"), 0600u);
  EXPECT_EQ(group_of(registry_ + "/data.mdb"), owner);
}

TEST_F(LmdbGroup, TheCommandThatTheMessageNamesSharesTheRegistry) {
  ASSERT_TRUE(open(registry_).ok());
  std::shared_ptr<Store> store;
  const std::string text = open_lmdb_store(options_, &store).text();
  const std::string marker = "type: ";
  ASSERT_NE(text.find(marker), std::string::npos) << text;
  ASSERT_EQ(std::system(text.substr(text.find(marker) + marker.size()).c_str()), 0);
  open_or_fail(options_);
  expect_shared();
}

TEST_F(LmdbGroup, AnEmptyDirectoryIsShared) {
  fs::create_directory(registry_);
  open_or_fail(options_);
  expect_shared();
}

TEST_F(LmdbGroup, ADirectoryWithoutTheStickyBitGetsIt) {
  open_or_fail(options_);
  ASSERT_EQ(chmod(registry_.c_str(), 02770), 0);
  open_or_fail(options_);
  expect_shared();
}

TEST_F(LmdbGroup, AFileThatAMemberMovedIntoTheDirectoryKeepsItsModeAndGroup) {
  open_or_fail(options_);
  for (const char* name : {"/data.mdb", "/lock.mdb"}) {
    SCOPED_TRACE(name);
    const std::string file = registry_ + name;
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    ASSERT_EQ(chown(file.c_str(), static_cast<uid_t>(-1), getegid()), 0);
    std::shared_ptr<Store> store;
    (void)open_lmdb_store(options_, &store);
    EXPECT_EQ(mode_of(file), 0600u);
    EXPECT_EQ(group_of(file), getegid());
  }
}

TEST_F(LmdbGroup, AFileWithASecondNameIsRefused) {
  open_or_fail(options_);
  for (const char* name : {"/data.mdb", "/lock.mdb"}) {
    SCOPED_TRACE(name);
    fs::create_hard_link(registry_ + name, temporary_ / "second");
    expect_refused(registry_, PRTKV_UNUSABLE, "has 2 names (hard links)");
    expect_refused(registry_, PRTKV_UNUSABLE, "(find / -xdev -samefile '" + registry_ + name + "') and remove them");
    fs::remove(temporary_ / "second");
  }
}

TEST_F(LmdbGroup, AFileOfAStrangerIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  open_or_fail(options_);
  for (const char* name : {"/data.mdb", "/lock.mdb"}) {
    SCOPED_TRACE(name);
    const std::string file = registry_ + name;
    ASSERT_EQ(chown(file.c_str(), 54321, 54321), 0);
    std::shared_ptr<Store> store;
    const Status status = open_lmdb_store(options_, &store);
    EXPECT_TRUE(status.is(PRTKV_UNUSABLE));
    EXPECT_NE(status.text().find("belongs to another user (54321)"), std::string::npos) << status.text();
    EXPECT_NE(status.text().find("give it to the owner of the directory (chown)"), std::string::npos) << status.text();
    ASSERT_EQ(chown(file.c_str(), 54321, gid_), 0);
    EXPECT_TRUE(open_lmdb_store(options_, &store).ok());
  }
}

TEST_F(LmdbGroup, OtherContentInPlaceOfTheLockFileIsLeftAlone) {
  open_or_fail(options_);
  write_file(registry_ + "/lock.mdb", "a private file");
  expect_refused(registry_, PRTKV_UNUSABLE, "is not a lock file of LMDB");
  EXPECT_EQ(read_file(registry_ + "/lock.mdb"), "a private file");
}

TEST_F(LmdbGroup, NoTemporaryDirectoryStaysBehind) {
  const auto count = [] {
    std::size_t found = 0;
    for (const char* parent : {"/dev/shm", "/tmp", "/var/tmp"})
      for (const auto& entry : fs::directory_iterator(parent))
        found += entry.path().filename().string().rfind("tkv-open-", 0) == 0 && entry.path() != parent;
    return found;
  };
  const std::size_t before = count();
  const auto store = open_or_fail(options_);
  ASSERT_TRUE(set_text(*store, kRootNode, "x").ok());
  EXPECT_LE(count(), before);
}

TEST_F(LmdbGroup, IsNotGivenARegistryThatIsOnlyRead) {
  ASSERT_TRUE(open(registry_).ok());
  const gid_t owner = group_of(registry_ + "/data.mdb");
  options_.read_only = true;
  open_or_fail(options_);
  EXPECT_EQ(mode_of(registry_), 0700u);
  EXPECT_EQ(mode_of(registry_ + "/data.mdb"), 0600u);
  EXPECT_EQ(group_of(registry_ + "/data.mdb"), owner);
}

TEST_F(LmdbGroup, GetsNothingThatALinkLeadsTo) {
  open_or_fail(options_);
  write_file(temporary_ / "private", "x");
  fs::permissions(temporary_ / "private", fs::perms(0600));
  const gid_t owner = group_of(temporary_ / "private");
  fs::remove(registry_ + "/lock.mdb");
  fs::create_symlink(temporary_ / "private", registry_ + "/lock.mdb");
  std::shared_ptr<Store> store;
  EXPECT_TRUE(open_lmdb_store(options_, &store).is(PRTKV_UNUSABLE));
  EXPECT_EQ(mode_of(temporary_ / "private"), 0600u);
  EXPECT_EQ(group_of(temporary_ / "private"), owner);
  EXPECT_EQ(read_file(temporary_ / "private"), "x");
}

TEST_F(LmdbGroup, SharesWithoutLettingGoOfTheLocksThatThisProcessHolds) {
  const auto store = open_or_fail(options_);
  const auto opens_again = [&](View&) -> Status {
    open_or_fail(options_);
    // Another process would take this reader's slot if its lock were gone.
    EXPECT_EQ(in_child([&] { return set_text(*open_or_fail(options_), kRootNode, "x").ok() ? 0 : 1; }), 0);
    return {};
  };
  ASSERT_EQ(chmod(registry_.c_str(), 02770), 0);  // so that there is something to change
  EXPECT_TRUE(store->read(opens_again).ok());
  expect_shared();
}

TEST_F(LmdbGroup, ThatDoesNotExistIsAnErrorOfTheConfiguration) {
  options_.group = "no-such-group";
  std::shared_ptr<Store> store;
  const Status status = open_lmdb_store(options_, &store);
  EXPECT_TRUE(status.is(PRTKV_INVALID_CONFIGURATION));
  EXPECT_EQ(status.text(),
            "group 'no-such-group' of the registry does not exist; type: groupadd --system 'no-such-group', or set "
            "`group` to one that exists");
  EXPECT_FALSE(fs::exists(registry_));
}

TEST_F(LmdbDirectory, PathsThatCannotHoldARegistryAreRefusedWithTheReason) {
  expect_refused("relative/path", PRTKV_INVALID_ARGUMENT, "not an absolute path");
  expect_refused("", PRTKV_INVALID_ARGUMENT, "not an absolute path");
  expect_refused(temporary_ / "no/such/parent", PRTKV_UNUSABLE,
                 "does not exist; type: mkdir -p '" + (temporary_ / "no/such") + "'");
  EXPECT_FALSE(fs::exists(temporary_ / "no"));
  write_file(temporary_ / "file", "x");
  expect_refused(temporary_ / "file", PRTKV_UNUSABLE,
                 "it is not a directory; move it aside, or set `location` to a directory");
  expect_refused(temporary_ / "file/below", PRTKV_UNUSABLE, "Not a directory; set `location` to another directory");
}

struct LocationCase {
  const char* what;
  mode_t parent_mode;
  mode_t mode;
  bool usable;
  const char* part;  // of the message
};

constexpr LocationCase kLocations[] = {
    {"private", 0755, 0700, true, ""},
    {"readable by others", 0755, 0755, true, ""},
    {"writable by its group", 0755, 0770, false, "can be written to by other users"},
    {"writable by everybody", 0755, 0777, false, "can be written to by other users"},
    {"writable by everybody, with the sticky bit", 0755, 01777, true, ""},
    {"its parent writable by everybody", 0777, 0700, false, "can be written to by other users"},
    {"its parent writable by everybody, with the sticky bit", 01777, 0700, true, ""},
};

TEST_F(LmdbDirectory, ALocationThatOthersMayExchangeIsRefused) {
  for (const LocationCase& row : kLocations) {
    SCOPED_TRACE(row.what);
    const std::string parent = temporary_ / row.what;
    const std::string directory = parent + "/registry";
    fs::create_directories(directory);
    ASSERT_EQ(chmod(parent.c_str(), row.parent_mode), 0);
    ASSERT_EQ(chmod(directory.c_str(), row.mode), 0);
    for (const Status& status : {check_lmdb_directory(directory), open(directory)}) {
      EXPECT_EQ(status.code(), row.usable ? PRTKV_DONE : PRTKV_UNUSABLE) << status.text();
      EXPECT_NE(status.text().find(row.part), std::string::npos) << status.text();
    }
    EXPECT_EQ(fs::is_empty(directory), !row.usable);
  }
}

TEST_F(LmdbDirectory, NothingIsCreatedInAParentThatOthersMayWriteTo) {
  const std::string parent = temporary_ / "parent";
  fs::create_directory(parent);
  ASSERT_EQ(chmod(parent.c_str(), 0777), 0);
  expect_refused(parent + "/registry", PRTKV_UNUSABLE, "chmod go-w '" + parent + "'");
  EXPECT_EQ(check_lmdb_directory(parent + "/registry").code(), PRTKV_UNUSABLE);
  EXPECT_TRUE(fs::is_empty(parent));
}

TEST_F(LmdbDirectory, ALocationOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give directories away";
  fs::create_directory(registry_);
  ASSERT_EQ(chown(registry_.c_str(), 54321, 54321), 0);
  expect_refused(registry_, PRTKV_UNUSABLE, "belongs to another user (54321)");
  expect_refused(registry_ + "/below", PRTKV_UNUSABLE, "belongs to another user (54321)");
  EXPECT_TRUE(fs::is_empty(registry_));
}

TEST_F(LmdbDirectory, ALinkToALocationThatOthersMayExchangeIsRefused) {
  const std::string open_to_all = temporary_ / "open";
  fs::create_directories(open_to_all + "/registry");
  ASSERT_EQ(chmod(open_to_all.c_str(), 0777), 0);
  fs::create_symlink(open_to_all + "/registry", registry_);
  expect_refused(registry_, PRTKV_UNUSABLE, "can be written to by other users");
}

TEST_F(LmdbGroup, ADirectoryOfTheGroupIsUsedWhoeverOwnsIt) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give directories away";
  fs::create_directory(registry_);
  ASSERT_EQ(chmod(registry_.c_str(), 03770), 0);
  ASSERT_EQ(chown(registry_.c_str(), 54321, gid_), 0);
  EXPECT_TRUE(check_lmdb_directory(registry_, options_.group).ok());
  EXPECT_TRUE(check_lmdb_directory(registry_).is(PRTKV_UNUSABLE));
  EXPECT_EQ(text_of(*open_or_fail(options_)), "");
}

TEST_F(LmdbGroup, ADirectoryOfTheGroupThatEverybodyMayWriteToIsRefused) {
  fs::create_directory(registry_);
  ASSERT_EQ(chown(registry_.c_str(), static_cast<uid_t>(-1), gid_), 0);
  ASSERT_EQ(chmod(registry_.c_str(), 02777), 0);
  std::shared_ptr<Store> store;
  EXPECT_TRUE(open_lmdb_store(options_, &store).is(PRTKV_UNUSABLE));
}

TEST_F(LmdbDirectory, WithoutTheRightToWriteItIsAccessDenied) {
  const std::string locked = temporary_ / "locked";
  fs::create_directory(locked);
  fs::permissions(temporary_.path(), fs::perms(0755));
  fs::permissions(locked, fs::perms(0555));
  const AsNobody nobody;
  expect_refused(locked, PRTKV_ACCESS_DENIED, "Permission denied");
  expect_refused(locked + "/below", PRTKV_ACCESS_DENIED, "Permission denied");
  EXPECT_EQ(check_lmdb_directory(locked).code(), PRTKV_ACCESS_DENIED);
  EXPECT_EQ(check_lmdb_directory(locked + "/below").code(), PRTKV_ACCESS_DENIED);
}

TEST_F(LmdbDirectory, AnotherUsersRegistryIsAccessDenied) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can act as two users";
  ASSERT_TRUE(open(registry_).ok());
  fs::permissions(temporary_.path(), fs::perms(0755));
  const AsNobody nobody;
  expect_refused(registry_, PRTKV_ACCESS_DENIED,
                 "Permission denied; act as its owner or, if a group shares it, as a member of the group");
}

TEST_F(LmdbDirectory, NothingIsCreatedUnlessAllowed) {
  EXPECT_TRUE(open(registry_, false).is(PRTKV_UNUSABLE));
  EXPECT_FALSE(fs::exists(registry_));
  fs::create_directory(registry_);
  const Status status = open(registry_, false);
  EXPECT_TRUE(status.is(PRTKV_UNUSABLE));
  EXPECT_EQ(status.text(), "there is no registry in '" + registry_ + "'");
  EXPECT_TRUE(fs::is_empty(registry_));
}

TEST_F(LmdbDirectory, FilesOfSomethingElseAreRefusedAndLeftAlone) {
  fs::create_directory(registry_);
  const std::string file = registry_ + "/data.mdb";
  for (const std::string& text : {std::string("to whom it may concern"), std::string(100'000, 'x')}) {
    write_file(file, text);
    expect_file_refused(PRTKV_UNUSABLE, "is not the data file of a registry: it has no meta page of LMDB");
    expect_file_refused(PRTKV_UNUSABLE, "; move it aside, or set `location` to another directory");
  }
}

TEST_F(LmdbDirectory, AFileThatLostItsContentsOrItsEndIsDamaged) {
  ASSERT_TRUE(open(registry_).ok());
  const std::string file = registry_ + "/data.mdb";
  const std::string sound = read_file(file);
  for (const std::size_t size : {0, 8}) {
    write_file(file, sound.substr(0, size));
    expect_file_refused(PRTKV_STORAGE_FAILED, "is damaged");
  }
  write_file(file, std::string(100'000, '\0'));
  expect_file_refused(PRTKV_STORAGE_FAILED, "it is empty where it should begin with a meta page");
  write_file(file, sound.substr(0, 512));
  expect_file_refused(PRTKV_STORAGE_FAILED, "meta page 1 is not a meta page of LMDB");
  for (const std::size_t page : {0u, 4096u}) {
    std::string bytes = sound;
    bytes.replace(page, 4096, 4096, 'x');
    write_file(file, bytes);
    expect_file_refused(PRTKV_STORAGE_FAILED, "meta page " + std::to_string(page / 4096) + " is not a meta page");
  }
}

TEST_F(LmdbDirectory, ADirectoryInPlaceOfAFileIsRefused) {
  fs::create_directories(registry_ + "/data.mdb");
  expect_refused(registry_, PRTKV_UNUSABLE, "not a plain file; move it aside when no process uses the registry");
}

TEST_F(LmdbDirectory, ALinkInPlaceOfAFileIsRefusedAndNotFollowed) {
  ASSERT_TRUE(open(registry_).ok());
  for (const char* name : {"/data.mdb", "/lock.mdb"}) {
    SCOPED_TRACE(name);
    const std::string target = temporary_ / "target";
    fs::rename(registry_ + name, target);
    fs::permissions(target, fs::perms(0640));
    const std::string before = read_file(target);
    fs::create_symlink(target, registry_ + name);
    expect_refused(registry_, PRTKV_UNUSABLE, "not a plain file");
    EXPECT_EQ(read_file(target), before);
    EXPECT_EQ(mode_of(target), 0640u);
    fs::rename(target, registry_ + name);
  }
  EXPECT_TRUE(open(registry_).ok());
}

TEST_F(LmdbDirectory, LmdbFilesOfOthersAreRefusedAndLeftAlone) {
  for (const std::size_t size : {5, 5000}) {
    fs::create_directory(registry_);
    with_plain_lmdb(registry_, [&](MDB_txn* txn, MDB_dbi database) {
      const std::string apple(size, 'a');
      MDB_val key = val_of("fruit");
      MDB_val data = val_of(apple);
      ASSERT_EQ(mdb_put(txn, database, &key, &data, 0), 0);
    });
    expect_file_refused(PRTKV_UNUSABLE, "is a file of LMDB without a registry; move it aside, or set `location` to");
    fs::remove_all(registry_);
  }
  fs::create_directory(registry_);
  with_plain_lmdb(
      registry_, [](MDB_txn*, MDB_dbi) {}, MDB_DUPSORT);
  expect_file_refused(PRTKV_UNUSABLE, "it holds another kind of database");
}

TEST_F(LmdbDirectory, ARegistryOfANewerFormatIsRefusedAndLeftAlone) {
  ASSERT_TRUE(open(registry_).ok());
  with_plain_lmdb(registry_, [](MDB_txn* txn, MDB_dbi database) {
    MetaRecord record = encode_meta(Meta{});
    set_version(&record, kRecordVersion + 1, kNoNode, "meta");
    MDB_val key = val_of("M");
    MDB_val data{record.size(), record.data()};
    ASSERT_EQ(mdb_put(txn, database, &key, &data, 0), 0);
  });
  expect_file_refused(PRTKV_UNUSABLE, "and this release reads versions up to ");
}

TEST_F(LmdbDirectory, MetaPagesWithImpossibleNumbersAreRefused) {
  LmdbOptions options;
  options.directory = registry_;
  ASSERT_TRUE(set_text(*open_or_fail(options), kRootNode, "in a second transaction").ok());
  const std::string file = registry_ + "/data.mdb";
  const std::string sound = read_file(file);
  struct Case {
    const char* what;
    std::size_t offset;
    std::string bytes;
    prtkv_result in_both = PRTKV_STORAGE_FAILED;  // if both meta pages say the same
  };
  const Case cases[] = {
      {"magic number", 16, "zzzz", PRTKV_UNUSABLE},
      {"LMDB's version", 20, std::string("\x07\0\0\0", 4), PRTKV_UNUSABLE},
      {"page size 0", 40, std::string(4, '\0')},
      {"page size 3", 40, std::string("\3\0\0\0", 4)},
      {"last page beyond any disk", 136, std::string(8, '\x7f')},
      {"map beyond any disk", 32, std::string(8, '\x7f')},
      {"free pages in a tree of another kind", 44, "\x44"},
      {"keys in a tree of another kind", 92, "\x04", PRTKV_UNUSABLE},
      {"transaction number of the other meta page", 144, "\x01"},
  };
  for (const Case& damage : cases) {
    SCOPED_TRACE(damage.what);
    const auto replace_in = [&](std::vector<std::size_t> pages) {
      std::string bytes = sound;
      for (const std::size_t page : pages) bytes.replace(page + damage.offset, damage.bytes.size(), damage.bytes);
      write_file(file, bytes);
    };
    for (const std::size_t page : {0u, 4096u}) {
      replace_in({page});
      const bool is_harmless = read_file(file) == sound;
      if (!is_harmless) expect_file_refused(PRTKV_STORAGE_FAILED, "is damaged");
    }
    replace_in({0, 4096});
    expect_file_refused(damage.in_both, damage.in_both == PRTKV_UNUSABLE ? "is not the data file" : "is damaged");
  }
}

TEST_F(LmdbDirectory, ManyProcessesMayCreateItAtOnce) {
  // They all use the same registry, and no write is lost.
  constexpr int kProcesses = 8;
  std::vector<pid_t> processes;
  for (int i = 0; i < kProcesses; ++i) {
    const pid_t process = fork();
    if (process == 0) {
      LmdbOptions options;
      options.directory = registry_;
      std::shared_ptr<Store> store;
      NodeId id = kNoNode;
      Status status = open_lmdb_store(options, &store);
      if (status.ok()) status = add_node(*store, kRootNode, "from " + std::to_string(i), &id);
      if (!status.ok()) std::fprintf(stderr, "%s\n", status.text().c_str());
      _exit(status.ok() ? 0 : 1);
    }
    processes.push_back(process);
  }
  for (const pid_t process : processes) {
    int status = 0;
    ASSERT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
  }
  LmdbOptions options;
  options.directory = registry_;
  Totals totals;
  ASSERT_TRUE(open_or_fail(options)
                  ->check(
                      false, [](const Finding&) { FAIL(); }, &totals)
                  .ok());
  EXPECT_EQ(totals.nodes, kProcesses + 1u);
}

TEST_F(LmdbDirectory, CheckingItChangesNothing) {
  EXPECT_TRUE(check_lmdb_directory(registry_).ok());
  EXPECT_FALSE(fs::exists(registry_));
  fs::create_directory(registry_);
  EXPECT_TRUE(check_lmdb_directory(registry_).ok());
  EXPECT_TRUE(check_lmdb_directory(registry_ + "/").ok());
  EXPECT_TRUE(fs::is_empty(registry_));
  EXPECT_EQ(check_lmdb_directory("registry").code(), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(check_lmdb_directory(registry_ + "/no/parent").code(), PRTKV_UNUSABLE);
  write_file(temporary_ / "file", "x");
  EXPECT_EQ(check_lmdb_directory(temporary_ / "file").code(), PRTKV_UNUSABLE);
}

struct TypeCase {
  long type;
  FileSystemKind kind;
  const char* name;
};

class LmdbFileSystem : public ::testing::TestWithParam<TypeCase> {};

TEST_P(LmdbFileSystem, IsLocalOrRefusedByName) {
  const TypeCase& row = GetParam();
  const TemporaryDirectory directory;
  const auto type_of = [&](const char*, long* type) {
    *type = row.type;
    return 0;
  };
  const Status status = check_directory(directory.path(), "", type_of);
  if (row.kind == FileSystemKind::kLocal) {
    EXPECT_TRUE(status.ok()) << status.text();
    return;
  }
  const std::string kind = row.kind == FileSystemKind::kNetwork ? "network" : "pseudo";
  EXPECT_TRUE(status.is(PRTKV_UNUSABLE));
  EXPECT_NE(status.text().find("it is on a " + kind + " file system (" + row.name + ")"), std::string::npos)
      << status.text();
}

constexpr TypeCase network(long type, const char* name) { return {type, FileSystemKind::kNetwork, name}; }
constexpr TypeCase pseudo(long type, const char* name) { return {type, FileSystemKind::kPseudo, name}; }
constexpr TypeCase local(long type, const char* name) { return {type, FileSystemKind::kLocal, name}; }

INSTANTIATE_TEST_SUITE_P(
    Types, LmdbFileSystem,
    ::testing::Values(network(0x6969, "NFS"), network(0x517B, "SMB"), network(0xFF534D42L, "CIFS"),
                      network(0xFE534D42L, "SMB2"), network(0x5346414FL, "AFS"), network(0x6B414653L, "AFS"),
                      network(0x73757245L, "Coda"), network(0x564C, "NCP"), network(0x00C36400L, "Ceph"),
                      network(0x0BD00BD0L, "Lustre"), network(0x47504653L, "GPFS"), network(0x01161970L, "GFS2"),
                      network(0x7461636FL, "OCFS2"), network(0x20030528L, "OrangeFS"), network(0x19830326L, "BeeGFS"),
                      network(0xAAD7AAEAL, "PanFS"), network(0x01021997L, "9P"), network(0x65735546L, "FUSE"),
                      pseudo(0x9FA0, "proc"), pseudo(0x62656572L, "sysfs"), pseudo(0x27E0EBL, "cgroup"),
                      pseudo(0x63677270L, "cgroup2"), pseudo(0x1CD1, "devpts"), pseudo(0x64626720L, "debugfs"),
                      pseudo(0x74726163L, "tracefs"), pseudo(0x73636673L, "securityfs"), pseudo(0xCAFE4A11L, "bpf"),
                      pseudo(0x62656570L, "configfs"), pseudo(0x19800202L, "mqueue"), pseudo(0x958458F6L, "hugetlbfs"),
                      local(0xEF53, "ext4"), local(0x58465342L, "XFS"), local(0x9123683EL, "Btrfs"),
                      local(0x2FC12FC1L, "ZFS"), local(0x01021994L, "tmpfs"), local(0x794C7630L, "overlay")));

// These exist on every machine. As far as permissions go, root may write there.
TEST(LmdbFileSystemCheck, TheKernelsOwnFileSystemsAreRefused) {
  for (const char* directory : {"/proc", "/proc/registry", "/sys/registry"}) {
    const Status status = check_lmdb_directory(directory);
    if (geteuid() == 0 && !status.is(PRTKV_ACCESS_DENIED)) {  // unless it is mounted read-only
      EXPECT_TRUE(status.is(PRTKV_UNUSABLE)) << status.text();
      EXPECT_NE(status.text().find("pseudo file system"), std::string::npos) << status.text();
      EXPECT_NE(status.text().find("; set `location` to a directory on a disk"), std::string::npos) << status.text();
    }
    EXPECT_FALSE(status.ok()) << directory;
    LmdbOptions options;
    options.directory = directory;
    std::shared_ptr<Store> store;
    EXPECT_FALSE(open_lmdb_store(options, &store).ok()) << directory;
  }
}

TEST(LmdbFileSystemCheck, AFailingStatfsIsReported) {
  const TemporaryDirectory directory;
  const auto type_of = [](const char*, long*) { return EIO; };
  EXPECT_TRUE(check_directory(directory.path(), "", type_of).is(PRTKV_STORAGE_FAILED));
}

}  // namespace
}  // namespace tkv::store
