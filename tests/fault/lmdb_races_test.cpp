// What happens between two steps of LMDB: other processes commit while a transaction begins, and pages change between
// the check at opening and their use. The functions of LMDB that are defined here come before the library's.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <lmdb.h>

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

[[gnu::visibility("default")]] int mdb_env_set_assert(MDB_env* env, MDB_assert_func* function) {
  static auto* const original = real<decltype(mdb_env_set_assert)>("mdb_env_set_assert");
  assertion = function;
  return original(env, function);
}
}

namespace tkv::store {
namespace {

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

TEST_F(LmdbRaces, APageThatLmdbFindsDamagedAtOpeningFailsTheOpening) {
  ASSERT_TRUE(set_text(*open_or_fail(options_), kRootNode, "kept").ok());
  before_getting = [](MDB_env* env) { assertion(env, "a page contradicts itself"); };
  std::shared_ptr<Store> store;
  Status status;
  EXPECT_NO_THROW(status = open_lmdb_store(options_, &store));
  EXPECT_FALSE(before_getting) << "the opening has not read through LMDB";
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED)) << status.code();
  EXPECT_NE(status.text().find("the registry in '" + options_.directory + "' is damaged: a page contradicts itself"),
            std::string::npos)
      << status.text();
  EXPECT_EQ(store, nullptr);
  EXPECT_EQ(text_of(*open_or_fail(options_)), "kept") << "nothing was left open";
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
