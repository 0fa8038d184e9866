// Where an embedded registry may be located, how its files are created, and what is refused and left untouched.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "lmdb_files.h"
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
  void expect_file_refused(const std::string& part) {
    const std::string before = read_file(registry_ + "/data.mdb");
    expect_refused(registry_, PRTKV_STORAGE_FAILED, part);
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
    EXPECT_EQ(mode_of(registry_), 02770u);
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

TEST_F(LmdbGroup, SharesARegistryThatWasTheOwnersAlone) {
  ASSERT_TRUE(open(registry_).ok());
  open_or_fail(options_);
  expect_shared();
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
  EXPECT_TRUE(open_lmdb_store(options_, &store).is(PRTKV_STORAGE_FAILED));
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
  fs::permissions(registry_ + "/lock.mdb", fs::perms(0600));  // so that there is something to change
  EXPECT_TRUE(store->read(opens_again).ok());
  expect_shared();
}

TEST_F(LmdbGroup, ThatDoesNotExistIsAnErrorOfTheConfiguration) {
  options_.group = "no-such-group";
  std::shared_ptr<Store> store;
  const Status status = open_lmdb_store(options_, &store);
  EXPECT_TRUE(status.is(PRTKV_INVALID_CONFIGURATION));
  EXPECT_EQ(status.text(), "group 'no-such-group' of the registry does not exist");
  EXPECT_FALSE(fs::exists(registry_));
}

TEST_F(LmdbDirectory, PathsThatCannotHoldARegistryAreRefusedWithTheReason) {
  expect_refused("relative/path", PRTKV_INVALID_ARGUMENT, "not an absolute path");
  expect_refused("", PRTKV_INVALID_ARGUMENT, "not an absolute path");
  expect_refused(temporary_ / "no/such/parent", PRTKV_STORAGE_FAILED, "its parent");
  EXPECT_FALSE(fs::exists(temporary_ / "no"));
  write_file(temporary_ / "file", "x");
  expect_refused(temporary_ / "file", PRTKV_STORAGE_FAILED, "not a directory");
  expect_refused(temporary_ / "file/below", PRTKV_STORAGE_FAILED, "Not a directory");
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
  expect_refused(registry_, PRTKV_ACCESS_DENIED, "Permission denied");
}

TEST_F(LmdbDirectory, NothingIsCreatedUnlessAllowed) {
  EXPECT_TRUE(open(registry_, false).is(PRTKV_STORAGE_FAILED));
  EXPECT_FALSE(fs::exists(registry_));
  fs::create_directory(registry_);
  const Status status = open(registry_, false);
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_EQ(status.text(), "there is no registry in '" + registry_ + "'");
  EXPECT_TRUE(fs::is_empty(registry_));
}

TEST_F(LmdbDirectory, FilesOfSomethingElseAreRefusedAndLeftAlone) {
  fs::create_directory(registry_);
  const std::string file = registry_ + "/data.mdb";
  write_file(file, "");
  expect_file_refused("too short");
  write_file(file, "to whom it may concern");
  expect_file_refused("too short");
  write_file(file, std::string(100'000, 'x'));
  expect_file_refused("not the data file of a registry");
  write_file(file, std::string(100'000, '\0'));
  expect_file_refused("not the data file of a registry");
}

TEST_F(LmdbDirectory, ADirectoryInPlaceOfAFileIsRefused) {
  fs::create_directories(registry_ + "/data.mdb");
  expect_refused(registry_, PRTKV_STORAGE_FAILED, "not a plain file");
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
    expect_refused(registry_, PRTKV_STORAGE_FAILED, "not a plain file");
    EXPECT_EQ(read_file(target), before);
    EXPECT_EQ(mode_of(target), 0640u);
    fs::rename(target, registry_ + name);
  }
  EXPECT_TRUE(open(registry_).ok());
}

TEST_F(LmdbDirectory, LmdbFilesOfOthersAreRefusedAndLeftAlone) {
  fs::create_directory(registry_);
  with_plain_lmdb(registry_, [](MDB_txn* txn, MDB_dbi database) {
    MDB_val key = val_of("fruit");
    MDB_val data = val_of("apple");
    ASSERT_EQ(mdb_put(txn, database, &key, &data, 0), 0);
  });
  expect_file_refused("lacks a registry's record");
  fs::remove_all(registry_);
  fs::create_directory(registry_);
  with_plain_lmdb(
      registry_, [](MDB_txn*, MDB_dbi) {}, MDB_DUPSORT);
  expect_file_refused("another kind of database");
}

TEST_F(LmdbDirectory, ARegistryOfANewerFormatIsRefusedAndLeftAlone) {
  ASSERT_TRUE(open(registry_).ok());
  with_plain_lmdb(registry_, [](MDB_txn* txn, MDB_dbi database) {
    MetaRecord record = encode_meta(Meta{});
    record[0] = std::byte{2};
    MDB_val key = val_of("M");
    MDB_val data{record.size(), record.data()};
    ASSERT_EQ(mdb_put(txn, database, &key, &data, 0), 0);
  });
  expect_file_refused("record of format version 2, and this release reads versions up to 1");
}

TEST_F(LmdbDirectory, MetaPagesWithImpossibleNumbersAreRefused) {
  ASSERT_TRUE(open(registry_).ok());
  const std::string file = registry_ + "/data.mdb";
  const std::string sound = read_file(file);
  struct Case {
    const char* what;
    std::size_t offset;  // in both meta pages
    std::string bytes;
  };
  const Case cases[] = {
      {"magic number", 16, "zzzz"},
      {"LMDB's version", 20, std::string("\x07\0\0\0", 4)},
      {"page size 0", 40, std::string(4, '\0')},
      {"page size 3", 40, std::string("\3\0\0\0", 4)},
      {"last page beyond any disk", 136, std::string(8, '\x7f')},
      {"map beyond any disk", 32, std::string(8, '\x7f')},
      {"free pages in a tree of another kind", 44, "\x44"},
      {"keys in a tree of another kind", 92, "\x04"},
      {"transaction number of the other meta page", 144, "\x01"},
  };
  for (const Case& damage : cases) {
    std::string bytes = sound;
    for (const std::size_t page : {0u, 4096u}) bytes.replace(page + damage.offset, damage.bytes.size(), damage.bytes);
    write_file(file, bytes);
    SCOPED_TRACE(damage.what);
    expect_file_refused("not the data file of a registry, or it is damaged");
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
  EXPECT_EQ(check_lmdb_directory(registry_ + "/no/parent").code(), PRTKV_STORAGE_FAILED);
  write_file(temporary_ / "file", "x");
  EXPECT_EQ(check_lmdb_directory(temporary_ / "file").code(), PRTKV_STORAGE_FAILED);
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
  const Status status = check_directory(directory.path(), type_of);
  if (row.kind == FileSystemKind::kLocal) {
    EXPECT_TRUE(status.ok()) << status.text();
    return;
  }
  const std::string kind = row.kind == FileSystemKind::kNetwork ? "network" : "pseudo";
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
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
      EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED)) << status.text();
      EXPECT_NE(status.text().find("pseudo file system"), std::string::npos) << status.text();
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
  EXPECT_TRUE(check_directory(directory.path(), type_of).is(PRTKV_STORAGE_FAILED));
}

}  // namespace
}  // namespace tkv::store
