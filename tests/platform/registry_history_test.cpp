// History, batches and undo on the store in memory and on the embedded one.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "lmdb_files.h"
#include "registry_history_contract.h"
#include "store/lmdb/lmdb_store.h"
#include "temporary_directory.h"

namespace tkv::registry {
namespace {

class InMemory final : public Home {
 public:
  std::shared_ptr<store::Store> open() override { return store_; }

 private:
  std::shared_ptr<store::Store> store_ = std::make_shared<store::MemoryStore>(open_to_all());
};

class InDirectory final : public Home {
 public:
  explicit InDirectory(std::uint64_t first_map_size = 0) : first_map_size_(first_map_size) {}

  std::shared_ptr<store::Store> open() override {
    store::LmdbOptions options;
    std::shared_ptr<store::Store> store;
    options.directory = directory_ / "registry";
    options.root_security = open_to_all();
    options.first_map_size = first_map_size_;
    EXPECT_EQ(store::open_lmdb_store(options, &store), Status());
    return store;
  }

 private:
  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  const std::uint64_t first_map_size_;
};

INSTANTIATE_TEST_SUITE_P(Memory, History, ::testing::Values(&make_home<InMemory>));
INSTANTIATE_TEST_SUITE_P(Lmdb, History, ::testing::Values(&make_home<InDirectory>));
INSTANTIATE_TEST_SUITE_P(Memory, PurgeableHistory, ::testing::Values(&make_home<InMemory>));
INSTANTIATE_TEST_SUITE_P(Lmdb, PurgeableHistory, ::testing::Values(&make_home<InDirectory>));

TEST(HistoryOfProcesses, NoIncrementOfEightProcessesIsLost) {
  InDirectory directory;
  KeyId id = kAnyKey;
  ASSERT_EQ(client_on(directory.open(), superuser())->create("", "a", open_to_all(), 3, bytes_of("0"), &id), Status());
  constexpr int kRounds = 25;
  std::vector<pid_t> processes;
  for (int i = 0; i < 8; ++i) {
    processes.push_back(fork());
    if (processes.back() != 0) continue;
    const std::shared_ptr<Client> client = client_on(directory.open(), superuser());
    bool sound = true;
    for (int round = 0; round < kRounds; ++round) sound = sound && increment(*client, "a").ok();
    _exit(sound ? 0 : 1);
  }
  for (const pid_t process : processes) {
    int status = 0;
    ASSERT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
  }
  TypedValue value;
  ASSERT_EQ(client_on(directory.open(), superuser())->read_value("a", &value), Status());
  EXPECT_EQ(value.bytes, std::to_string(8 * kRounds));
}

// What a change may show is found out when it is visited, in states that are read then.
TEST(HistoryOfProcesses, TheLogIsFilteredWhileAnotherProcessMakesTheRegistryGrow) {
  constexpr std::size_t kMap = std::size_t{1} << 20;
  InDirectory directory(kMap);
  KeyId id = kAnyKey;
  const std::shared_ptr<Client> root = client_on(directory.open(), superuser());
  for (const char* name : {"a", "b", "c"}) ASSERT_EQ(root->create("", name, open_to_all(), 0, {}, &id), Status());
  const auto grow = [&] {
    const std::shared_ptr<Client> client = client_on(directory.open(), superuser());
    bool done = true;
    for (const char* name : {"a", "b", "c"})
      done = done && client->write_value(name, PRTKV_TYPE_TEXT, bytes_of(std::string(kMap, 'v'))).ok();
    return done ? 0 : 1;
  };
  LogPosition position;
  std::vector<std::string> visited;
  const auto grow_then_visit = [&](const ChangeRecord& record) {
    if (visited.empty()) {
      EXPECT_EQ(store::in_child(grow), 0);
    }
    for (const Change& change : record.changes) visited.push_back(change.name);
    return Status();
  };
  EXPECT_EQ(client_on(directory.open(), person("bob"))->changes_since({}, grow_then_visit, &position), Status());
  EXPECT_EQ(visited, (std::vector<std::string>{"a", "b", "c"}));
}

}  // namespace
}  // namespace tkv::registry
