// What happens between two steps of LMDB: other processes commit while a transaction begins, and pages change between
// the check at opening and their use. The functions of LMDB that are defined here come before the library's.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <lmdb.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "lmdb_files.h"
#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace {

// Run once, at the next call.
std::function<void()> after_beginning_to_read;
std::function<void(MDB_env*)> before_getting;
std::function<void(MDB_env*)> before_getting_through_cursor;
std::function<void()> after_mapping;

MDB_assert_func* assertion = nullptr;  // the last one set

void run_once(std::function<void()>& hook) {
  if (const auto run = std::exchange(hook, nullptr)) run();
}

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] int mdb_txn_renew(MDB_txn* txn) {
  static auto* const original = real<decltype(mdb_txn_renew)>("mdb_txn_renew");
  const int code = original(txn);
  run_once(after_beginning_to_read);
  return code;
}

[[gnu::visibility("default")]] int mdb_get(MDB_txn* txn, MDB_dbi database, MDB_val* key, MDB_val* data) {
  static auto* const original = real<decltype(mdb_get)>("mdb_get");
  if (const auto run = std::exchange(before_getting, nullptr)) run(mdb_txn_env(txn));
  return original(txn, database, key, data);
}

[[gnu::visibility("default")]] int mdb_cursor_get(MDB_cursor* cursor, MDB_val* key, MDB_val* data, MDB_cursor_op op) {
  static auto* const original = real<decltype(mdb_cursor_get)>("mdb_cursor_get");
  if (const auto run = std::exchange(before_getting_through_cursor, nullptr)) run(mdb_txn_env(mdb_cursor_txn(cursor)));
  return original(cursor, key, data, op);
}

// The environment is mapped by now, or it is being mapped anew.
[[gnu::visibility("default")]] int mdb_reader_check(MDB_env* env, int* dead) {
  static auto* const original = real<decltype(mdb_reader_check)>("mdb_reader_check");
  const int code = original(env, dead);
  run_once(after_mapping);
  return code;
}

[[gnu::visibility("default")]] int mdb_env_set_mapsize(MDB_env* env, std::size_t size) {
  static auto* const original = real<decltype(mdb_env_set_mapsize)>("mdb_env_set_mapsize");
  const int code = original(env, size);
  if (size == 0) run_once(after_mapping);
  return code;
}

[[gnu::visibility("default")]] int mdb_env_set_assert(MDB_env* env, MDB_assert_func* function) {
  static auto* const original = real<decltype(mdb_env_set_assert)>("mdb_env_set_assert");
  assertion = function;
  return original(env, function);
}
}

namespace tkv::store {
namespace {

// A process that waits until it may do its work: none can be forked while an environment is being opened.
class Elsewhere {
 public:
  explicit Elsewhere(const std::function<int()>& work) {
    if (pipe(begins_) != 0) std::abort();
    process_ = fork();
    if (process_ == 0) {
      char byte = 0;
      close(begins_[1]);
      _exit(read(begins_[0], &byte, 1) == 1 ? work() : 0);
    }
    close(begins_[0]);
  }
  ~Elsewhere() {
    close(begins_[1]);
    if (process_ > 0) waitpid(process_, nullptr, 0);
  }
  Elsewhere(const Elsewhere&) = delete;
  Elsewhere& operator=(const Elsewhere&) = delete;

  void work() {
    int status = 0;
    EXPECT_EQ(write(begins_[1], "w", 1), 1);
    EXPECT_EQ(waitpid(std::exchange(process_, 0), &status, 0) > 0 ? status : -1, 0);
  }

 private:
  int begins_[2] = {-1, -1};
  pid_t process_ = 0;
};

class LmdbRaces : public ::testing::Test {
 protected:
  LmdbRaces() { options_.directory = temporary_ / "registry"; }

  // Commits in another process.
  void commit_elsewhere(int times) const {
    EXPECT_EQ(in_child([&] {
                const auto store = open_or_fail(options_);
                for (int n = 1; n <= times; ++n)
                  if (!set_text(*store, kRootNode, "commit " + std::to_string(n)).ok()) return 1;
                return 0;
              }),
              0);
  }

  // Makes the registry so much larger that no map made before holds it.
  int grow(std::size_t growth) const {
    const auto store = open_or_fail(options_);
    for (std::size_t n = 0; n < 4 * growth; ++n) {
      NodeId id = kNoNode;
      const std::string name = std::to_string(growth) + "-" + std::to_string(n);
      if (!add_node(*store, kRootNode, name, &id).ok()) return 1;
      if (!set_text(*store, id, std::string(kFirstMap, 'v')).ok()) return 2;
    }
    return 0;
  }

  static constexpr std::size_t kFirstMap = std::size_t{1} << 20;
  TemporaryDirectory temporary_{TemporaryDirectory::Where::kInMemory};
  LmdbOptions options_;
};

TEST_F(LmdbRaces, AReaderBeginsAgainIfItsMetaPageIsOverwrittenMeanwhile) {
  const auto store = open_or_fail(options_);
  ASSERT_TRUE(set_text(*store, kRootNode, "before").ok());
  EXPECT_EQ(text_of(*store), "before");
  for (const int commits : {1, 2, 3, 4}) {
    SCOPED_TRACE(commits);
    ASSERT_TRUE(set_text(*store, kRootNode, "before").ok());
    bool has_run = false;
    after_beginning_to_read = [&] {
      commit_elsewhere(commits);
      has_run = true;
    };
    EXPECT_EQ(text_of(*store), "commit " + std::to_string(commits));
    EXPECT_TRUE(has_run);
  }
  expect_sound(*store);
}

TEST_F(LmdbRaces, ARegistryThatGrowsWhileItIsBeingOpenedIsOpened) {
  options_.first_map_size = kFirstMap;
  ASSERT_TRUE(set_text(*open_or_fail(options_), kRootNode, "kept").ok());
  Elsewhere elsewhere([&] { return grow(1); });
  after_mapping = [&] { elsewhere.work(); };
  std::shared_ptr<Store> store;
  EXPECT_EQ(open_lmdb_store(options_, &store).text(), "done");
  ASSERT_NE(store, nullptr);
  EXPECT_FALSE(after_mapping);
  EXPECT_EQ(text_of(*store), "kept");
  expect_sound(*store);
}

TEST_F(LmdbRaces, ARegistryThatGrowsOnceMoreWhileItsGrowthIsBeingFollowedIsRead) {
  options_.first_map_size = kFirstMap;
  Elsewhere first([&] { return grow(1); });
  Elsewhere second([&] { return grow(4); });
  const auto store = open_or_fail(options_);
  ASSERT_TRUE(set_text(*store, kRootNode, "kept").ok());
  first.work();
  after_mapping = [&] { second.work(); };
  EXPECT_EQ(text_of(*store), "kept");
  EXPECT_FALSE(after_mapping) << "the growth was not followed";
  expect_sound(*store);
}

TEST_F(LmdbRaces, APageThatLmdbFindsDamagedAtOpeningFailsTheOpening) {
  (void)open_or_fail(options_);
  for (const std::string text : {"", "kept"}) {
    SCOPED_TRACE(text);
    auto& hook = text.empty() ? before_getting : before_getting_through_cursor;  // without free pages, and with some
    if (!text.empty()) {
      ASSERT_TRUE(set_text(*open_or_fail(options_), kRootNode, text).ok());
    }
    hook = [](MDB_env* env) { assertion(env, "a page contradicts itself"); };
    std::shared_ptr<Store> store;
    Status status;
    EXPECT_NO_THROW(status = open_lmdb_store(options_, &store));
    EXPECT_FALSE(hook) << "the opening has not read through LMDB";
    EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED)) << status.code();
    EXPECT_NE(status.text().find("the registry in '" + options_.directory + "' is damaged: a page contradicts itself"),
              std::string::npos)
        << status.text();
    EXPECT_EQ(store, nullptr);
    EXPECT_EQ(text_of(*open_or_fail(options_)), text) << "nothing was left open";
  }
}

TEST_F(LmdbRaces, AWriteIsNotAcknowledgedIfTheFilesAreReplacedWhileItIsMade) {
  namespace fs = std::filesystem;
  for (const char* name : {"data.mdb", "lock.mdb"}) {
    SCOPED_TRACE(name);
    const std::string file = options_.directory + "/" + name;
    const auto store = open_or_fail(options_);
    ASSERT_TRUE(set_text(*store, kRootNode, "before").ok());
    const Status status = store->write([&](Update& update) -> Status {
      fs::copy_file(file, file + ".copy");
      fs::rename(file + ".copy", file);
      return update.set_value(kRootNode, 3, std::as_bytes(std::span("after", 5)));
    });
    EXPECT_TRUE(status.is(PRTKV_UNUSABLE)) << status.code();
    EXPECT_EQ(in_child([&] { return text_of(*open_or_fail(options_)) == "before" ? 0 : 1; }), 0);
  }
}

}  // namespace
}  // namespace tkv::store
