// Clients that work on a few keys at once, one by one and in whole subtrees, while members are killed, stopped and cut
// off and the history of etcd is compacted. What they saw is judged by a model of the tree.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "etcd_cluster.h"
#include "registry/local_client.h"
#include "store/etcd/etcd_store.h"
#include "tree.h"
#include "tree_history.h"

namespace tkv::store::etcd {
namespace {

constexpr int kClients = 5;
constexpr int kHidden = 130;  // subkeys that the model does not know: no transaction of etcd holds a change of them

// The histories, one for each room: a subtree that all clients work on for a while, and then no more.
class Histories {
 public:
  void add(int room, TreeOperation operation) {
    const std::lock_guard lock(mutex_);
    rooms_[room].push_back(std::move(operation));
  }
  std::map<int, std::vector<TreeOperation>> rooms() const {
    const std::lock_guard lock(mutex_);
    return rooms_;
  }

 private:
  mutable std::mutex mutex_;
  std::map<int, std::vector<TreeOperation>> rooms_;
};

std::int64_t now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Carries out operations of the model's language on a registry. A key that ends with ".many" has kHidden subkeys, which
// are the same as it is.
class Actor {
 public:
  explicit Actor(std::shared_ptr<registry::Client> client) : client_(std::move(client)) {}

  // The answer; empty if nobody can tell.
  Words make(const Words& asked) {
    Words answer{"done"};
    const Status status = dispatch(asked, &answer);
    if (status.ok()) return answer;
    if (status.is(PRTKV_KEY_EXISTS)) return {"exists"};
    if (status.is(PRTKV_NO_SUCH_KEY)) return {"no-such-key"};
    EXPECT_TRUE(status.is(PRTKV_UNREACHABLE) || status.is(PRTKV_UNDECIDED) || status.is(PRTKV_BUSY))
        << asked.front() << ": " << status.text();
    return {};
  }

 private:
  static std::span<const std::byte> bytes_of_text(const std::string& text) { return std::as_bytes(std::span(text)); }
  static constexpr auto ignore = [](std::uint64_t) {};

  Status dispatch(const Words& asked, Words* answer) {
    const std::string& name = asked[0];
    const std::string& key = asked[1];
    registry::KeyId id = registry::kAnyKey;
    if (name == "create") return client_->create("", key, sec_attr{}, 3, bytes_of_text(asked[2]), &id);
    if (name == "write") return client_->write_value(key, 3, bytes_of_text(asked[2]));
    if (name == "read") return read(key, answer);
    if (name == "read-tree") return read_tree(key, answer);
    if (name == "remove") return client_->remove(key, true, ignore);
    if (name == "move") return client_->move(key, "", asked[2], false, &id);
    if (name == "replace") return client_->move(key, "", asked[2], true, &id);
    if (name == "change") return change(key, std::stoi(asked[2]));
    return import(asked);
  }

  Status read(const std::string& key, Words* answer) {
    registry::TypedValue value;
    Status status = client_->read_value(key, &value);
    *answer = {"value", value.bytes};
    return status;
  }

  // Hidden subkeys are left out if they are as they should be. Those that are not make an answer that the model never
  // gives.
  Status read_tree(const std::string& top, Words* answer) {
    *answer = {"tree"};
    std::string shown;
    int hidden = 0;
    registry::WalkOptions options;
    options.values = true;
    const auto visit = [&](const registry::WalkEntry& entry) {
      const std::string text = std::string(reinterpret_cast<const char*>(entry.value.data()), entry.value.size()) +
                               "/" + std::to_string(entry.security.other_perm);
      const std::string name(entry.name);
      const auto many = name.find(".many.");
      if (many == std::string::npos) {
        answer->push_back(name + "=" + text);
        hidden += name.ends_with(".many") ? kHidden : 0;
        shown = text;
      } else {
        --hidden;
        if (text != shown) answer->push_back(name + "=" + text);
      }
      return Status();
    };
    Status status = client_->walk(top, options, visit);
    if (hidden != 0) answer->push_back("hidden=" + std::to_string(hidden));
    return status;
  }

  Status change(const std::string& key, std::int32_t mask) {
    registry::SecurityChange change;
    change.other_mask = {TKV_RIGHT_ALL, mask};
    return client_->change_security(key, change, true, ignore);
  }

  Status import(const Words& asked) {
    registry::Subtree wanted;
    for (std::size_t i = 1; i < asked.size(); ++i) {
      const auto at = asked[i].find('=');
      const std::string name = asked[i].substr(0, at);
      add_key(name, asked[i].substr(at + 1), &wanted);
      if (!name.ends_with(".many")) continue;
      for (int key = 100; key < 100 + kHidden; ++key) {
        add_key(name + "." + std::to_string(key), asked[i].substr(at + 1), &wanted);
      }
    }
    wanted.top = wanted.keys.front().name;
    registry::ApplyOptions options;
    options.mode = registry::MergeMode::kMerge;
    registry::Difference difference;
    return client_->apply(wanted, options, ignore, &difference);
  }

  static void add_key(const std::string& name, const std::string& value, registry::Subtree* wanted) {
    registry::KeyRecord record;
    record.name = name;
    record.value = {3, value};
    record.has_owner = record.has_group = record.has_mode = false;
    wanted->keys.push_back(std::move(record));
  }

  std::shared_ptr<registry::Client> client_;
};

// Makes up operations in a room, of which about half concern many keys.
class Imagination {
 public:
  explicit Imagination(unsigned seed) : random_(seed) {}

  // The room begins with its top and one full place, made by whoever comes first.
  Words next(const std::string& room, int number, int number_in_room) {
    const std::string value = std::to_string(number);
    if (number_in_room == 0) return {"create", room, value};
    if (number_in_room == 1) return {"import", room + ".p=" + value, room + ".p.many=" + value, room + ".p.x=" + value};
    const std::string place = room + (pick(2) == 0 ? ".p" : ".q");
    const std::string other = room + (place.back() == 'p' ? ".q" : ".p");
    const std::string key = place + (pick(3) == 0 ? ".y" : ".x");
    switch (pick(20)) {
      case 0:
      case 1:
        return {"import", place + "=" + value, place + ".many=" + value, place + ".x=" + value};
      case 2:
      case 3:
        return {"move", place, other};
      case 4:
        return {"replace", place, other};
      case 5:
        return {"remove", pick(2) == 0 ? place : key};
      case 6:
        return {"change", room, std::to_string(pick(64))};
      case 7:
      case 8:
        return {"change", place, std::to_string(pick(64))};
      case 9:
      case 10:
        return {"read-tree", room};
      case 11:
      case 12:
        return {"create", key, value};
      case 13:
      case 14:
      case 15:
        return {"read", key};
      default:
        return {"write", key, value};
    }
  }

 private:
  unsigned pick(unsigned of) { return static_cast<unsigned>(random_() % of); }
  std::mt19937 random_;
};

// How far a client has come: how many operations it has completed, and what it is doing now. Thread-safe.
class Course {
 public:
  void begin(const Words& asked) {
    std::string text;
    for (const std::string& word : asked) text += (text.empty() ? "" : " ") + word;
    const std::lock_guard lock(mutex_);
    doing_ = std::move(text);
  }
  void complete() {
    const std::lock_guard lock(mutex_);
    ++completed_;
    last_completed_ = std::chrono::steady_clock::now();
  }

  int completed() const {
    const std::lock_guard lock(mutex_);
    return completed_;
  }
  std::string doing() const {
    const std::lock_guard lock(mutex_);
    return doing_;
  }
  // How long ago it completed its last operation, or began if it has completed none.
  std::chrono::steady_clock::duration silence() const {
    const std::lock_guard lock(mutex_);
    return std::chrono::steady_clock::now() - last_completed_;
  }

 private:
  mutable std::mutex mutex_;
  int completed_ = 0;
  std::string doing_ = "opening the registry";
  std::chrono::steady_clock::time_point last_completed_ = std::chrono::steady_clock::now();
};

class Clients {
 public:
  // `patience`: how long a client may take for one operation before the trials are given up.
  Clients(const EtcdCluster& cluster, const EtcdOptions& options, std::chrono::seconds patience) : patience_(patience) {
    for (int i = 0; i < kClients; ++i) {
      EtcdOptions own = options;
      std::rotate(own.endpoints.begin(), own.endpoints.begin() + i % cluster.size(), own.endpoints.end());
      threads_.emplace_back([this, own, i] { work(own, i); });
    }
  }

  ~Clients() { finish(); }
  Clients(const Clients&) = delete;
  Clients& operator=(const Clients&) = delete;

  void finish() {
    stop_ = true;
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
  }

  // Waits until every client has completed so many more operations. Throws std::runtime_error, which names the client
  // and what it is doing, if one of them completes none for too long. How long all of them take together does not
  // matter.
  void progress(int operations, const std::string& when) const {
    std::vector<int> goals;
    for (const Course& course : courses_) goals.push_back(course.completed() + operations);
    for (std::size_t i = 0; i < goals.size(); ++i) wait_for_client(i, goals[i], when);
  }

  Histories& histories() { return histories_; }

  static std::string name_of(int room) { return "r" + std::to_string(room); }
  static std::shared_ptr<registry::Client> open(const EtcdOptions& options) {
    const auto store = open_when_ready(options);
    if (!store) throw std::runtime_error("the registry cannot be opened");
    return std::make_shared<registry::LocalClient>(registry::Configuration(), Identity{"root", {"root"}, true}, store);
  }

 private:
  static constexpr int kOperationsPerRoom = 50;

  void wait_for_client(std::size_t client, int goal, const std::string& when) const {
    const Course& course = courses_[client];
    while (course.completed() < goal) {
      if (course.silence() > patience_) {
        throw std::runtime_error("no progress " + when + ": client " + std::to_string(client) +
                                 " has completed no operation for " + std::to_string(patience_.count()) +
                                 " s and is at '" + course.doing() + "', after " + std::to_string(course.completed()) +
                                 " operations");
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  void work(const EtcdOptions& options, int client) {
    Course& course = courses_[static_cast<std::size_t>(client)];
    Actor actor(open(options));
    Imagination imagination(static_cast<unsigned>(1000 + client));
    while (!stop_) {
      const int number = ++operations_;
      const int room = number / kOperationsPerRoom;
      const Words asked = imagination.next(name_of(room), number, number % kOperationsPerRoom);
      course.begin(asked);
      TreeOperation operation{client, now(), {}, asked, {}};
      operation.answered = actor.make(asked);
      if (!operation.answered.empty()) operation.end = now();
      histories_.add(room, std::move(operation));
      course.complete();
    }
  }

  const std::chrono::seconds patience_;
  Histories histories_;
  std::atomic<bool> stop_{false};
  std::atomic<int> operations_{-1};
  std::array<Course, kClients> courses_;
  std::vector<std::thread> threads_;
};

void compact(const EtcdCluster& cluster) {
  const std::string fields = cluster.ctl({"get", "none", "-w", "fields"});
  constexpr std::string_view kField = "\"Revision\" : ";
  const auto at = fields.find(kField);
  if (at == std::string::npos) return;  // no leader at the moment
  cluster.ctl({"compact", std::to_string(std::stoll(fields.substr(at + kField.size())))});
}

// Every fault once.
void inflict_faults(EtcdCluster& cluster, Clients& clients, int steps) {
  const auto leader = [&] {
    cluster.wait_until_ready();
    return cluster.leader();
  };
  int member = leader();
  cluster.kill(member);
  clients.progress(steps, "after the leader was killed");
  cluster.start(member);
  clients.progress(steps, "after a member was started");
  compact(cluster);
  member = leader();
  cluster.stop(member);
  clients.progress(steps, "while the leader was stopped");
  cluster.go_on(member);
  clients.progress(steps, "after a member went on");
  member = leader();
  cluster.cut(member);
  clients.progress(steps, "while the leader was cut off");
  cluster.heal();
  compact(cluster);
  clients.progress(steps, "after the leader was reconnected");
}

struct Tally {
  std::size_t rooms = 0;
  std::size_t operations = 0;
  std::size_t of_many_keys = 0;
  std::size_t unanswered = 0;
  std::size_t illegal = 0;
  std::size_t too_hard = 0;
};

bool concerns_many(const Words& asked) {
  return asked[0] == "import" || asked[0] == "move" || asked[0] == "replace" || asked[0] == "change" ||
         asked[0] == "read-tree" || (asked[0] == "remove" && !asked[1].ends_with(".x") && !asked[1].ends_with(".y"));
}

void judge_room(int room, const std::vector<TreeOperation>& history, const std::string& directory, Tally* tally) {
  const Ruling ruling = judge_history(history);
  ++tally->rooms;
  tally->operations += history.size();
  for (const TreeOperation& each : history) {
    tally->of_many_keys += concerns_many(each.asked);
    tally->unanswered += !each.end;
  }
  tally->illegal += ruling == Ruling::kIllegal;
  tally->too_hard += ruling == Ruling::kTooHard;
  const std::string text = print_history(history);
  if (ruling == Ruling::kIllegal) std::printf("room %d is not linearizable:\n%s", room, text.c_str());
  if (!directory.empty()) std::ofstream(directory + "/room-" + std::to_string(room) + ".txt") << text;
}

struct Extent {
  int rounds = 1;                      // how many times each fault is inflicted
  int steps = 15;                      // operations of each client between two faults
  std::chrono::seconds patience{300};  // five times what one request may take
  std::string directory;               // where the histories are written; "": nowhere
};

bool run_trials(const Extent& extent) {
  EtcdCluster::Options cluster_options;
  cluster_options.members = 3;
  cluster_options.between_proxies = true;
  EtcdCluster cluster(cluster_options);
  const EtcdOptions options = cluster.registry();
  const auto last = Clients::open(options);
  Clients clients(cluster, options, extent.patience);
  clients.progress(extent.steps, "at first");
  for (int round = 0; round < extent.rounds; ++round) inflict_faults(cluster, clients, extent.steps);
  clients.finish();
  cluster.wait_until_healthy();

  // A last look at every room belongs to its history.
  Actor actor(last);
  Tally tally;
  for (auto& [room, history] : clients.histories().rooms()) {
    TreeOperation look{kClients, now(), {}, {"read-tree", Clients::name_of(room)}, {}};
    look.answered = actor.make(look.asked);
    look.end = now();
    history.push_back(std::move(look));
    judge_room(room, history, extent.directory, &tally);
  }
  (void)totals_of(*open_when_ready(options));
  std::printf("%zu histories, %zu operations, %zu of many keys, %zu unanswered: %zu illegal, %zu too hard to judge\n",
              tally.rooms, tally.operations, tally.of_many_keys, tally.unanswered, tally.illegal, tally.too_hard);
  return tally.illegal == 0 && !testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
}

bool parse_number(std::string_view text, int* number) {
  const char* const end = text.data() + text.size();
  return std::from_chars(text.data(), end, *number) == std::from_chars_result{end, std::errc()} && *number >= 0;
}

bool parse_arguments(const std::vector<std::string_view>& arguments, Extent* extent) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] == "--long") {
      extent->rounds = 20;
      extent->steps = 40;
      continue;
    }
    const std::string_view option = arguments[i];
    if (++i == arguments.size()) return false;
    int number = 0;
    if (option == "--record") {
      extent->directory = arguments[i];
    } else if (!parse_number(arguments[i], &number)) {
      return false;
    } else if (option == "--rounds") {
      extent->rounds = number;
    } else if (option == "--patience") {
      extent->patience = std::chrono::seconds(number);
    } else {
      return false;
    }
  }
  return true;
}

int main_of(int argc, char** argv) {
  Extent extent;
  if (!parse_arguments({argv + 1, argv + argc}, &extent)) {
    std::fprintf(stderr, "usage: %s [--long] [--rounds N] [--patience SECONDS] [--record DIRECTORY]\n", argv[0]);
    return 2;
  }
  return run_trials(extent) ? 0 : 1;
}

}  // namespace
}  // namespace tkv::store::etcd

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    return tkv::store::etcd::main_of(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
