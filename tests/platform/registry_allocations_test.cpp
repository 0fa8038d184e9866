// Counts the allocations of a session.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "allocation.h"
#include "prtkv.h"
#include "registry_fixture.h"
#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace tkv::registry {
namespace {

using test::allocations;
using test::deallocations;

// Opens, reads and closes; false when any of it fails.
bool read_once(prtkv_ctx ctx, const char* name, char* buffer, std::uint32_t capacity, std::uint32_t* size) {
  prtkv_key key = 0;
  std::int32_t type = 0;
  *size = capacity;
  return prtkv_open_key(ctx, &key, name) == PRTKV_DONE &&
         prtkv_get_value(ctx, key, &type, buffer, size) == PRTKV_DONE && prtkv_close_key(ctx, key) == PRTKV_DONE;
}

TEST(Allocations, CounterCounts) {
  const long before = allocations.load();
  delete new std::string(1000, 'x');
  EXPECT_GE(allocations.load() - before, 2);
}

// A registry in a directory, with a client of an ordinary user.
class AllocationsOfReads : public ::testing::Test {
 protected:
  void SetUp() override {
    store::LmdbOptions options;
    std::shared_ptr<store::Store> store;
    options.directory = directory_ / "registry";
    options.root_security = open_to_all();
    ASSERT_EQ(store::open_lmdb_store(options, &store).text(), "done");
    client_ = client_on(store, person("bob", {"users"}));
  }

  const TemporaryDirectory directory_;
  std::shared_ptr<Client> client_;
};

TEST_F(AllocationsOfReads, WarmOpenGetAndCloseOfUpToOneKibibyteNeedNone) {
  const Context ctx(client_);
  const char* names[] = {"", "SYSTEM", "SYSTEM.version", "SYSTEM.version.patch"};
  for (int level = 1; level < 4; ++level) {
    prtkv_key key = 0;
    std::int32_t word = 0;
    const std::string value(1024, static_cast<char>('0' + level));
    const prtkv_key parent = ctx.open(names[level - 1]);
    const char* last = std::string_view(names[level]).rfind('.') == std::string_view::npos
                           ? names[level]
                           : names[level] + std::string_view(names[level]).rfind('.') + 1;
    ASSERT_EQ(prtkv_create_n_set_key(ctx, parent, last, &key, &word, 3, open_to_all(), value.data(), 1024), PRTKV_DONE);
    ASSERT_EQ(prtkv_close_key(ctx, key), PRTKV_DONE);
    ASSERT_EQ(prtkv_close_key(ctx, parent), PRTKV_DONE);
  }
  char buffer[1024];
  std::uint32_t size = 0;
  for (int reads = 0; reads < 2; ++reads) {  // the second one takes the key into the cache of known keys
    for (const char* name : names) ASSERT_TRUE(read_once(ctx, name, buffer, sizeof buffer, &size));
  }
  const long before = allocations.load();
  int failed = 0;
  for (int n = 0; n < 1000; ++n) {
    if (!read_once(ctx, names[n % 4], buffer, sizeof buffer, &size)) ++failed;
  }
  EXPECT_EQ(allocations.load() - before, 0);
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(size, 1024U);
  EXPECT_EQ(buffer[1023], '3');
}

// Opens a key, reads its list of subkeys up to the last of them, and closes it. Returns their number or, if anything
// fails, none.
int list_once(prtkv_ctx ctx, const char* name) {
  prtkv_key key = 0;
  std::int32_t remaining = 1;
  int count = 0;
  if (prtkv_open_key(ctx, &key, name) != PRTKV_DONE) return 0;
  for (; remaining > 0; ++count) {
    char level[PRTKV_SUBKEY_NAME_SIZE];
    std::uint32_t size = sizeof level;
    if (prtkv_enum_subkey(ctx, key, level, &size, &remaining) != PRTKV_DONE) return 0;
  }
  return prtkv_close_key(ctx, key) == PRTKV_DONE ? count : 0;
}

TEST_F(AllocationsOfReads, AListOfSubkeysTakesFewAndTheSameListAgainNone) {
  constexpr int kSubkeys = 1000;
  std::vector<NamedValue> values;
  PutOptions put;
  put.create_parents = true;
  put.security.initial = open_to_all();
  for (int n = 0; n < kSubkeys; ++n) values.push_back({"parent.subkey" + std::to_string(n), {}});
  ASSERT_EQ(client_->put(values, put).text(), "done");
  const Context ctx(client_);
  for (int reads = 0; reads < 2; ++reads) ASSERT_TRUE(ctx.open("parent"));  // the second one makes the key known
  long before = allocations.load();
  EXPECT_EQ(list_once(ctx, "parent"), kSubkeys);
  EXPECT_LT(allocations.load() - before, 20);
  before = allocations.load();
  for (int n = 0; n < 10; ++n) EXPECT_EQ(list_once(ctx, "parent"), kSubkeys);
  EXPECT_EQ(allocations.load() - before, 0);
}

// Passes everything on and notes how many allocations there were when the last write had been committed.
class NotingStore final : public store::Store {
 public:
  explicit NotingStore(std::shared_ptr<store::Store> target) : target_(std::move(target)) {}

  Status read(FunctionRef<Status(store::View&)> function) override { return target_->read(function); }
  Status read_all(FunctionRef<Status(store::View&)> function) override { return target_->read_all(function); }
  Status write(FunctionRef<Status(store::Update&)> function, Revision* revision) override {
    Status status = target_->write(function, revision);
    after_commit_ = allocations.load();
    return status;
  }
  Status read_at(Revision revision, FunctionRef<Status(store::View&)> function) override {
    return target_->read_at(revision, function);
  }
  Status changes(const LogRange& range, FunctionRef<Status(const ChangeRecord&)> visit,
                 LogPosition* position) override {
    return target_->changes(range, visit, position);
  }
  Status wait(Revision after, std::chrono::milliseconds timeout, const std::stop_token& stop,
              Revision* revision) override {
    return target_->wait(after, timeout, stop, revision);
  }
  Status purge(ChooseNodes choose, const ChangeDescription& description, std::uint64_t* removed) override {
    return target_->purge(choose, description, removed);
  }
  Status check(const ChangeDescription* repair, FunctionRef<void(const store::Finding&)> report,
               FunctionRef<void(const store::CheckProgress&)> progress, store::Totals* totals) override {
    return target_->check(repair, report, progress, totals);
  }
  const char* kind() const override { return "noting"; }

  long allocations_since_commit() const { return allocations.load() - after_commit_; }

 private:
  const std::shared_ptr<store::Store> target_;
  long after_commit_ = 0;
};

TEST(Allocations, NoneAfterACommitSoThatNothingCanFailAfterIt) {
  const auto store = std::make_shared<NotingStore>(std::make_shared<store::MemoryStore>(open_to_all()));
  const Context ctx(client_on(store, superuser()));
  const prtkv_key root = ctx.open("");
  const std::string level(200, 'n');
  for (int n = 0; n < 100; ++n) {
    const std::string name = level + std::to_string(n);
    prtkv_key key = 0;
    prtkv_key moved = 0;
    std::int32_t word = 0;
    ASSERT_EQ(prtkv_create_n_set_key(ctx, root, name.c_str(), &key, &word, 3, open_to_all(), "v", 2), PRTKV_DONE);
    EXPECT_EQ(store->allocations_since_commit(), 0) << "create";
    ASSERT_EQ(prtkv_set_value(ctx, key, 3, level.c_str(), 100), PRTKV_DONE);
    EXPECT_EQ(store->allocations_since_commit(), 0) << "set value";
    ASSERT_EQ(prtkv_set_key_security(ctx, key, open_to_all()), PRTKV_DONE);
    EXPECT_EQ(store->allocations_since_commit(), 0) << "set security";
    ASSERT_EQ(prtkv_move_key(ctx, key, root, (name + "m").c_str(), &moved, 0), PRTKV_DONE);
    EXPECT_EQ(store->allocations_since_commit(), 0) << "move";
    if (n % 2 == 0) continue;
    ASSERT_EQ(prtkv_delete_key(ctx, moved, 1), PRTKV_DONE);
    EXPECT_EQ(store->allocations_since_commit(), 0) << "delete";
  }
}

TEST(Allocations, DoNotGrowWithTheNumberOfDeletedKeys) {
  constexpr int kDeleted = 5000;
  store::Retention no_history;
  no_history.off = true;
  const Context ctx(client_on(std::make_shared<store::MemoryStore>(open_to_all(), no_history), superuser()));
  const prtkv_key root = ctx.open("");
  const std::string level(100, 'n');
  const auto kept = [] { return allocations.load() - deallocations.load(); };
  const long before = kept();
  for (int n = 0; n < kDeleted; ++n) {
    prtkv_key key = 0;
    std::int32_t word = 0;
    ASSERT_EQ(
        prtkv_create_n_set_key(ctx, root, (level + std::to_string(n)).c_str(), &key, &word, 3, open_to_all(), "v", 2),
        PRTKV_DONE);
    ASSERT_EQ(prtkv_delete_key(ctx, key, 1), PRTKV_DONE);
  }
  EXPECT_LT(kept() - before, kDeleted);
}

}  // namespace
}  // namespace tkv::registry
