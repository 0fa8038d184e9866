#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "etcd_cluster.h"
#include "linearizability.h"
#include "store/etcd/etcd_store.h"
#include "tree.h"

namespace tkv::store::etcd {
namespace {

using Kind = Operation::Kind;
using Result = Operation::Result;

// ---- the checker itself

TEST(Linearizability, AcceptsWhatCanHaveHappened) {
  EXPECT_TRUE(is_linearizable({}));
  EXPECT_TRUE(is_linearizable({{Kind::kCreate, Result::kDone, 1, 0, 1}, {Kind::kRead, Result::kDone, 1, 2, 3}}));
  // Two at a time: either order will do.
  EXPECT_TRUE(is_linearizable({{Kind::kCreate, Result::kDone, 1, 0, 5},
                               {Kind::kRead, Result::kRefused, 0, 1, 2},
                               {Kind::kRead, Result::kDone, 1, 3, 4}}));
  // What nobody answered may have happened, late, or never.
  EXPECT_TRUE(is_linearizable({{Kind::kCreate, Result::kDone, 1, 0, 1},
                               {Kind::kWrite, Result::kUnknown, 2, 2, 0},
                               {Kind::kRead, Result::kDone, 1, 3, 4},
                               {Kind::kRead, Result::kDone, 2, 5, 6}}));
  EXPECT_TRUE(is_linearizable({{Kind::kCreate, Result::kUnknown, 1, 0, 0}, {Kind::kRead, Result::kRefused, 0, 1, 2}}));
}

TEST(Linearizability, RefusesWhatCannotHaveHappened) {
  // A lost write.
  EXPECT_FALSE(is_linearizable({{Kind::kCreate, Result::kDone, 1, 0, 1},
                                {Kind::kWrite, Result::kDone, 2, 2, 3},
                                {Kind::kRead, Result::kDone, 1, 4, 5}}));
  // A stale read.
  EXPECT_FALSE(is_linearizable({{Kind::kCreate, Result::kDone, 1, 0, 1},
                                {Kind::kWrite, Result::kDone, 2, 2, 9},
                                {Kind::kRead, Result::kDone, 2, 3, 4},
                                {Kind::kRead, Result::kDone, 1, 5, 6}}));
  // Two creators of one key.
  EXPECT_FALSE(is_linearizable({{Kind::kCreate, Result::kDone, 1, 0, 5}, {Kind::kCreate, Result::kDone, 2, 1, 4}}));
  // An unknown write that happens twice.
  EXPECT_FALSE(is_linearizable({{Kind::kCreate, Result::kDone, 1, 0, 1},
                                {Kind::kWrite, Result::kUnknown, 2, 2, 0},
                                {Kind::kRead, Result::kDone, 2, 3, 4},
                                {Kind::kWrite, Result::kDone, 3, 5, 6},
                                {Kind::kRead, Result::kDone, 2, 7, 8}}));
  // A value from nowhere.
  EXPECT_FALSE(is_linearizable({{Kind::kRead, Result::kDone, 7, 0, 1}}));
}

// ---- random clients

// What all clients saw, by key. All times are of one clock.
class History {
 public:
  void add(const std::string& key, const Operation& operation) {
    const std::lock_guard lock(mutex_);
    operations_[key].push_back(operation);
  }

  static std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }

  const std::map<std::string, std::vector<Operation>>& operations() const { return operations_; }

 private:
  std::mutex mutex_;
  std::map<std::string, std::vector<Operation>> operations_;
};

// Runs one operation and records its result.
void operate(Store& store, History& history, const std::string& key, Kind kind, int value) {
  Operation operation{kind, Result::kDone, value, History::now(), 0};
  std::string text;
  Status status;
  switch (kind) {
    case Kind::kCreate:
      status = create_key(store, key, std::to_string(value));
      break;
    case Kind::kWrite:
      status = write_key(store, key, std::to_string(value));
      break;
    case Kind::kRead:
      status = read_key(store, key, &text);
      break;
    case Kind::kDelete:
      status = delete_key(store, key);
      break;
  }
  operation.end = History::now();
  if (status.is(PRTKV_KEY_EXISTS) || status.is(PRTKV_NO_SUCH_KEY)) {
    operation.result = Result::kRefused;
  } else if (status.is(PRTKV_UNREACHABLE) || status.is(PRTKV_UNDECIDED) || status.is(PRTKV_BUSY)) {
    operation.result = Result::kUnknown;
  } else {
    EXPECT_TRUE(done(status));
  }
  if (kind == Kind::kRead && status.ok()) operation.value = std::stoi(text);
  history.add(key, operation);
}

constexpr int kBallast = 150;

// Writes those of the keys that exist, along with more keys than fit into one transaction of etcd.
void rewrite(Store& store, History& history, const std::vector<std::string>& levels, int value) {
  const std::string text = std::to_string(value);
  std::vector<Operation> seen;
  const std::int64_t begin = History::now();
  const Status status = store.write([&](Update& update) -> Status {
    Node top;
    Node node;
    seen.assign(levels.size(), Operation{Kind::kWrite, Result::kRefused, value, begin, 0});
    if (Status found = follow(update, "h", &top); !found.ok()) return found;
    for (std::size_t i = 0; i < levels.size(); ++i) {
      const Status found = update.find(top.id, levels[i], &node);
      if (found.is(PRTKV_NO_SUCH_KEY)) continue;
      if (!found.ok()) return found;
      seen[i].result = Result::kDone;
      if (Status set = update.set_value(node.id, 3, bytes_of(text)); !set.ok()) return set;
    }
    if (Status found = update.find(top.id, "ballast", &top); !found.ok()) return found;
    for (int i = 0; i < kBallast; ++i) {
      if (Status found = update.find(top.id, "k" + std::to_string(i), &node); !found.ok()) return found;
      if (Status set = update.set_value(node.id, 3, bytes_of(text)); !set.ok()) return set;
    }
    return {};
  });
  const std::int64_t end = History::now();
  EXPECT_TRUE(status.ok() || status.is(PRTKV_UNREACHABLE) || status.is(PRTKV_UNDECIDED) || status.is(PRTKV_BUSY))
      << status.text();
  for (std::size_t i = 0; i < seen.size(); ++i) {
    seen[i].end = end;
    if (!status.ok()) seen[i].result = Result::kUnknown;
    history.add("h." + levels[i], seen[i]);
  }
}

// The one value of all the ballast.
std::string ballast_of(Store& store) {
  std::set<std::string> values;
  EXPECT_TRUE(done(store.read_all([&](View& view) -> Status {
    Node top;
    values.clear();
    if (Status status = follow(view, "h.ballast", &top); !status.ok()) return status;
    return view.children(top.id, [&](std::string_view, const Node& node) -> Status {
      Value value;
      if (Status status = view.value(node.id, &value); !status.ok()) return status;
      values.insert(text_of(value));
      return {};
    });
  })));
  EXPECT_EQ(values.size(), 1u);
  return *values.begin();
}

class Clients {
 public:
  Clients(const EtcdCluster& cluster, const EtcdOptions& options) {
    for (int i = 0; i < kClients; ++i) {
      EtcdOptions own = options;
      std::rotate(own.endpoints.begin(), own.endpoints.begin() + i % cluster.size(), own.endpoints.end());
      threads_.emplace_back([this, own, i] { work(own, i); });
    }
    threads_.emplace_back([this, options] { rewrite_now_and_then(options); });
  }
  ~Clients() { finish(); }

  void finish() {
    stop_ = true;
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
  }

  // Waits until every client has completed this many more operations.
  bool progress(int operations) {
    std::vector<int> goals;
    for (const auto& count : counts_) goals.push_back(count + operations);
    return eventually([&] {
      for (int i = 0; i < kClients; ++i) {
        if (counts_[i] < goals[static_cast<std::size_t>(i)]) return false;
      }
      return true;
    });
  }

  History& history() { return history_; }
  int rewritten() const { return rewritten_; }

 private:
  static constexpr int kClients = 4;
  static constexpr int kOperationsPerKey = 40;
  static constexpr int kLanes = 3;

  static constexpr int kOperationsPerRewrite = 30;

  // The key of an operation. All clients use a few keys for a while and then move on, so that histories stay short
  // enough to be checked.
  static std::string level_of(int number, int lane) {
    return "k" + std::to_string(number / (kOperationsPerKey * kLanes)) + "-" + std::to_string(lane);
  }

  void rewrite_now_and_then(const EtcdOptions& options) {
    const auto store = open_when_ready(options);
    ASSERT_TRUE(store);
    while (!stop_) {
      const int number = ++operations_;
      std::vector<std::string> levels;
      for (int lane = 0; lane < kLanes; ++lane) levels.push_back(level_of(number, lane));
      rewrite(*store, history_, levels, number);
      ++rewritten_;
      eventually([&] { return stop_ || operations_ > number + kOperationsPerRewrite; });
    }
  }

  void work(const EtcdOptions& options, int client) {
    const auto store = open_when_ready(options);
    ASSERT_TRUE(store);
    std::mt19937 random(static_cast<unsigned>(1000 + client));
    while (!stop_) {
      const int number = ++operations_;
      const std::string key = "h." + level_of(number, number % kLanes);
      constexpr Kind kKinds[] = {Kind::kCreate, Kind::kCreate, Kind::kWrite, Kind::kWrite,
                                 Kind::kRead,   Kind::kRead,   Kind::kDelete};
      operate(*store, history_, key, kKinds[random() % std::size(kKinds)], number);
      ++counts_[client];
    }
  }

  History history_;
  std::atomic<bool> stop_{false};
  std::atomic<int> operations_{0};
  std::atomic<int> rewritten_{0};
  std::atomic<int> counts_[kClients]{};
  std::vector<std::thread> threads_;
};

int leader_of(EtcdCluster& cluster) {
  int leader = -1;
  eventually([&] { return (leader = cluster.leader()) >= 0; });
  return leader;
}

TEST(EtcdCluster, HistoriesStayLinearizableWhileTheLeaderIsKilledStoppedAndCutOff) {
  EtcdCluster::Options cluster_options;
  cluster_options.members = 3;
  cluster_options.between_proxies = true;
  EtcdCluster cluster(cluster_options);
  const EtcdOptions options = cluster.registry();
  auto store = open_when_ready(options);
  ASSERT_TRUE(store);
  ASSERT_TRUE(done(create_key(*store, "h")));
  for (int i = -1; i < kBallast; ++i) {
    ASSERT_TRUE(done(create_key(*store, i < 0 ? "h.ballast" : "h.ballast.k" + std::to_string(i), "0")));
  }
  constexpr int kSteps = 25;
  Clients clients(cluster, options);
  ASSERT_TRUE(clients.progress(kSteps));

  int leader = leader_of(cluster);
  ASSERT_GE(leader, 0);
  cluster.kill(leader);
  ASSERT_TRUE(clients.progress(kSteps)) << "after the leader was killed";
  EXPECT_NE(leader_of(cluster), leader);
  cluster.start(leader);
  ASSERT_TRUE(clients.progress(kSteps));

  leader = leader_of(cluster);
  ASSERT_GE(leader, 0);
  cluster.stop(leader);
  ASSERT_TRUE(clients.progress(kSteps)) << "while the leader was stopped";
  cluster.go_on(leader);
  ASSERT_TRUE(clients.progress(kSteps));

  leader = leader_of(cluster);
  ASSERT_GE(leader, 0);
  cluster.cut(leader);
  ASSERT_TRUE(clients.progress(kSteps)) << "while the leader was cut off";
  EXPECT_TRUE(eventually([&] { return cluster.leader() >= 0 && cluster.leader() != leader; }));
  cluster.heal();
  ASSERT_TRUE(clients.progress(kSteps));
  EXPECT_TRUE(eventually([&] { return clients.rewritten() >= 3; }));
  clients.finish();

  // What was acknowledged is there: a last read of every key is added to its history.
  std::vector<std::string> keys;
  for (const auto& [key, operations] : clients.history().operations()) keys.push_back(key);
  for (const std::string& key : keys) operate(*store, clients.history(), key, Kind::kRead, 0);
  int operations = 0;
  int unknown = 0;
  for (const auto& [key, history] : clients.history().operations()) {
    EXPECT_TRUE(is_linearizable(history)) << key << "\n" << to_string(history);
    operations += static_cast<int>(history.size());
    for (const Operation& operation : history) unknown += operation.result == Result::kUnknown ? 1 : 0;
  }
  EXPECT_GT(operations, 7 * kSteps * 4 - 1);
  RecordProperty("operations", operations);
  RecordProperty("unknown", unknown);
  std::printf("%d operations on %zu keys, %d without an answer\n", operations, keys.size(), unknown);
  std::printf("%d times many keys at once\n", clients.rewritten());
  EXPECT_NE(ballast_of(*store), "0");
  totals_of(*store);
}

}  // namespace
}  // namespace tkv::store::etcd
