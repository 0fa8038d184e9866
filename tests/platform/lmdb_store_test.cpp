// What the embedded store promises beyond the contract of all stores.
#include "store/lmdb/lmdb_store.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "allocation.h"
#include "child_process.h"
#include "lmdb_files.h"
#include "newer_record.h"
#include "store/lmdb/file.h"
#include "store/lmdb/page.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMiB = 1024 * 1024;

class Lmdb : public ::testing::Test {
 protected:
  Lmdb() { options_.directory = temporary_ / "registry"; }

  std::shared_ptr<Store> open() { return open_or_fail(options_); }

  std::string data_file() const { return options_.directory + "/data.mdb"; }

  TemporaryDirectory temporary_{TemporaryDirectory::Where::kInMemory};
  LmdbOptions options_;
};

TEST_F(Lmdb, ReopenedStoreKeepsCommittedValues) {
  NodeId id = kNoNode;
  {
    const auto store = open();
    ASSERT_TRUE(add_node(*store, kRootNode, "a", &id).ok());
    ASSERT_TRUE(set_text(*store, id, "kept").ok());
    ASSERT_FALSE(store
                     ->write([&](Update& update) -> Status {
                       (void)update.set_value(id, 3, {});
                       return PRTKV_ACCESS_DENIED;
                     })
                     .ok());
  }
  const auto store = open();
  EXPECT_EQ(text_of(*store, id), "kept");
  EXPECT_EQ(expect_sound(*store).nodes, 2u);
}

// The number of files in a directory that this process has open.
int open_files_below(const std::string& directory) {
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = fs::read_symlink(entry.path(), gone).string();
    if (target.rfind(directory + "/", 0) == 0) ++count;
  }
  return count;
}

TEST_F(Lmdb, StoresOfOneDirectoryShareOneEnvironmentWhateverItsPath) {
  auto first = open();
  const int files = open_files_below(options_.directory);
  EXPECT_EQ(files, 5);  // LMDB's three, and one of our own for each file
  fs::create_symlink(options_.directory, temporary_ / "link");
  LmdbOptions by_link = options_;
  by_link.directory = temporary_ / "link";
  auto second = open_or_fail(by_link);
  EXPECT_EQ(open_files_below(options_.directory), files);
  ASSERT_TRUE(set_text(*second, kRootNode, "by the link").ok());
  first.reset();
  EXPECT_EQ(text_of(*second, kRootNode), "by the link");
  second.reset();
  EXPECT_EQ(open_files_below(options_.directory), 0);
}

TEST_F(Lmdb, AnOpeningThatRunsOutOfMemoryLeavesNothingOpen) {
  open();
  std::shared_ptr<Store> store;
  int allowed = 0;
  for (; store == nullptr && allowed < 1000; ++allowed) {
    bool failed = false;
    test::allocations_left = allowed;
    try {
      failed = !open_lmdb_store(options_, &store).ok();
    } catch (const std::bad_alloc&) {
      failed = true;
    }
    test::allocations_left = test::kEndless;
    EXPECT_EQ(failed, store == nullptr);
    if (failed) {
      EXPECT_EQ(open_files_below(options_.directory), 0) << allowed;
    }
  }
  EXPECT_GT(allowed, 5);
  ASSERT_NE(store, nullptr);
  EXPECT_TRUE(set_text(*store, kRootNode, "x").ok());
}

TEST_F(Lmdb, AWriteThatRunsOutOfMemoryHasChangedNothing) {
  const auto store = open();
  ASSERT_TRUE(set_text(*store, kRootNode, "former").ok());
  int allowed = 0;
  for (bool done = false; !done && allowed < 1000; ++allowed) {
    test::allocations_left = allowed;
    try {
      done = set_text(*store, kRootNode, "later").ok();
    } catch (const std::bad_alloc&) {
    }
    test::allocations_left = test::kEndless;
    EXPECT_EQ(text_of(*store, kRootNode), done ? "later" : "former") << allowed;
  }
  EXPECT_GT(allowed, 1);
}

TEST_F(Lmdb, ARegistryMadeAnewInTheSamePlaceIsAnotherOne) {
  const auto former = open();
  ASSERT_TRUE(set_text(*former, kRootNode, "former").ok());
  fs::remove_all(options_.directory);
  const auto later = open();
  EXPECT_EQ(text_of(*later, kRootNode), "");
  EXPECT_EQ(text_of(*former, kRootNode), "former");
}

TEST_F(Lmdb, AFileThatWasReplacedUnderAnOpenStoreIsRefused) {
  const auto store = open();
  fs::copy_file(data_file(), data_file() + ".copy");
  fs::rename(data_file() + ".copy", data_file());
  std::shared_ptr<Store> second;
  const Status status = open_lmdb_store(options_, &second);
  EXPECT_TRUE(status.is(PRTKV_UNUSABLE));
  EXPECT_NE(status.text().find("were replaced or removed while this process had them open"), std::string::npos)
      << status.text();
}

// Things that can happen to the files of an open registry. Afterwards, the session must not acknowledge a write.
const std::pair<const char*, std::function<void(const std::string&)>> kReplacements[] = {
    {"the data file replaced by a rename",
     [](const std::string& directory) {
       fs::copy_file(directory + "/data.mdb", directory + "/copy");
       fs::rename(directory + "/copy", directory + "/data.mdb");
     }},
    {"the data file removed", [](const std::string& directory) { fs::remove(directory + "/data.mdb"); }},
    {"the data file renamed",
     [](const std::string& directory) { fs::rename(directory + "/data.mdb", directory + "/former"); }},
    {"the lock file removed", [](const std::string& directory) { fs::remove(directory + "/lock.mdb"); }},
    {"the lock file replaced by a rename",
     [](const std::string& directory) {
       fs::copy_file(directory + "/lock.mdb", directory + "/copy");
       fs::rename(directory + "/copy", directory + "/lock.mdb");
     }},
    {"the directory renamed", [](const std::string& directory) { fs::rename(directory, directory + "-former"); }},
    {"the directory replaced",
     [](const std::string& directory) {
       fs::copy(directory, directory + "-copy", fs::copy_options::recursive);
       fs::rename(directory, directory + "-former");
       fs::rename(directory + "-copy", directory);
     }},
};

TEST_F(Lmdb, NoWriteIsAcknowledgedIntoFilesThatWereReplaced) {
  for (const auto& [what, replace] : kReplacements) {
    SCOPED_TRACE(what);
    options_.directory = temporary_ / what;
    auto store = open();
    ASSERT_TRUE(set_text(*store, kRootNode, "before").ok());
    replace(options_.directory);
    const Status status = set_text(*store, kRootNode, "after");
    EXPECT_TRUE(status.is(PRTKV_UNUSABLE)) << status.code();
    EXPECT_NE(status.text().find("'" + options_.directory + "' were replaced or removed"), std::string::npos)
        << status.text();
    std::string text;
    EXPECT_TRUE(get_text(*store, kRootNode, &text).is(PRTKV_UNUSABLE));
    EXPECT_TRUE(set_text(*store, kRootNode, "again").is(PRTKV_UNUSABLE));
    Totals totals;
    const auto ignore = [](const Finding&) {};
    EXPECT_TRUE(store->check(false, ignore, &totals).is(PRTKV_UNUSABLE));
    store.reset();
    EXPECT_TRUE(set_text(*open(), kRootNode, "a fresh session works").ok());
  }
}

TEST_F(Lmdb, ATruncatedFileIsReportedInsteadOfEndingTheProcess) {
  const auto store = open();
  NodeId id = kNoNode;
  ASSERT_TRUE(add_node(*store, kRootNode, "a", &id).ok());
  ASSERT_TRUE(set_text(*store, id, std::string(kMiB, 'v')).ok());
  EXPECT_EQ(text_of(*store, id).size(), kMiB);
  for (const std::size_t size : {std::size_t{16384}, std::size_t{0}}) {
    fs::resize_file(data_file(), size);
    std::string text;
    const Status read = get_text(*store, id, &text);
    EXPECT_TRUE(read.is(PRTKV_STORAGE_FAILED));
    EXPECT_NE(read.text().find("was truncated"), std::string::npos) << read.text();
    EXPECT_TRUE(set_text(*store, id, "x").is(PRTKV_STORAGE_FAILED));
  }
}

TEST_F(Lmdb, AFileThatIsTruncatedBeforeTheFirstReadIsReported) {
  open().reset();
  const auto store = open();
  fs::resize_file(data_file(), 4096);
  std::string text;
  const Status read = get_text(*store, kRootNode, &text);
  EXPECT_TRUE(read.is(PRTKV_STORAGE_FAILED));
  EXPECT_NE(read.text().find("was truncated"), std::string::npos) << read.text();
}

TEST_F(Lmdb, TheFirstReadSeesTheStructureOfItsOwnState) {
  const auto structure_in = [](Store& store) {
    std::uint64_t structure = 0;
    const auto look = [&](View& view) {
      structure = view.structure();
      return Status();
    };
    EXPECT_TRUE(store.read(look).ok());
    return structure;
  };
  NodeId id = kNoNode;
  ASSERT_TRUE(add_node(*open(), kRootNode, "a", &id).ok());
  const std::uint64_t former = structure_in(*open());
  EXPECT_NE(former, 0u);
  auto store = open();
  ASSERT_TRUE(store->write([](Update& update) { return update.unlink(kRootNode, "a"); }).ok());
  EXPECT_EQ(structure_in(*store), former + 1);
  store.reset();
  EXPECT_EQ(structure_in(*open()), former + 1);
}

TEST_F(Lmdb, TheLatestStateIsThatOfTheLastAcknowledgedWrite) {
  const auto store = open();
  const auto state = [&] {
    std::uint64_t number = 0;
    EXPECT_TRUE(store
                    ->read([&](View& view) {
                      number = view.state();
                      return Status();
                    })
                    .ok());
    return number;
  };
  const std::uint64_t before = store->latest_state();
  EXPECT_EQ(before, state());
  ASSERT_TRUE(set_text(*store, kRootNode, "here").ok());
  EXPECT_EQ(store->latest_state(), before + 1);
  EXPECT_EQ(in_child([&] { return set_text(*open_or_fail(options_), kRootNode, "elsewhere").ok() ? 0 : 1; }), 0);
  EXPECT_EQ(store->latest_state(), before + 2);
  EXPECT_EQ(store->latest_state(), state());
  EXPECT_EQ(in_child([&] { return static_cast<int>(store->latest_state()); }), 0) << "in a child of the process";
}

// The areas of this process's memory that show a file.
int count_maps(const std::string& file) {
  std::ifstream areas("/proc/self/maps");
  int count = 0;
  for (std::string area; std::getline(areas, area);) count += area.ends_with(file) ? 1 : 0;
  return count;
}

TEST_F(Lmdb, TheMetaPagesAreMappedOnlyForThoseWhoLookOften) {
  const auto store = open();
  const std::uint64_t latest = store->latest_state();
  EXPECT_NE(latest, 0u);
  EXPECT_EQ(count_maps(data_file()), 1) << "LMDB's map";
  for (int look = 0; look < 100; ++look) EXPECT_EQ(store->latest_state(), latest);
  EXPECT_EQ(count_maps(data_file()), 2);
}

// As a reader that has nothing but the memory.
std::uint64_t number_in(const StateMemory& memory) {
  const auto* const first = reinterpret_cast<const std::uint64_t*>(memory.bytes().data());
  const auto* const last = reinterpret_cast<const std::uint64_t*>(memory.bytes().data() + memory.bytes().size()) - 1;
  return std::max(__atomic_load_n(first, __ATOMIC_ACQUIRE), __atomic_load_n(last, __ATOMIC_ACQUIRE));
}

TEST_F(Lmdb, TheStateMemoryShowsTheLatestState) {
  const auto store = open();
  const auto memory = store->state_memory();
  ASSERT_NE(memory, nullptr);
  const std::uint64_t before = store->latest_state();
  ASSERT_NE(before, 0u);
  EXPECT_EQ(number_in(*memory), before);
  ASSERT_TRUE(set_text(*store, kRootNode, "here").ok());
  EXPECT_EQ(number_in(*memory), before + 1);
  EXPECT_EQ(in_child([&] { return set_text(*open_or_fail(options_), kRootNode, "elsewhere").ok() ? 0 : 1; }), 0);
  EXPECT_EQ(number_in(*memory), before + 2);
  EXPECT_EQ(in_child([&] { return static_cast<int>(number_in(*memory)); }), 0) << "in a child of the process";
  EXPECT_EQ(number_in(*memory), before + 2) << "the child leaves the parent's as it is";
}

TEST_F(Lmdb, TheStateMemoryOutlivesTheStoreAndShowsNothingAnyMore) {
  auto first = open();
  auto second = open();
  const auto memory = first->state_memory();
  first.reset();
  EXPECT_EQ(number_in(*memory), second->latest_state()) << "while another store is open on the same files";
  second.reset();
  EXPECT_EQ(number_in(*memory), 0u);
  const auto again = open();
  EXPECT_EQ(number_in(*memory), 0u) << "the memory of a former opening";
  EXPECT_NE(number_in(*again->state_memory()), 0u);
}

TEST_F(Lmdb, TheStateMemoryShowsNothingOnceTheFilesWereFoundReplaced) {
  for (const auto& [what, replace] : kReplacements) {
    SCOPED_TRACE(what);
    options_.directory = temporary_ / what;
    const auto store = open();
    const auto memory = store->state_memory();
    ASSERT_TRUE(set_text(*store, kRootNode, "before").ok());
    replace(options_.directory);
    EXPECT_TRUE(set_text(*store, kRootNode, "after").is(PRTKV_UNUSABLE));
    EXPECT_EQ(number_in(*memory), 0u);
  }
}

TEST_F(Lmdb, TheStateMemoryShowsNothingOnceTheFileWasFoundTruncated) {
  const auto store = open();
  const auto memory = store->state_memory();
  NodeId id = kNoNode;
  ASSERT_TRUE(add_node(*store, kRootNode, "a", &id).ok());
  ASSERT_TRUE(set_text(*store, id, std::string(kMiB, 'v')).ok());
  EXPECT_EQ(text_of(*store, id).size(), kMiB);
  fs::resize_file(data_file(), 0);
  std::string text;
  EXPECT_TRUE(get_text(*store, id, &text).is(PRTKV_STORAGE_FAILED));
  EXPECT_EQ(number_in(*memory), 0u);
}

TEST_F(Lmdb, AValueIsCopiedFromItsPlaceOnlyInTheStateThatItWasFoundIn) {
  const auto store = open();
  ASSERT_TRUE(set_text(*store, kRootNode, "first").ok());
  std::uint64_t state = 0;
  ValuePlace place;
  ASSERT_TRUE(store
                  ->read([&](View& view) {
                    state = view.state();
                    place = view.place_of_value(kRootNode);
                    return Status();
                  })
                  .ok());
  std::array<std::byte, 8> buffer{};
  std::int32_t type = 0;
  std::size_t size = 0;
  ASSERT_TRUE(store->copy_value(state, kRootNode, place, buffer, &type, &size));
  EXPECT_EQ(type, 3);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), size), "first");
  EXPECT_FALSE(store->copy_value(state, kRootNode + 1, place, buffer, &type, &size)) << "the record of another node";
  std::array<std::byte, 2> small{};
  ASSERT_TRUE(store->copy_value(state, kRootNode, place, small, &type, &size));
  EXPECT_EQ(size, 5u);
  EXPECT_EQ(small, (std::array<std::byte, 2>{}));
  ASSERT_TRUE(set_text(*store, kRootNode, "second").ok());
  EXPECT_FALSE(store->copy_value(state, kRootNode, place, buffer, &type, &size));
}

TEST_F(Lmdb, ATruncatedFileHasNoLatestState) {
  const auto store = open();
  ASSERT_NE(store->latest_state(), 0u);
  fs::resize_file(data_file(), 0);
  struct timespec tick {};
  struct timespec now {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &tick);
  do clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  while (now.tv_nsec == tick.tv_nsec && now.tv_sec == tick.tv_sec);
  EXPECT_EQ(store->latest_state(), 0u);
}

// Blocks on the disk, in bytes.
std::uint64_t allocated(const std::string& file) {
  struct stat status {};
  EXPECT_EQ(stat(file.c_str(), &status), 0);
  return static_cast<std::uint64_t>(status.st_blocks) * 512;
}

TEST_F(Lmdb, TheLockFileIsAllocatedWhenItIsCreated) {
  const std::string lock = options_.directory + "/lock.mdb";
  { open(); }
  EXPECT_EQ(fs::file_size(lock), 65536u);
  EXPECT_GE(allocated(lock), 65536u);
}

TEST_F(Lmdb, ASparseLockFileIsAllocatedAtTheNextOpening) {
  const std::string lock = options_.directory + "/lock.mdb";
  { open(); }
  for (const std::uintmax_t size : {std::uintmax_t{0}, std::uintmax_t{65536}}) {
    fs::resize_file(lock, 0);
    fs::resize_file(lock, size);
    const auto store = open();
    EXPECT_GE(allocated(lock), 65536u);
    EXPECT_TRUE(set_text(*store, kRootNode, "x").ok());
  }
}

TEST_F(Lmdb, AStoreOpenedForReadingRefusesToWriteAndReadsOn) {
  const auto writer = open();
  ASSERT_TRUE(set_text(*writer, kRootNode, "text").ok());
  options_.read_only = true;
  const auto reader = open();
  EXPECT_TRUE(set_text(*reader, kRootNode, "other").is(PRTKV_ACCESS_DENIED));
  EXPECT_EQ(text_of(*reader, kRootNode), "text");
}

class LmdbReadOnlyFile : public Lmdb {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
    ASSERT_TRUE(set_text(*open(), kRootNode, "text").ok());
    fs::permissions(temporary_.path(), fs::perms(0755));
    fs::permissions(options_.directory, fs::perms(0755));
    fs::permissions(data_file(), fs::perms(0444));
    fs::permissions(options_.directory + "/lock.mdb", fs::perms(0666));
  }

  // Runs `body`, which returns 0 if it finds what it expects, as a user who may only read the file.
  static int as_reader(const std::function<int()>& body) {
    return in_child([&] { return setuid(65534) == 0 ? body() : 100; });
  }
};

TEST_F(LmdbReadOnlyFile, CanBeRead) {
  EXPECT_EQ(as_reader([&] {
              std::shared_ptr<Store> store;
              if (!open_lmdb_store(options_, &store).is(PRTKV_ACCESS_DENIED)) return 2;
              options_.read_only = true;
              if (!open_lmdb_store(options_, &store).ok()) return 3;
              return text_of(*store, kRootNode) == "text" ? 0 : 4;
            }),
            0);
}

TEST_F(LmdbReadOnlyFile, IsRefusedForWritingWhileItIsOpenForReading) {
  EXPECT_EQ(as_reader([&] {
              std::shared_ptr<Store> reader;
              std::shared_ptr<Store> writer;
              options_.read_only = true;
              if (!open_lmdb_store(options_, &reader).ok()) return 1;
              options_.read_only = false;
              const Status status = open_lmdb_store(options_, &writer);
              if (!status.is(PRTKV_ACCESS_DENIED)) return 2;
              return status.text() == "the registry in '" + options_.directory + "' is open for reading only" ? 0 : 3;
            }),
            0);
}

TEST_F(LmdbReadOnlyFile, ThatWasCutOffIsReportedAsSuch) {
  fs::resize_file(data_file(), fs::file_size(data_file()) - 4096);
  EXPECT_EQ(as_reader([&] {
              std::shared_ptr<Store> store;
              options_.read_only = true;
              const Status status = open_lmdb_store(options_, &store);
              if (!status.is(PRTKV_STORAGE_FAILED)) return 1;
              return status.text().find("cannot be extended without write access") != std::string::npos ? 0 : 2;
            }),
            0);
}

TEST_F(Lmdb, AForkedChildMustOpenTheStoreAgain) {
  auto store = open();
  ASSERT_TRUE(set_text(*store, kRootNode, "parent").ok());
  EXPECT_EQ(in_child([&] {
              std::string text;
              const Status read = get_text(*store, kRootNode, &text);
              if (!read.is(PRTKV_UNUSABLE) || read.text().find("before this process was forked") == std::string::npos) {
                return 1;
              }
              if (!set_text(*store, kRootNode, "child").is(PRTKV_UNUSABLE)) return 2;
              Totals totals;
              if (!store
                       ->check(
                           true, [](const Finding&) {}, &totals)
                       .is(PRTKV_UNUSABLE)) {
                return 3;
              }
              store.reset();
              std::shared_ptr<Store> own;
              if (!open_lmdb_store(options_, &own).ok()) return 4;
              if (!get_text(*own, kRootNode, &text).ok() || text != "parent") return 5;
              return set_text(*own, kRootNode, "child").ok() ? 0 : 6;
            }),
            0);
  EXPECT_EQ(text_of(*store, kRootNode), "child");
  ASSERT_TRUE(set_text(*store, kRootNode, "parent again").ok());
  EXPECT_EQ(text_of(*store, kRootNode), "parent again");
}

TEST_F(Lmdb, AForkInTheMiddleOfAReadDoesNotDisturbTheParentsRead) {
  const auto store = open();
  ASSERT_TRUE(set_text(*store, kRootNode, "former").ok());
  const pid_t parent = getpid();
  pid_t child = -1;
  std::string seen;
  const Status status = store->read([&](View& view) -> Status {
    child = fork();
    if (child == 0) return {};  // ends the transaction that it inherited
    int ended = 0;
    EXPECT_EQ(waitpid(child, &ended, 0), child);
    // If this reader had lost its slot, another process would now overwrite the pages that it reads.
    const auto overwrite = [&] {
      const auto own = open();
      for (int i = 0; i < 20; ++i)
        if (!set_text(*own, kRootNode, std::string(5000, 'x')).ok()) return 1;
      return 0;
    };
    EXPECT_EQ(in_child(overwrite), 0);
    Value value;
    if (Status read = view.value(kRootNode, &value); !read.ok()) return read;
    seen.assign(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size());
    return {};
  });
  if (getpid() != parent) _exit(0);
  EXPECT_TRUE(status.ok()) << status.text();
  EXPECT_EQ(seen, "former");
}

TEST_F(Lmdb, AFunctionMayReadTheStoreThatRunsIt) {
  const auto store = open();
  ASSERT_TRUE(set_text(*store, kRootNode, "former").ok());
  EXPECT_TRUE(store
                  ->write([&](Update& update) -> Status {
                    if (Status status = update.set_value(kRootNode, 1, {}); !status.ok()) return status;
                    EXPECT_EQ(text_of(*store, kRootNode), "former");
                    return store->read_all([&](View&) -> Status {
                      EXPECT_EQ(text_of(*store, kRootNode), "former");
                      return {};
                    });
                  })
                  .ok());
}

TEST_F(Lmdb, AFunctionIsRefusedToWriteToTheStoreThatRunsIt) {
  const auto store = open();
  const auto other = open();
  const auto write = [&](Store& target) { return set_text(target, kRootNode, "x"); };
  EXPECT_TRUE(store->read([&](View&) { return write(*store); }).is(PRTKV_INVALID_ARGUMENT));
  EXPECT_TRUE(store->read_all([&](View&) { return write(*other); }).is(PRTKV_INVALID_ARGUMENT));
  EXPECT_TRUE(store->write([&](Update&) { return write(*store); }).is(PRTKV_INVALID_ARGUMENT));
  EXPECT_TRUE(write(*store).ok());
}

TEST_F(Lmdb, OneStoreCanBeFilledFromAnotherInOneWrite) {
  constexpr int kParents = 30;
  constexpr int kChildren = 1000;
  const auto source = open();
  ASSERT_TRUE(source
                  ->write([&](Update& update) -> Status {
                    for (int i = 0; i < kParents; ++i) {
                      Node parent;
                      if (Status status = update.new_id(&parent.id); !status.ok()) return status;
                      if (Status status = update.insert(kRootNode, std::to_string(i), parent); !status.ok()) {
                        return status;
                      }
                      for (int j = 0; j < kChildren; ++j) {
                        Node child;
                        const std::string name = std::to_string(j * 7919 % kChildren);
                        if (Status status = update.new_id(&child.id); !status.ok()) return status;
                        if (Status status = update.insert(parent.id, name, child); !status.ok()) return status;
                        if (Status status = update.set_value(child.id, 3, std::as_bytes(std::span(name)));
                            !status.ok()) {
                          return status;
                        }
                      }
                    }
                    return {};
                  })
                  .ok());
  LmdbOptions fresh;
  fresh.directory = temporary_ / "copy";
  const auto target = open_or_fail(fresh);
  ASSERT_TRUE(source
                  ->read_all([&](View& view) {
                    return target->write([&](Update& update) {
                      const std::function<Status(NodeId, NodeId)> copy = [&](NodeId from, NodeId to) {
                        return view.children(from, [&](std::string_view name, const Node& node) -> Status {
                          Node twin = node;
                          Value value;
                          if (Status status = update.new_id(&twin.id); !status.ok()) return status;
                          if (Status status = update.insert(to, name, twin); !status.ok()) return status;
                          if (Status status = view.value(node.id, &value); !status.ok()) return status;
                          if (Status status = update.set_value(twin.id, value.type, value.bytes); !status.ok()) {
                            return status;
                          }
                          return copy(node.id, twin.id);
                        });
                      };
                      return copy(kRootNode, kRootNode);
                    });
                  })
                  .ok());
  const Totals copied = expect_sound(*target);
  EXPECT_EQ(copied.nodes, 1u + kParents + kParents * kChildren);
  EXPECT_EQ(copied.values, static_cast<std::uint64_t>(kParents) * kChildren);
  EXPECT_EQ(copied.value_bytes, expect_sound(*source).value_bytes);
}

TEST_F(Lmdb, ALargeWriteCanBeUndoneByAnother) {
  const auto store = open();
  NodeId top = kNoNode;
  ASSERT_TRUE(add_node(*store, kRootNode, "top", &top).ok());
  ASSERT_TRUE(store
                  ->write([&](Update& update) -> Status {
                    NodeId parent = top;
                    for (int i = 0; i < 20000; ++i) {
                      Node node;
                      if (Status status = update.new_id(&node.id); !status.ok()) return status;
                      if (Status status = update.insert(parent, std::to_string(i), node); !status.ok()) return status;
                      if (i % 400 == 0) parent = node.id;
                    }
                    return {};
                  })
                  .ok());
  EXPECT_EQ(expect_sound(*store).nodes, 20002u);
  ASSERT_TRUE(store
                  ->write([&](Update& update) -> Status {
                    if (Status status = update.unlink(kRootNode, "top"); !status.ok()) return status;
                    return update.discard(top);
                  })
                  .ok());
  EXPECT_EQ(expect_sound(*store).nodes, 1u);
}

// Growth

TEST_F(Lmdb, ACheckReportsItsProgress) {
  const auto store = open();
  for (int number = 0; number < 50; ++number) {
    NodeId id = kNoNode;
    ASSERT_TRUE(add_node(*store, kRootNode, "k" + std::to_string(number), &id).ok());
    ASSERT_TRUE(set_text(*store, id, std::string(10'000, 'v')).ok());
  }
  for (const bool repair : {false, true}) {
    std::vector<std::string> passes;
    CheckProgress last{"", 0, 0};
    const auto follow = [&](const CheckProgress& progress) {
      if (std::string(last.reading) != progress.reading) {
        passes.emplace_back(progress.reading);
        last.done = 0;
      }
      EXPECT_GE(progress.done, last.done) << progress.reading;
      EXPECT_LE(progress.done, progress.total) << progress.reading;
      last = progress;
    };
    Totals totals;
    const ChangeDescription change;
    ASSERT_TRUE(store
                    ->check(
                        repair ? &change : nullptr, [](const Finding&) {}, follow, &totals)
                    .ok());
    EXPECT_EQ(passes, (std::vector<std::string>{"pages", "records"}));
    EXPECT_GT(last.done, 100u);
    EXPECT_EQ(last.done, last.total);
  }
}

class LmdbGrowth : public Lmdb {
 protected:
  LmdbGrowth() { options_.first_map_size = kMiB; }

  static Status add_large(Store& store, int number, NodeId* id) {
    if (Status status = add_node(store, kRootNode, std::to_string(number), id); !status.ok()) return status;
    return set_text(store, *id, std::string(256 * 1024, static_cast<char>('a' + number % 26)));
  }

  // For a process of its own: adds 20 large values. Returns 0 if that succeeds.
  int make_it_grow(int first = 0) {
    const auto store = open();
    NodeId id = kNoNode;
    for (int i = first; i < first + 20; ++i)
      if (!add_large(*store, i, &id).ok()) return 1;
    return 0;
  }
};

TEST_F(LmdbGrowth, TheMapGrowsWithTheRegistry) {
  const auto store = open();
  std::vector<NodeId> ids(40);
  for (int i = 0; i < 40; ++i) ASSERT_TRUE(add_large(*store, i, &ids[static_cast<std::size_t>(i)]).ok()) << i;
  EXPECT_GT(fs::file_size(data_file()), 10 * kMiB);
  for (int i = 0; i < 40; ++i)
    EXPECT_EQ(text_of(*store, ids[static_cast<std::size_t>(i)]),
              std::string(256 * 1024, static_cast<char>('a' + i % 26)));
  EXPECT_EQ(expect_sound(*store).nodes, 41u);
}

TEST_F(LmdbGrowth, OneWriteMayNeedTheMapToGrowManyTimes) {
  const auto store = open();
  int runs = 0;
  ASSERT_TRUE(store
                  ->write([&](Update& update) -> Status {
                    ++runs;
                    for (int i = 0; i < 100; ++i) {
                      Node node;
                      if (Status status = update.new_id(&node.id); !status.ok()) return status;
                      if (Status status = update.insert(kRootNode, std::to_string(i), node); !status.ok()) {
                        return status;
                      }
                      const std::string text(256 * 1024, 't');
                      // A function may overlook a failure; the store does not.
                      (void)update.set_value(node.id, 3, std::as_bytes(std::span(text)));
                    }
                    return {};
                  })
                  .ok());
  EXPECT_GT(runs, 3);
  EXPECT_EQ(expect_sound(*store).values, 100u);
}

TEST_F(LmdbGrowth, ReadersContinueWhileTheMapGrows) {
  const auto store = open();
  ASSERT_TRUE(set_text(*store, kRootNode, "constant").ok());
  std::atomic<bool> stop{false};
  std::atomic<int> reads{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!stop) {
        EXPECT_EQ(text_of(*store, kRootNode), "constant");
        ++reads;
      }
    });
  }
  while (reads == 0) std::this_thread::yield();
  NodeId id = kNoNode;
  for (int i = 0; i < 60; ++i) EXPECT_TRUE(add_large(*store, i, &id).ok());
  stop = true;
  for (std::thread& reader : readers) reader.join();
}

TEST_F(LmdbGrowth, ALongReadDelaysTheGrowthAndNotTheReaders) {
  const auto store = open();
  ASSERT_TRUE(set_text(*store, kRootNode, "constant").ok());
  std::promise<void> reading;
  std::promise<void> release;
  std::future<Status> long_read = std::async(std::launch::async, [&] {
    return store->read_all([&](View& view) -> Status {
      reading.set_value();
      release.get_future().wait();
      Node root;
      return view.find(kNoNode, "", &root);
    });
  });
  reading.get_future().wait();
  std::future<Status> writer = std::async(std::launch::async, [&]() -> Status {
    NodeId id = kNoNode;
    for (int i = 0; i < 20; ++i)
      if (Status status = add_large(*store, i, &id); !status.ok()) return status;
    return {};
  });
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(text_of(*store, kRootNode), "constant");
  release.set_value();
  EXPECT_TRUE(long_read.get().ok());
  EXPECT_TRUE(writer.get().ok());
  EXPECT_EQ(expect_sound(*store).values, 21u);
}

TEST_F(LmdbGrowth, AnotherProcessesGrowthIsFollowedByReadersAndWriters) {
  const auto store = open();
  ASSERT_TRUE(set_text(*store, kRootNode, "seen before").ok());
  EXPECT_EQ(text_of(*store, kRootNode), "seen before");
  ASSERT_EQ(in_child([&] { return make_it_grow(0); }), 0);
  EXPECT_EQ(text_of(*store, kRootNode), "seen before");  // a reader follows
  EXPECT_EQ(expect_sound(*store).nodes, 21u);
  ASSERT_EQ(in_child([&] { return make_it_grow(100); }), 0);
  ASSERT_TRUE(set_text(*store, kRootNode, "written after").ok());  // a writer follows
  EXPECT_EQ(expect_sound(*store).nodes, 41u);
}

TEST_F(LmdbGrowth, AnotherProcessesGrowthIsFollowedByALongRead) {
  EXPECT_EQ(in_child([&] {
              const auto store = open();
              const int grown = in_child([&] { return make_it_grow(); });
              alarm(240);  // a reader that waits for itself never ends
              const Status status = store->read_all([](View&) { return Status(); });
              return grown == 0 && status.ok() ? 0 : 2;
            }),
            0);
}

TEST_F(LmdbGrowth, AReadWithinAReadSeesTheSameStateWhenAnotherProcessMadeTheMapGrow) {
  EXPECT_EQ(in_child([&] {
              const auto store = open();
              alarm(240);  // a reader that waits for itself never ends
              bool has_child = true;
              Revision latest = 99;
              int changes = 0;
              LogPosition position;
              if (!set_text(*store, kRootNode, "former").ok()) return 1;
              if (!set_text(*store, kRootNode, "present").ok()) return 1;
              const auto count = [&](const ChangeRecord&) { return ++changes, Status(); };
              const auto look = [&](View& view) {
                Status status = view.has_children(kRootNode, &has_child);
                return status.ok() ? view.revision(&latest) : status;
              };
              const Status outer = store->read([&](View&) -> Status {
                if (in_child([&] { return make_it_grow(); }) != 0) return PRTKV_UNKNOWN;
                if (Status status = store->read_all(look); !status.ok()) return status;
                if (Status status = store->changes({}, count, &position); !status.ok()) return status;
                return store->read_at(latest - 1, [&](View&) { return store->read(look); });
              });
              if (!outer.ok()) return 2;
              if (has_child || latest != 2 || changes != 2 || position.revision != 2) return 3;
              return text_of(*store, kRootNode) == "present" && expect_sound(*store).nodes == 21 ? 0 : 4;
            }),
            0);
}

TEST_F(LmdbGrowth, AFixedMapIsNotOutgrownAndTheRegistryIsUnharmed) {
  options_.map_size = 2 * kMiB;
  const auto store = open();
  NodeId id = kNoNode;
  std::vector<NodeId> ids;
  Status status;
  for (int i = 0; i < 20 && status.ok(); ++i) {
    status = add_large(*store, i, &id);
    if (status.ok()) ids.push_back(id);
  }
  ASSERT_TRUE(status.is(PRTKV_STORAGE_FULL)) << status.text();
  EXPECT_NE(status.text().find("map_size"), std::string::npos) << status.text();
  EXPECT_NE(status.text().find("2097152"), std::string::npos) << status.text();
  EXPECT_LE(fs::file_size(data_file()), 2 * kMiB);
  EXPECT_GE(ids.size(), 3u);
  for (std::size_t i = 0; i < ids.size(); ++i)
    EXPECT_EQ(text_of(*store, ids[i]), std::string(256 * 1024, static_cast<char>('a' + i % 26)));
  expect_sound(*store);
  // Room that is given back can be used again.
  ASSERT_TRUE(set_text(*store, ids[0], "").ok());
  ASSERT_TRUE(set_text(*store, ids[1], "").ok());
  EXPECT_TRUE(set_text(*store, ids[0], std::string(200 * 1024, 'z')).ok());
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they need address space without a limit
TEST_F(LmdbGrowth, WithoutAddressSpaceTheFormerMapStays) {
  EXPECT_EQ(in_child([&] {
              const auto store = open();
              NodeId id = kNoNode;
              if (!set_text(*store, kRootNode, "kept").ok()) return 1;
              struct rlimit limit {};
              // Room for what the process has and a little more.
              std::ifstream statistics("/proc/self/statm");
              std::size_t pages = 0;
              statistics >> pages;
              limit.rlim_cur = limit.rlim_max = pages * 4096 + 6 * kMiB;
              if (setrlimit(RLIMIT_AS, &limit) != 0) return 2;
              Status status;
              for (int i = 0; i < 60 && status.ok(); ++i) status = add_large(*store, i, &id);
              if (!status.is(PRTKV_OUT_OF_MEMORY)) return 3;
              if (text_of(*store, kRootNode) != "kept") return 4;
              return set_text(*store, kRootNode, "still writable").ok() ? 0 : 5;
            }),
            0);
}
#endif

// Readers that die

TEST_F(Lmdb, MoreReadersThanSlotsAreRefusedAndCanReadLater) {
  const auto store = open();
  int depth = 0;
  const std::function<Status(View&)> deeper = [&](View&) -> Status {
    ++depth;
    return store->read(deeper);
  };
  const Status status = store->read(deeper);
  EXPECT_TRUE(status.is(PRTKV_BUSY));
  EXPECT_NE(status.text().find("all 1022 reader slots of the registry are in use"), std::string::npos) << status.text();
  EXPECT_EQ(depth, 1022);
  EXPECT_EQ(text_of(*store, kRootNode), "");
  ASSERT_TRUE(set_text(*store, kRootNode, "x").ok());
}

// Occupies `count` reader slots and dies while reading.
void die_reading(const LmdbOptions& options, int count) {
  EXPECT_EQ(in_child([&] {
              const auto store = open_or_fail(options);
              const std::function<Status(View&)> deeper = [&](View&) -> Status {
                if (--count == 0) raise(SIGKILL);
                return store->read(deeper);
              };
              (void)store->read(deeper);
              return 1;
            }),
            128 + SIGKILL);
}

TEST_F(Lmdb, SlotsOfDeadReadersAreReusedWhenNoneAreFree) {
  const auto store = open();
  die_reading(options_, 1000);
  int depth = 0;
  const std::function<Status(View&)> deeper = [&](View&) -> Status {
    return ++depth < 500 ? store->read(deeper) : Status();
  };
  EXPECT_TRUE(store->read(deeper).ok());
  EXPECT_EQ(depth, 500);
}

TEST_F(Lmdb, IdleProcessesDoNotKeepTheSlotsThatTheyHaveReadWith) {
  const auto store = open();
  const auto read_at_depth = [](Store& each, int depth) {
    const std::function<Status(View&)> deeper = [&](View&) { return --depth > 0 ? each.read(deeper) : Status(); };
    return each.read(deeper);
  };
  const ChildProcess idle([&] {
    const auto own = open_or_fail(options_);
    if (!read_at_depth(*own, 1000).ok()) return 1;
    raise(SIGSTOP);
    return 0;
  });
  idle.wait_until_stopped();
  EXPECT_EQ(read_at_depth(*store, 500).text(), "done");
}

TEST_F(Lmdb, TheNextOpeningClearsTheSlotsOfDeadReaders) {
  options_.retention.off = true;
  { const auto store = open(); }
  // A process that has the registry open: an opening that finds none clears the whole table.
  const ChildProcess other([&] {
    const auto own = open();
    raise(SIGSTOP);
    return 0;
  });
  other.wait_until_stopped();
  die_reading(options_, 1);
  const auto store = open();
  for (int i = 0; i < 40; ++i) ASSERT_TRUE(set_text(*store, kRootNode, std::string(kMiB, 'x')).ok());
  EXPECT_LT(fs::file_size(data_file()), 6 * kMiB);
}

TEST_F(Lmdb, DeadReadersAreLookedForBeforeTheMapGrows) {
  options_.retention.off = true;
  options_.map_size = 8 * kMiB;
  const auto store = open();
  die_reading(options_, 1);
  for (int i = 0; i < 40; ++i) ASSERT_TRUE(set_text(*store, kRootNode, std::string(kMiB, 'x')).ok()) << i;
}

// Damage

class LmdbDamage : public Lmdb {
 protected:
  LmdbDamage() {
    options_.retention.off = true;  // what a test damages is nowhere else in the file
    auto store = open();
    sec_attr security{};
    std::memcpy(security.user_name, "owner-of-this-node", 18);
    Node node{kNoNode, security};
    EXPECT_TRUE(store
                    ->write([&](Update& update) -> Status {
                      if (Status status = update.new_id(&node.id); !status.ok()) return status;
                      return update.insert(kRootNode, "precious", node);
                    })
                    .ok());
    id_ = node.id;
    EXPECT_TRUE(set_text(*store, id_, "the text of the value").ok());
  }

  std::vector<Finding> findings(bool repair = false) {
    std::vector<Finding> found;
    Totals totals;
    const Status status = open()->check(
        repair, [&](const Finding& finding) { found.push_back(finding); }, &totals);
    EXPECT_TRUE(status.ok()) << status.text();
    return found;
  }

  Status find_precious() {
    Node node;
    return open()->read([&](View& view) { return view.find(kRootNode, "precious", &node); });
  }

  NodeId id_ = kNoNode;
};

TEST_F(LmdbDamage, AChangedByteOfAValueIsNeverReadAsAValue) {
  ASSERT_GE(replace_in_file(data_file(), "the text of", "the fake of"), 1);
  std::string text = "untouched";
  const Status status = get_text(*open(), id_, &text);
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_EQ(status.text(), "value of node " + std::to_string(id_) + ": damaged record: its checksum does not match");
  EXPECT_EQ(text, "untouched");
  const auto found = findings();
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].kind, Finding::Kind::kDamagedValue);
  EXPECT_EQ(found[0].id, id_);
}

TEST_F(LmdbDamage, AChangedByteOfANodeIsNeverReadAsANode) {
  ASSERT_GE(replace_in_file(data_file(), "owner-of-this", "owner-of-that"), 1);
  const Status status = find_precious();
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_EQ(status.text(), "entry 'precious' below node 1: damaged record: its checksum does not match");
  const Status walk = open()->read(
      [](View& view) { return view.children(kRootNode, [](std::string_view, const Node&) { return Status(); }); });
  EXPECT_TRUE(walk.is(PRTKV_STORAGE_FAILED));
  for (const bool repair : {false, true}) {
    const auto found = findings(repair);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].kind, Finding::Kind::kDamagedNode);
    EXPECT_EQ(found[0].parent, kRootNode);
    EXPECT_EQ(found[0].name, "precious");
    EXPECT_EQ(found[1].kind, Finding::Kind::kOrphanValue);
  }
  // The value cannot be reached, and is gone. The node has a name, under which it can be replaced.
  const auto left = findings();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].kind, Finding::Kind::kDamagedNode);
}

TEST_F(LmdbDamage, ARecordWhoseKeyIsDamagedAsWellIsNotTakenForAbsent) {
  const std::string key("V\0\0\0\0\0\0\0", 8);
  ASSERT_GE(replace_in_file(data_file(), key + static_cast<char>(id_), key + static_cast<char>(id_ + 1)), 1);
  std::string text;
  EXPECT_TRUE(get_text(*open(), id_, &text).is(PRTKV_STORAGE_FAILED));  // the record tells whose it is
  ASSERT_GE(replace_in_file(data_file(), "the text of", "the fake of"), 1);
  const Status status = get_text(*open(), id_, &text);
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_NE(status.text().find("has a damaged record where the key sought belongs"), std::string::npos)
      << status.text();
  ASSERT_TRUE(set_text(*open(), id_, "anew").ok());
  EXPECT_EQ(text_of(*open(), id_), "anew");
}

TEST_F(LmdbDamage, APageThatAWriteHasFoundDamagedIsNotTrustedLaterInTheWrite) {
  const auto store = open();
  NodeId other = kNoNode;
  ASSERT_TRUE(add_node(*store, kRootNode, "second", &other).ok());
  const std::string key("N\0\0\0\0\0\0\0\1", 9);
  ASSERT_GE(replace_in_file(data_file(), key + "precious", key + "ufurious"), 1);  // behind "second"
  int attempts = 0;
  const Status status = store->write([&](Update& update) {
    Status failure;
    for (; attempts < 2 && (attempts == 0 || !failure.ok()); ++attempts) failure = update.set_value(id_, 3, {});
    return failure;
  });
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_NE(status.text().find("has its keys out of order"), std::string::npos) << status.text();
  EXPECT_EQ(attempts, 2);
}

// LMDB takes for granted what the lists of free pages say: how many numbers they have, and which. A long list is in
// overflow pages.
TEST_F(LmdbDamage, NoWriteReliesOnADamagedListOfFreePages) {
  ASSERT_TRUE(set_text(*open(), id_, std::string(kMiB, 'x')).ok());
  ASSERT_TRUE(set_text(*open(), id_, "the text of the value").ok());
  const std::string sound = read_file(data_file());
  std::size_t long_lists = 0;
  const auto at = [&](std::size_t offset, auto kind) {
    decltype(kind) read;
    std::memcpy(&read, sound.data() + offset, sizeof read);
    return read;
  };
  const std::size_t page_size = at(0, MetaPage{}).free_pages.page_size;
  const std::array<MetaPage, 2> metas{at(0, MetaPage{}), at(page_size, MetaPage{})};
  const MetaPage& latest = metas[metas[1].transaction > metas[0].transaction ? 1 : 0];
  const std::size_t page = latest.free_pages.page * page_size;
  const auto count = (at(page, PageHeader{}).lower - sizeof(PageHeader)) / sizeof(std::uint16_t);
  ASSERT_EQ(latest.free_pages.depth, 1);
  ASSERT_GE(count, 2u) << "the first list is not the last one";
  for (std::size_t index = 0; index < count; ++index) {
    constexpr std::size_t kWord = sizeof(std::uint64_t);
    const std::size_t node = page + at(page + sizeof(PageHeader) + 2 * index, std::uint16_t{});
    const std::size_t data = node + sizeof(NodeHeader) + kWord;
    const bool is_long = at(node, NodeHeader{}).flags == kBigData;
    const std::size_t list = is_long ? at(data, std::uint64_t{}) * page_size + sizeof(PageHeader) : data;
    const std::uint64_t length = at(node, NodeHeader{}).low / kWord - 1;
    long_lists += is_long ? 1 : 0;
    const auto expect_refused = [&](std::size_t word, std::uint64_t number, const char* damage) {
      std::string bytes = sound;
      std::memcpy(bytes.data() + list + word * kWord, &number, sizeof number);
      write_file(data_file(), bytes);
      const Status status = set_text(*open(), id_, "anew");
      EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED)) << "list " << index << ", word " << word << ": " << number;
      EXPECT_NE(status.text().find(damage), std::string::npos) << status.text();
      EXPECT_TRUE(read_file(data_file()) == bytes) << "nothing is written";
      EXPECT_EQ(text_of(*open(), id_), "the text of the value");
    };
    ASSERT_GE(length, 1u);
    expect_refused(0, length + 1, "has a list of free pages that is cut off");
    expect_refused(0, std::uint64_t{0xff} << 48 | length, "has a list of free pages that is cut off");
    for (const std::uint64_t number : {std::uint64_t{0}, std::uint64_t{1}, latest.last_page + 1, ~std::uint64_t{0}})
      expect_refused(1, number, "has a list of free pages that is out of order");
    if (length > 1) {
      expect_refused(2, at(list + kWord, std::uint64_t{}), "has a list of free pages that is out of order");
    }
  }
  EXPECT_GE(long_lists, 1u);
  EXPECT_LT(long_lists, count);
  write_file(data_file(), sound);
  EXPECT_TRUE(set_text(*open(), id_, "anew").ok());
}

// Such a page looks sound: it has what it had before the latest write.
TEST_F(LmdbDamage, NoWriteAddsARecordToAPageThatIsFreeByNow) {
  options_.retention.off = false;
  for (int write = 0; write < 20; ++write) ASSERT_TRUE(set_text(*open(), id_, std::string(1000, 'x')).ok());
  const std::string former = read_file(data_file());
  ASSERT_TRUE(set_text(*open(), id_, "the latest text").ok());
  std::string bytes = read_file(data_file());
  const auto root_of = [](const std::string& file, Page* root) {
    std::array<MetaPage, 2> metas;
    std::memcpy(&metas[0], file.data(), sizeof(MetaPage));
    const std::size_t page_size = metas[0].free_pages.page_size;
    std::memcpy(&metas[1], file.data() + page_size, sizeof(MetaPage));
    const TreeRoot& records = metas[metas[1].transaction > metas[0].transaction ? 1 : 0].records;
    ASSERT_EQ(records.depth, 2);
    const std::byte* const page = std::as_bytes(std::span(file)).data() + records.page * page_size;
    ASSERT_EQ(root->open(page, page_size, records.page, kBranchPage), nullptr);
  };
  Page before;
  Page after;
  ASSERT_NO_FATAL_FAILURE(root_of(former, &before));
  ASSERT_NO_FATAL_FAILURE(root_of(bytes, &after));
  ASSERT_EQ(before.count(), after.count()) << "the write has split a page: choose another number of writes";
  unsigned index = 0;
  PageNode left;
  PageNode right;
  do {
    ASSERT_TRUE(before.read(index, &left) && after.read(index, &right));
  } while (left.child() == right.child() && ++index < after.count());
  ASSERT_LT(index, after.count()) << "the first child that was replaced is the one with the latest changes";
  bytes.replace(
      static_cast<std::size_t>(reinterpret_cast<const char*>(right.key.data()) - bytes.data()) - sizeof(NodeHeader),
      sizeof(NodeHeader), reinterpret_cast<const char*>(&left.header), sizeof(NodeHeader));
  write_file(data_file(), bytes);
  const Status status = set_text(*open(), id_, "anew");
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_NE(status.text().find("page " + std::to_string(left.child()) + " is free, and is referred to"),
            std::string::npos)
      << status.text();
  EXPECT_TRUE(read_file(data_file()) == bytes) << "nothing is written";
}

TEST_F(LmdbDamage, ADamagedNodeIsPassedOverByAWalkThatMay) {
  NodeId other = kNoNode;
  ASSERT_TRUE(add_node(*open(), kRootNode, "sound", &other).ok());
  ASSERT_GE(replace_in_file(data_file(), "owner-of-this", "owner-of-that"), 1);
  const auto store = open();
  const auto walk = [](View& view) {
    std::string names;
    const Status status = view.children_with_damage(
        kRootNode,
        [&](std::string_view name, const Node&) -> Status {
          names.append(name).append(" ");
          return {};
        },
        [&](std::string_view name, const Status& damage) -> Status {
          EXPECT_TRUE(damage.is(PRTKV_STORAGE_FAILED));
          names.append("(").append(name).append(") ");
          return {};
        });
    EXPECT_TRUE(status.ok()) << status.text();
    EXPECT_EQ(names, "(precious) sound ");
    return Status();
  };
  EXPECT_TRUE(store->read(walk).ok());
  EXPECT_TRUE(store->write([&](Update& update) { return walk(update); }).ok());
}

TEST_F(LmdbDamage, ADamagedNodeCanBeReplaced) {
  ASSERT_GE(replace_in_file(data_file(), "owner-of-this", "owner-of-that"), 1);
  const auto store = open();
  NodeId id = kNoNode;
  ASSERT_TRUE(store
                  ->write([&](Update& update) -> Status {
                    if (Status status = update.unlink(kRootNode, "precious"); !status.ok()) return status;
                    Node node;
                    if (Status status = update.new_id(&node.id); !status.ok()) return status;
                    id = node.id;
                    return update.insert(kRootNode, "precious", node);
                  })
                  .ok());
  ASSERT_TRUE(set_text(*store, id, "anew").ok());
  EXPECT_EQ(findings(true).size(), 1u);  // the value of the former node
  EXPECT_EQ(expect_sound(*store).nodes, 2u);
  EXPECT_EQ(text_of(*store, id), "anew");
}

TEST_F(LmdbDamage, AParentOfADamagedNodeCanBeRemovedWithIt) {
  NodeId below = kNoNode;
  {
    const auto store = open();
    NodeId child = kNoNode;
    ASSERT_TRUE(add_node(*store, kRootNode, "parent", &below).ok());
    ASSERT_TRUE(add_node(*store, below, "sound", &child).ok());
    ASSERT_TRUE(store
                    ->write([&](Update& update) -> Status {
                      Node node;
                      if (Status status = update.find(kRootNode, "precious", &node); !status.ok()) return status;
                      if (Status status = update.unlink(kRootNode, "precious"); !status.ok()) return status;
                      return update.insert(below, "precious", node);
                    })
                    .ok());
  }
  ASSERT_GE(replace_in_file(data_file(), "owner-of-this", "owner-of-that"), 1);
  const auto store = open();
  ASSERT_TRUE(store
                  ->write([&](Update& update) -> Status {
                    if (Status status = update.unlink(kRootNode, "parent"); !status.ok()) return status;
                    return update.discard(below);
                  })
                  .ok());
  EXPECT_EQ(findings(true).size(), 1u);  // the value of the damaged node, whose id nobody could tell
  EXPECT_EQ(expect_sound(*store).nodes, 1u);
}

TEST_F(LmdbDamage, ADamagedValueCanBeOverwrittenAndRemoved) {
  for (const char* text : {"anew", ""}) {
    ASSERT_TRUE(set_text(*open(), id_, "the text of the value").ok());
    ASSERT_GE(replace_in_file(data_file(), "the text of", "the fake of"), 1);
    const auto store = open();
    ASSERT_TRUE(set_text(*store, id_, text).ok());
    EXPECT_EQ(text_of(*store, id_), text);
    expect_sound(*store);
  }
}

class LmdbDamagedRoot : public LmdbDamage {
 protected:
  Status find_root(Node* root) {
    return open()->read([&](View& view) { return view.find(kNoNode, "", root); });
  }

  void damage_root() {
    const std::string key = std::string("N\0\0\0\0\0\0\0\0\2\1\0\0\1", 14);  // and the record's first bytes
    const std::string damaged = std::string("N\0\0\0\0\0\0\0\0\2\1\0\0\3", 14);
    ASSERT_GE(replace_in_file(data_file(), key, damaged), 1);
    Node root;
    EXPECT_TRUE(find_root(&root).is(PRTKV_STORAGE_FAILED));
  }

  void expect_root(const sec_attr& expected) {
    Node root;
    ASSERT_TRUE(find_root(&root).ok());
    EXPECT_EQ(root.id, kRootNode);
    EXPECT_EQ(std::memcmp(&root.security, &expected, sizeof expected), 0);
    EXPECT_EQ(text_of(*open(), id_), "the text of the value");
    EXPECT_EQ(expect_sound(*open()).nodes, 2u);
  }
};

TEST_F(LmdbDamagedRoot, IsRepairedForTheOwnerOfTheFileAlone) {
  sec_attr expected{};
  std::strcpy(expected.user_name, "ada");
  std::strcpy(expected.group_name, "staff");
  expected.user_perm = 0x3f;
  options_.root_security = expected;
  options_.root_security.group_perm = 0x34;
  options_.root_security.other_perm = 0x3;
  damage_root();
  EXPECT_TRUE(open()->is_own());
  ASSERT_EQ(findings(true).size(), 1u);
  expect_root(expected);
}

TEST_F(LmdbDamagedRoot, IsRepairedForTheSuperuserAloneByAnybodyElse) {
  constexpr gid_t kSharedGroup = 1;
  constexpr uid_t kMember = 54321;
  const struct group* const entry = getgrgid(kSharedGroup);
  if (geteuid() != 0 || entry == nullptr) GTEST_SKIP() << "only root can act as a member of the group";
  ASSERT_EQ(chown(options_.directory.c_str(), 0, kSharedGroup), 0);
  ASSERT_EQ(chmod(options_.directory.c_str(), 03770), 0);
  for (const auto& file : fs::directory_iterator(options_.directory)) {
    ASSERT_EQ(chown(file.path().c_str(), 0, kSharedGroup), 0);
    ASSERT_EQ(chmod(file.path().c_str(), 0660), 0);
  }
  fs::permissions(temporary_.path(), fs::perms(0755));
  options_.group = entry->gr_name;
  options_.root_security.user_perm = 0x3f;
  damage_root();
  EXPECT_EQ(in_child([&] {
              if (setgroups(0, nullptr) != 0 || setgid(kSharedGroup) != 0 || setuid(kMember) != 0) return 1;
              if (open()->is_own()) return 2;
              return findings(true).size() == 1 ? 0 : 3;
            }),
            0);
  expect_root(sec_attr{});
}

TEST_F(LmdbDamage, ADamagedCounterOfIdsIsRepairedWithoutUsingAnIdAgain) {
  std::uint64_t structure = 0;
  const auto read_structure = [&] {
    return open()->read([&](View& view) -> Status {
      structure = view.structure();
      return {};
    });
  };
  ASSERT_TRUE(read_structure().ok());
  const std::uint64_t former = structure;
  const std::string key("M\2\3\0\0", 5);  // and the record's first bytes
  ASSERT_GE(replace_in_file(data_file(), key, std::string("M\2\3\0\7", 5)), 1);
  EXPECT_EQ(text_of(*open(), id_), "the text of the value");
  NodeId id = kNoNode;
  EXPECT_TRUE(add_node(*open(), kRootNode, "new", &id).is(PRTKV_STORAGE_FAILED));
  ASSERT_EQ(findings(true).size(), 1u);
  ASSERT_TRUE(add_node(*open(), kRootNode, "new", &id).ok());
  EXPECT_GT(id, id_ + 1'000'000);
  ASSERT_TRUE(read_structure().ok());
  EXPECT_GT(structure, former);
  EXPECT_EQ(expect_sound(*open()).nodes, 3u);
}

TEST_F(LmdbDamage, AChangedNameIsFoundByACheck) {
  const std::string key = std::string("N\0\0\0\0\0\0\0\1", 9);
  ASSERT_GE(replace_in_file(data_file(), key + "precious", key + "pretious"), 1);
  const auto found = findings();
  ASSERT_GE(found.size(), 1u);
  EXPECT_EQ(found[0].kind, Finding::Kind::kDamagedNode);
  EXPECT_EQ(found[0].name, "pretious");
}

TEST_F(LmdbDamage, EveryByteOfARecordCounts) {
  const std::string sound = read_file(data_file());
  const std::string key = std::string("V\0\0\0\0\0\0\0", 8) + static_cast<char>(id_);
  const std::size_t size = value_record_size(std::strlen("the text of the value"));
  for (std::size_t offset = 0; offset < size; ++offset) {
    std::string bytes = sound;
    int copies = 0;
    for (std::size_t at = 0; (at = bytes.find(key, at)) != std::string::npos; at += key.size(), ++copies)
      bytes[at + key.size() + offset] = static_cast<char>(bytes[at + key.size() + offset] ^ 0x10);
    ASSERT_GE(copies, 1);
    write_file(data_file(), bytes);
    std::string text;
    EXPECT_TRUE(get_text(*open(), id_, &text).is(PRTKV_STORAGE_FAILED)) << "byte " << offset;
  }
  write_file(data_file(), sound);
  EXPECT_EQ(text_of(*open(), id_), "the text of the value");
}

TEST_F(LmdbDamage, ARecordInAnothersPlaceIsFound) {
  NodeId other = kNoNode;
  ASSERT_TRUE(add_node(*open(), kRootNode, "other", &other).ok());
  with_plain_lmdb(options_.directory, [&](MDB_txn* txn, MDB_dbi database) {
    const Key from = Key::value(id_);
    const Key to = Key::value(other);
    MDB_val from_val = from.val();
    MDB_val to_val = to.val();
    MDB_val data{};
    ASSERT_EQ(mdb_get(txn, database, &from_val, &data), 0);
    std::string copy(static_cast<const char*>(data.mv_data), data.mv_size);
    data = val_of(copy);
    ASSERT_EQ(mdb_put(txn, database, &to_val, &data, 0), 0);
  });
  std::string text;
  EXPECT_TRUE(get_text(*open(), other, &text).is(PRTKV_STORAGE_FAILED));
  EXPECT_EQ(text_of(*open(), id_), "the text of the value");
}

TEST_F(LmdbDamage, AnUnknownKeyIsReportedAndLeftAlone) {
  with_plain_lmdb(options_.directory, [&](MDB_txn* txn, MDB_dbi database) {
    MDB_val key = val_of("Zebra");
    MDB_val data = val_of("stripes");
    ASSERT_EQ(mdb_put(txn, database, &key, &data, 0), 0);
  });
  for (const bool repair : {false, true}) {
    const auto found = findings(repair);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].kind, Finding::Kind::kDamagedNode);
    EXPECT_EQ(found[0].name, "Zebra");
  }
}

TEST_F(LmdbDamage, ARecordOfANewerFormatIsRefused) {
  with_plain_lmdb(options_.directory, [&](MDB_txn* txn, MDB_dbi database) {
    const Key key = Key::value(id_);
    MDB_val key_val = key.val();
    MDB_val data{};
    ASSERT_EQ(mdb_get(txn, database, &key_val, &data), 0);
    std::string copy(static_cast<const char*>(data.mv_data), data.mv_size);
    set_version(&copy, kRecordVersion + 1, id_, "");
    data = val_of(copy);
    ASSERT_EQ(mdb_put(txn, database, &key_val, &data, 0), 0);
  });
  std::string text;
  const Status status = get_text(*open(), id_, &text);
  EXPECT_TRUE(status.is(PRTKV_UNUSABLE));
  EXPECT_NE(status.text().find("format version"), std::string::npos) << status.text();
}

TEST_F(LmdbDamage, AFileThatWasCutOffIsAFailureAndNotTheEndOfTheProcess) {
  std::size_t whole = fs::file_size(data_file());
  ASSERT_TRUE(set_text(*open(), id_, std::string(kMiB, 'v')).ok());
  whole = fs::file_size(data_file());
  const std::string sound = read_file(data_file());
  for (std::size_t size = 0; size < whole; size += size < 65536 ? 4096 : 262144) {
    write_file(data_file(), std::string_view(sound).substr(0, size));
    const int outcome = in_child([&] {
      std::shared_ptr<Store> store;
      if (const Status status = open_lmdb_store(options_, &store); !status.ok()) {
        return status.is(PRTKV_STORAGE_FAILED) ? 0 : 1;
      }
      if (fs::file_size(data_file()) < whole) return 3;  // reading beyond its end would end the process
      std::string text;
      const Status status = get_text(*store, id_, &text);
      Totals totals;
      (void)store->check(
          false, [](const Finding&) {}, &totals);
      return status.ok() && text != std::string(kMiB, 'v') ? 2 : 0;
    });
    EXPECT_EQ(outcome, 0) << "cut to " << size << " bytes";
  }
}

// Ways to damage a page of 4096 bytes.
const std::pair<const char*, std::function<void(std::string*)>> kSpoilers[] = {
    {"zeroes", [](std::string* page) { page->assign(page->size(), '\0'); }},
    {"ones", [](std::string* page) { page->assign(page->size(), '\xff'); }},
    {"another page's number", [](std::string* page) { ++(*page)[0]; }},
    {"another kind", [](std::string* page) { (*page)[10] ^= 3; }},
    {"no kind", [](std::string* page) { (*page)[10] = 0; }},
    {"more entries", [](std::string* page) { (*page)[12] = static_cast<char>((*page)[12] + 40); }},
    {"no entries",
     [](std::string* page) {
       (*page)[12] = 16;
       (*page)[13] = 0;
     }},
    {"bounds outside",
     [](std::string* page) {
       (*page)[13] = '\x7f';
       (*page)[15] = '\x7f';
     }},
    {"an entry outside", [](std::string* page) { (*page)[17] = '\x7f'; }},
    {"entries at odd places",
     [](std::string* page) {
       for (int i = 16; i < 60; i += 2) ++(*page)[static_cast<std::size_t>(i)];
     }},
    {"huge entries",
     [](std::string* page) {
       for (std::size_t i = 3000; i < 4096; i += 8) (*page)[i] = '\xff';
     }},
    {"a flipped bit here and there",
     [](std::string* page) {
       for (std::size_t i = 24; i < 4096; i += 97) (*page)[i] ^= 0x20;
     }},
};

class LmdbPages : public LmdbDamage {
 protected:
  // Reads and writes everything that it can. Returns false if damage was found.
  bool use_all_of_it() {
    std::shared_ptr<Store> store;
    if (!open_lmdb_store(options_, &store).ok()) return false;
    Totals totals;
    const Status checked = store->check(
        false, [](const Finding&) {}, &totals);
    std::string text;
    for (NodeId id = 1; id < 130; ++id) (void)get_text(*store, id, &text);
    (void)store->write([](Update& update) -> Status {
      for (NodeId id = 1; id < 130; ++id)
        if (Status status = update.set_value(id, 1, std::vector<std::byte>(id)); !status.ok()) return status;
      return {};
    });
    return checked.ok();
  }
};

TEST_F(LmdbPages, AnySpoiltPageIsAFailureAndNotTheEndOfTheProcess) {
  {
    const auto store = open();
    ASSERT_TRUE(store
                    ->write([&](Update& update) -> Status {
                      for (int i = 0; i < 120; ++i) {
                        Node node;
                        const std::string text(i % 40 == 0 ? 9000 : 20, 't');
                        if (Status status = update.new_id(&node.id); !status.ok()) return status;
                        if (Status status = update.insert(kRootNode, std::to_string(i), node); !status.ok()) {
                          return status;
                        }
                        if (Status status = update.set_value(node.id, 3, std::as_bytes(std::span(text)));
                            !status.ok()) {
                          return status;
                        }
                      }
                      return {};
                    })
                    .ok());
    ASSERT_TRUE(set_text(*store, id_, "leaves free pages behind").ok());
  }
  const std::string sound = read_file(data_file());
  int refused = 0;
  for (std::size_t at = 0; at + 4096 <= sound.size(); at += 4096) {
    const int outcome = in_child([&] {
      return static_cast<int>(std::count_if(std::begin(kSpoilers), std::end(kSpoilers), [&](const auto& spoiler) {
        std::string page = sound.substr(at, 4096);
        spoiler.second(&page);
        std::string bytes = sound;
        write_file(data_file(), bytes.replace(at, 4096, page));
        return !use_all_of_it();
      }));
    });
    EXPECT_LE(outcome, static_cast<int>(std::size(kSpoilers))) << "page " << at / 4096;
    refused += outcome;
  }
  EXPECT_GT(refused, 40);
}

TEST_F(LmdbDamage, ACheckFindsAMetaPageThatWasDamagedWhileTheRegistryWasOpen) {
  const auto store = open();
  for (const std::streamoff page : {0, 4096}) {
    std::fstream file(data_file(), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(page + 40).write("\0\0\0\0", 4);  // the page size
    ASSERT_TRUE(file.flush());
  }
  Totals totals;
  const Status status = store->check(
      false, [](const Finding&) {}, &totals);
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_NE(status.text().find("page 0 is not a meta page of LMDB"), std::string::npos) << status.text();
}

// Whether a page of the file holds a record under the key.
bool holds(const std::string& bytes, std::uint64_t number, const Key& key) {
  constexpr std::size_t kPageSize = 4096;
  Page page;
  const auto* const at = reinterpret_cast<const std::byte*>(bytes.data()) + number * kPageSize;
  if (page.open(at, kPageSize, number, kLeafPage) != nullptr) return false;
  for (unsigned index = 0; index < page.count(); ++index) {
    PageNode node;
    if (page.read(index, &node) && compare_keys(node.key, key.bytes()) == 0) return true;
  }
  return false;
}

TEST_F(LmdbDamage, ARegistryWhoseRootIsOnADamagedPageCanBeOpened) {
  constexpr std::size_t kPageSize = 4096;
  options_.retention.off = false;
  auto store = open();
  for (int change = 0; change < 200; ++change) {  // a log of several pages, so that the root is on another one
    ASSERT_TRUE(set_text(*store, kRootNode, "text").ok());
  }
  store.reset();
  std::string bytes = read_file(data_file());
  std::size_t damaged = 0;
  for (std::uint64_t number = 2; number < bytes.size() / kPageSize; ++number) {
    if (!holds(bytes, number, Key::node(kNoNode)) || holds(bytes, number, Key::meta())) continue;
    bytes[number * kPageSize + offsetof(PageHeader, flags)] = 0;
    ++damaged;
  }
  ASSERT_GT(damaged, 0u);
  write_file(data_file(), bytes);
  store = open();
  const Status status = store->read([](View& view) {
    Node node;
    return view.find(kNoNode, "", &node);
  });
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED)) << status.text();
}

TEST_F(LmdbDamage, AFileWhoseLastPagesWereNeverWrittenIsSound) {
  auto store = open();
  ASSERT_TRUE(store
                  ->write([&](Update& update) -> Status {
                    std::vector<std::byte> large(kMiB, std::byte{'l'});
                    for (NodeId id = 100; id < 104; ++id)
                      if (Status status = update.set_value(id, 3, large); !status.ok()) return status;
                    for (NodeId id = 100; id < 104; ++id)
                      if (Status status = update.set_value(id, 0, {}); !status.ok()) return status;
                    return {};
                  })
                  .ok());
  store.reset();
  store = open();
  EXPECT_EQ(text_of(*store, id_), "the text of the value");
  expect_sound(*store);
  ASSERT_TRUE(set_text(*store, id_, std::string(kMiB, 'x')).ok());
}

}  // namespace
}  // namespace tkv::store
