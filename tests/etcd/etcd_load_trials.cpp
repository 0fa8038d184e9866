// A recursive change of security beside writers that never stop: how long the change takes, how long the writers wait,
// and whether anything that was acknowledged gets lost.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "etcd_cluster.h"
#include "registry/local_client.h"
#include "store/etcd/etcd_store.h"
#include "tree.h"

namespace tkv::store::etcd {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr int kKeysPerGroup = 1000;
constexpr Seconds kPeriod{0.02};  // 50 writes per second and writer
constexpr double kMostTimesAlone = 3;
constexpr Seconds kMostExtraWait{2};

void demand(const Status& status, const std::string& what) {
  if (!status.ok()) throw std::runtime_error(what + ": " + status.text());
}

std::string level_of(int number) { return "k" + std::to_string(number); }

// The registry "load" with groups of keys below it.
class Registry {
 public:
  Registry(const EtcdCluster& cluster, int keys) : options_(cluster.registry()), keys_(keys) {
    demand(open_etcd_store(options_, &store_), "opening the registry");
    demand(create_key(*store_, "load"), "creating the top");
    for (int group = 0; group * kKeysPerGroup < keys_; ++group) demand(build_group(group), "building");
  }

  std::shared_ptr<registry::Client> client() const {
    std::shared_ptr<Store> store;
    demand(open_etcd_store(options_, &store), "opening the registry");
    return std::make_shared<registry::LocalClient>(registry::Configuration(), Identity{"root", {"root"}, true}, store);
  }

  int keys() const { return keys_; }
  static std::string name(int key) {
    return "load." + level_of(key / kKeysPerGroup) + "." + level_of(key % kKeysPerGroup);
  }
  Totals totals() const { return totals_of(*store_); }

 private:
  Status build_group(int group) {
    const int count = std::min(kKeysPerGroup, keys_ - group * kKeysPerGroup);
    if (Status status = build_keys(*store_, level_of(group), count); !status.ok()) return status;
    return move_key(*store_, level_of(group), "load." + level_of(group));
  }

  EtcdOptions options_;
  const int keys_;
  std::shared_ptr<Store> store_;
};

// Seconds that `work` takes.
template <typename Work>
Seconds time_of(Work work) {
  const auto begin = Clock::now();
  work();
  return Clock::now() - begin;
}

// Adds or removes one right of all others on everything.
void change_everything(registry::Client& client, bool add) {
  registry::SecurityChange change;
  (add ? change.other_mask.set : change.other_mask.clear) = TKV_RIGHT_READ;
  demand(client.change_security("load", change, true, [](std::uint64_t) {}), "the recursive change");
}

// Writes one key after another, in turn with the other writers, so that it knows the last value of each.
class LoadWriter {
 public:
  LoadWriter(const Registry& registry, int number, int writers)
      : registry_(registry), client_(registry.client()), number_(number), writers_(writers) {
    thread_ = std::thread([this] { work(); });
  }

  void finish() {
    stop_ = true;
    thread_.join();
  }

  std::uint64_t writes() const { return writes_; }
  std::uint64_t failures() const { return failures_; }
  Seconds longest() const { return longest_; }

  // The number of keys that do not have the value last written.
  std::uint64_t lost() const {
    std::uint64_t lost = 0;
    for (std::size_t key = 0; key < written_.size(); ++key) {
      registry::TypedValue value;
      if (written_[key].empty()) continue;
      demand(client_->read_value(Registry::name(static_cast<int>(key)), &value), "reading");
      lost += value.bytes == written_[key] ? 0 : 1;
    }
    return lost;
  }

 private:
  void work() {
    written_.resize(static_cast<std::size_t>(registry_.keys()));
    auto next = Clock::now();
    for (int turn = 0; !stop_; ++turn) {
      const int key = (turn * 7919 % (registry_.keys() / writers_)) * writers_ + number_;
      write(key, std::to_string(number_) + ":" + std::to_string(turn));
      next = std::max(next + std::chrono::duration_cast<Clock::duration>(kPeriod), Clock::now());
      std::this_thread::sleep_until(next);
    }
  }

  void write(int key, const std::string& text) {
    Status status;
    const Seconds taken =
        time_of([&] { status = client_->write_value(Registry::name(key), 3, std::as_bytes(std::span(text))); });
    longest_ = std::max(longest_, taken);
    ++writes_;
    if (status.ok()) {
      written_[static_cast<std::size_t>(key)] = text;
    } else {
      ++failures_;
      std::printf("a write failed: %s\n", status.text().c_str());
    }
  }

  const Registry& registry_;
  std::shared_ptr<registry::Client> client_;
  const int number_;
  const int writers_;
  std::vector<std::string> written_;  // by key
  std::atomic<bool> stop_{false};
  std::atomic<std::uint64_t> writes_{0};
  std::uint64_t failures_ = 0;
  Seconds longest_{0};
  std::thread thread_;
};

// How the change went beside some writers.
struct Row {
  int writers = 0;
  Seconds change{0};
  std::uint64_t writes = 0;
  std::uint64_t failures = 0;
  std::uint64_t lost = 0;
  Seconds longest{0};
};

Row measure(const Registry& registry, registry::Client& client, int writers, bool add) {
  Row row{writers};
  std::vector<std::unique_ptr<LoadWriter>> all;
  for (int i = 0; i < writers; ++i) all.push_back(std::make_unique<LoadWriter>(registry, i, writers));
  constexpr std::uint64_t kWarm = 10;  // writes
  for (const auto& writer : all) eventually([&] { return writer->writes() >= kWarm; });
  row.change = time_of([&] { change_everything(client, add); });
  for (const auto& writer : all) writer->finish();
  for (const auto& writer : all) {
    row.writes += writer->writes();
    row.failures += writer->failures();
    row.lost += writer->lost();
    row.longest = std::max(row.longest, writer->longest());
  }
  return row;
}

bool report(const Row& row, Seconds alone, bool bounded) {
  std::printf("%7d  %6.2f s  %6.2f s  %4.1f  %7.2f s  %6llu  %6llu  %4llu\n", row.writers, alone.count(),
              row.change.count(), row.change / alone, row.longest.count(), static_cast<unsigned long long>(row.writes),
              static_cast<unsigned long long>(row.failures), static_cast<unsigned long long>(row.lost));
  bool kept = row.failures == 0 && row.lost == 0;
  if (bounded) kept = kept && row.change <= kMostTimesAlone * alone && row.longest <= row.change + kMostExtraWait;
  return kept;
}

int run_trials(int argc, char** argv) {
  const bool is_long = argc == 2 && std::string_view(argv[1]) == "--long";
  if (argc > 1 && !is_long) {
    std::fprintf(stderr, "usage: %s [--long]\n", argv[0]);
    return 2;
  }
  constexpr int kFewKeys = 2000;
  constexpr int kManyKeys = 20000;
  EtcdCluster cluster;
  const Registry registry(cluster, is_long ? kManyKeys : kFewKeys);
  const auto client = registry.client();
  std::vector<Seconds> alone;
  for (int i = 0; i < 3; ++i) alone.push_back(time_of([&] { change_everything(*client, i % 2 == 0); }));
  std::sort(alone.begin(), alone.end());
  std::printf("%d keys, 50 writes per second and writer\n", registry.keys());
  std::printf("writers     alone    beside  times  longest   writes  failed  lost\n");
  bool kept = true;
  for (const int writers : {1, 4}) {
    for (const bool add : {false, true}) {
      // The bounds are those of a quiet machine, so that only the long run, which has it for itself, is held to them.
      kept = report(measure(registry, *client, writers, add), alone[1], is_long) && kept;
    }
  }
  (void)registry.totals();
  if (!kept) std::printf("a promise was broken\n");
  return kept ? 0 : 1;
}

}  // namespace
}  // namespace tkv::store::etcd

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    return tkv::store::etcd::run_trials(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
