// One run of the benchmark of a registry on etcd. Each scenario runs through the registry client and, beside it, as the
// fewest bare requests that could do the same, through the same generated stubs; windows of the two sides alternate.
// Prints one line for each scenario: its name, nanoseconds per operation through the registry and of the bare requests,
// and requests per operation of both. bench/run-etcd starts the members, fills the registry and makes tables of the
// lines.
//
//   --endpoints host:port,...  --prefix text  --groups n  --keys n  --value-bytes n
//   --scenarios name,...  --warm-up-ms n  --window-ms n  --windows n
//
// --scenarios fill: fills a fresh registry. --scenarios size: prints the bytes of the first member's database.
// --scenarios traffic: prints what a listing of one group takes: requests, bytes sent and bytes received, each for the
// first listing of a session, for a later one, and for the bare requests.

#include <google/protobuf/message_lite.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/support/client_interceptor.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "etcd.grpc.pb.h"
#include "options.h"
#include "prtkv.h"
#include "registry/local_client.h"
#include "store/etcd/etcd_store.h"
#include "store/etcd/keys.h"

namespace tkv::bench {
namespace {

using store::etcd::Keys;

volatile uint64_t sink;

void require(const Status& status, const char* what) {
  if (!status.ok()) throw std::runtime_error(std::string(what) + ": " + status.text());
}

void require_equal(uint64_t answer, uint64_t expected, const char* what) {
  if (answer == expected) return;
  throw std::runtime_error(std::string(what) + " gave " + std::to_string(answer) + ", not " + std::to_string(expected));
}

void require(const grpc::Status& status) {
  if (!status.ok()) throw std::runtime_error("a bare request: " + status.error_message());
}

// What both sides have exchanged with the members.
std::atomic<uint64_t> requests{0};
std::atomic<uint64_t> bytes_sent{0};  // as are those received: of messages, and only while they are counted
std::atomic<uint64_t> bytes_received{0};
std::atomic<bool> counts_bytes{false};

class ByteCounter final : public grpc::experimental::Interceptor {
 public:
  void Intercept(grpc::experimental::InterceptorBatchMethods* methods) override {
    using Point = grpc::experimental::InterceptionHookPoints;
    if (methods->QueryInterceptionHookPoint(Point::PRE_SEND_MESSAGE)) {
      bytes_sent += methods->GetSerializedSendMessage()->Length();
    }
    if (methods->QueryInterceptionHookPoint(Point::POST_RECV_MESSAGE) && methods->GetRecvMessage() != nullptr) {
      bytes_received += static_cast<google::protobuf::MessageLite*>(methods->GetRecvMessage())->ByteSizeLong();
    }
    methods->Proceed();
  }
};

class CountingFactory final : public grpc::experimental::ClientInterceptorFactoryInterface {
 public:
  grpc::experimental::Interceptor* CreateClientInterceptor(grpc::experimental::ClientRpcInfo*) override {
    ++requests;
    return counts_bytes ? new ByteCounter : nullptr;  // without one, the request is not listened to any further
  }
};

store::etcd::Interceptors counting() {
  store::etcd::Interceptors factories;
  factories.push_back(std::make_unique<CountingFactory>());
  return factories;
}

std::string padded(int number, std::size_t width) {
  const std::string digits = std::to_string(number);
  return std::string(width - std::min(width, digits.size()), '0') + digits;
}

// The registry's keys, "app.service.group<n>.key<n>", and the sizes that they were created with.
class Dataset {
 public:
  explicit Dataset(const Options& options)
      : groups_(options.number("groups")),
        keys_(options.number("keys")),
        value_(static_cast<std::size_t>(options.number("value-bytes")), 'x') {}

  int groups() const { return groups_; }
  int keys() const { return keys_; }
  const std::string& value() const { return value_; }
  static std::string group_level(int group) { return "group" + padded(group, 4); }
  static std::string key_level(int key) { return "key" + padded(key, 6); }
  static std::string group(int group) { return "app.service." + group_level(group); }
  std::vector<std::string> names_of(int group_number) const {
    std::vector<std::string> names;
    for (int key = 0; key < keys_; ++key) names.push_back(group(group_number) + "." + key_level(key));
    return names;
  }

 private:
  int groups_;
  int keys_;
  std::string value_;
};

// Names in an endless random order, the same in every process.
class Names {
 public:
  explicit Names(std::vector<std::string> names) : names_(std::move(names)) {}
  const std::string& next() { return names_[random_() % names_.size()]; }

 private:
  std::vector<std::string> names_;
  std::minstd_rand random_{42};
};

// The registry client on etcd.
class RegistrySide {
 public:
  explicit RegistrySide(const Options& options) {
    store_options_.endpoints = options.list("endpoints");
    store_options_.prefix = options.text("prefix");
    store_options_.root_security.user_perm = TKV_RIGHT_ALL;
    identity_.superuser = true;
    open();
  }

  void open() {
    std::shared_ptr<store::Store> store;
    client_.reset();
    require(store::etcd::open_etcd_store(store_options_, &store, counting), "opening the registry");
    client_ = std::make_unique<registry::LocalClient>(registry::Configuration(), identity_, std::move(store));
  }

  void fill(const Dataset& dataset) {
    registry::Subtree tree{"app", {}};
    registry::Difference difference;
    const registry::TypedValue value{PRTKV_TYPE_TEXT, dataset.value()};
    const auto add = [&](std::string name, const registry::TypedValue& bytes) {
      tree.keys.push_back({std::move(name), all_rights(), bytes});
    };
    add("app", {});
    add("app.service", {});
    for (int group = 0; group < dataset.groups(); ++group) {
      add(Dataset::group(group), {});
      for (int key = 0; key < dataset.keys(); ++key) add(Dataset::group(group) + "." + Dataset::key_level(key), value);
    }
    require(client_->apply(
                tree, {}, [](uint64_t) {}, &difference),
            "filling");
  }

  registry::KeyId id_of(const std::string& name) {
    registry::KeyId id = registry::kAnyKey;
    require(client_->find(name, &id), "opening a key");
    return id;
  }

  uint64_t read(const std::string& name) {
    registry::TypedValue value;
    require(client_->read_value(name, &value), "reading");
    return value.bytes.size();
  }

  uint64_t write(const std::string& name, const std::string& value) {
    require(client_->write_value(name, PRTKV_TYPE_TEXT, std::as_bytes(std::span(value))), "writing");
    return value.size();
  }

  uint64_t list(const std::string& name) {
    uint64_t count = 0;
    const auto visit = [&](const registry::Subkey&) {
      ++count;
      return Status();
    };
    require(client_->list(name, false, visit), "listing");
    return count;
  }

  uint64_t walk(const std::string& name) {
    uint64_t count = 0;
    registry::WalkOptions options;
    options.values = true;
    const auto visit = [&](const registry::WalkEntry&) {
      ++count;
      return Status();
    };
    require(client_->walk(name, options, visit), "walking");
    return count;
  }

 private:
  static sec_attr all_rights() {
    sec_attr security{};
    security.user_perm = security.group_perm = security.other_perm = TKV_RIGHT_ALL;
    return security;
  }

  store::EtcdOptions store_options_;
  Identity identity_;
  std::unique_ptr<registry::Client> client_;
};

// Plain etcd requests, one after the other, to the first endpoint.
class BareSide {
 public:
  explicit BareSide(const Options& options) : endpoint_(options.list("endpoints").front()) { open(); }

  void open() {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    const auto channel = grpc::experimental::CreateCustomChannelWithInterceptors(
        endpoint_, grpc::InsecureChannelCredentials(), arguments, counting());
    kv_ = std::make_unique<etcdserverpb::KV::Stub>(channel);
    maintenance_ = std::make_unique<etcdserverpb::Maintenance::Stub>(channel);
  }

  etcdserverpb::StatusResponse status() {
    grpc::ClientContext context;
    etcdserverpb::StatusResponse response;
    require(maintenance_->Status(&context, {}, &response));
    return response;
  }

  uint64_t get(const std::string& key) { return range(key, "", 0).ByteSizeLong(); }

  etcdserverpb::RangeResponse range(const std::string& begin, const std::string& end, int64_t limit) {
    grpc::ClientContext context;
    etcdserverpb::RangeRequest request;
    etcdserverpb::RangeResponse response;
    request.set_key(begin);
    request.set_range_end(end);
    request.set_limit(limit);
    require(kv_->Range(&context, request, &response));
    return response;
  }

  uint64_t put(const std::string& key, const std::string& value) {
    grpc::ClientContext context;
    etcdserverpb::TxnRequest request;
    etcdserverpb::TxnResponse response;
    request.add_success()->mutable_request_put()->set_key(key);
    request.mutable_success(0)->mutable_request_put()->set_value(value);
    require(kv_->Txn(&context, request, &response));
    return response.ByteSizeLong();
  }

  // All records from `begin` to `end`, `limit` per request.
  uint64_t pages(std::string begin, const std::string& end, int64_t limit) {
    uint64_t count = 0;
    while (true) {
      const etcdserverpb::RangeResponse page = range(begin, end, limit);
      count += static_cast<uint64_t>(page.kvs_size());
      if (!page.more()) return count;
      begin = page.kvs(page.kvs_size() - 1).key() + '\0';
    }
  }

 private:
  std::string endpoint_;
  std::unique_ptr<etcdserverpb::KV::Stub> kv_;
  std::unique_ptr<etcdserverpb::Maintenance::Stub> maintenance_;
};

using Operation = std::function<uint64_t()>;

struct Pair {
  Operation registry;
  Operation bare;
};

struct Bench {
  explicit Bench(const Options& options)
      : keys(options.text("prefix")), dataset(options), bare(options), registry(options) {}

  Keys keys;
  Dataset dataset;
  BareSide bare;  // first: a store that finds gRPC in use by others does not wait for its end when it closes
  RegistrySide registry;
};

// What most operations take: the first on a new key takes more requests.
uint64_t requests_of(const Operation& operation) {
  std::vector<uint64_t> counts;
  for (int i = 0; i < 9; ++i) {
    const uint64_t before = requests;
    sink = operation();
    counts.push_back(requests - before);
  }
  std::sort(counts.begin(), counts.end());
  return counts[counts.size() / 2];
}

// Takes the keys of the first group in turn, each of which has been read once.
std::shared_ptr<Names> known_names(Bench& bench) {
  const std::vector<std::string> names = bench.dataset.names_of(0);
  for (const std::string& name : names) {
    require_equal(bench.registry.read(name), bench.dataset.value().size(), "reading");
  }
  return std::make_shared<Names>(names);
}

std::string name_of_some_key() { return Dataset::group(0) + "." + Dataset::key_level(0); }

std::string node_of_some_key(Bench& bench) {
  return bench.keys.node({bench.registry.id_of(Dataset::group(0)), Dataset::key_level(0)});
}

// In each pair, the bare requests read and write records of the same sizes, under keys of the same form.

Pair open_key(Bench& bench) {
  return {[&bench, names = known_names(bench)] { return bench.registry.id_of(names->next()); },
          [&bench, node = node_of_some_key(bench)] { return bench.bare.get(node); }};
}

Pair read_value(Bench& bench) {
  const std::string value = bench.keys.value(bench.registry.id_of(name_of_some_key()));
  return {[&bench, names = known_names(bench)] { return bench.registry.read(names->next()); },
          [&bench, value] { return bench.bare.get(value); }};
}

Pair write_value(Bench& bench) {
  const std::string some = name_of_some_key();
  auto names = known_names(bench);
  bench.registry.write(some, "changed");
  require_equal(bench.registry.read(some), 7, "reading what was written");
  bench.registry.write(some, bench.dataset.value());
  return {[&bench, names] { return bench.registry.write(names->next(), bench.dataset.value()); },
          [&bench, key = Keys("/bare/").value(bench.registry.id_of(some))] {
            return bench.bare.put(key, bench.dataset.value());
          }};
}

Pair list_group(Bench& bench) {
  const std::string group = Dataset::group(0);
  const auto children = bench.keys.children(bench.registry.id_of(group));
  require_equal(bench.registry.list(group), static_cast<uint64_t>(bench.dataset.keys()), "listing");
  return {[&bench, group] { return bench.registry.list(group); },
          [&bench, children] { return bench.bare.pages(children.begin, children.end, 0); }};
}

Pair walk_all(Bench& bench) {
  const auto groups = static_cast<uint64_t>(bench.dataset.groups());
  const auto keys = static_cast<uint64_t>(bench.dataset.keys());
  const Operation walk = [&bench] { return bench.registry.walk("app"); };
  const auto pages = static_cast<int64_t>(requests_of(walk));
  require_equal(walk(), 2 + groups * (keys + 1), "walking");
  const int64_t limit = static_cast<int64_t>(2 * groups * keys) / pages + 1;
  return {walk, [&bench, nodes = bench.keys.all_nodes(), values = bench.keys.all_values(), limit] {
            return bench.bare.pages(nodes.begin, nodes.end, limit) + bench.bare.pages(values.begin, values.end, limit);
          }};
}

Pair open_registry(Bench& bench) {
  return {[&bench] {
            bench.registry.open();
            return uint64_t{1};
          },
          [&bench, node = node_of_some_key(bench)] {
            bench.bare.open();
            return static_cast<uint64_t>(bench.bare.status().db_size()) + bench.bare.get(node);
          }};
}

Pair pair_of(const std::string& scenario, Bench& bench) {
  static const std::map<std::string, Pair (*)(Bench&)> kPairs = {
      {"open", open_key},   {"read", read_value}, {"write", write_value},
      {"list", list_group}, {"walk", walk_all},   {"open-registry", open_registry}};
  const auto found = kPairs.find(scenario);
  if (found == kPairs.end()) throw std::invalid_argument("there is no scenario '" + scenario + "'");
  return found->second(bench);
}

double mean_during(const Operation& operation, std::chrono::milliseconds time) {
  uint64_t count = 0;
  const auto start = std::chrono::steady_clock::now();
  std::chrono::duration<double, std::nano> elapsed{};
  do {
    sink = operation();
    ++count;
    elapsed = std::chrono::steady_clock::now() - start;
  } while (elapsed < time);
  return elapsed.count() / static_cast<double>(count);
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return (values[(values.size() - 1) / 2] + values[values.size() / 2]) / 2;
}

void measure(const std::string& scenario, const Pair& pair, const Options& options) {
  const std::chrono::milliseconds warm_up(options.number("warm-up-ms"));
  const std::chrono::milliseconds window(options.number("window-ms"));
  std::vector<double> registry;
  std::vector<double> bare;
  sink = static_cast<uint64_t>(mean_during(pair.registry, warm_up));
  sink = static_cast<uint64_t>(mean_during(pair.bare, warm_up));
  for (int i = 0; i < options.number("windows"); ++i) {
    registry.push_back(mean_during(pair.registry, window));
    bare.push_back(mean_during(pair.bare, window));
  }
  const uint64_t through_registry = requests_of(pair.registry);
  const uint64_t bare_requests = requests_of(pair.bare);
  std::printf("%s\t%.0f\t%.0f\t%llu\t%llu\n", scenario.c_str(), median(registry), median(bare),
              static_cast<unsigned long long>(through_registry), static_cast<unsigned long long>(bare_requests));
}

void print_traffic(const char* name, const Operation& operation) {
  const uint64_t requests_before = requests;
  const uint64_t sent_before = bytes_sent;
  const uint64_t received_before = bytes_received;
  sink = operation();
  std::printf("%s\t%llu\t%llu\t%llu\n", name, static_cast<unsigned long long>(requests - requests_before),
              static_cast<unsigned long long>(bytes_sent - sent_before),
              static_cast<unsigned long long>(bytes_received - received_before));
}

// In a session that has read nothing yet.
void print_traffic_of_listing(const Options& options) {
  counts_bytes = true;
  Bench bench(options);
  const std::string group = Dataset::group(0);
  const Operation list = [&] { return bench.registry.list(group); };
  print_traffic("first-list", list);
  print_traffic("list", list);
  const auto children = bench.keys.children(bench.registry.id_of(group));
  print_traffic("bare-list", [&] { return bench.bare.pages(children.begin, children.end, 0); });
  require_equal(sink, static_cast<uint64_t>(bench.dataset.keys()), "listing");
}

void run(const Options& options) {
  if (options.text("scenarios") == "size") {
    std::printf("size\t%lld\n", static_cast<long long>(BareSide(options).status().db_size()));
    return;
  }
  if (options.text("scenarios") == "traffic") {
    print_traffic_of_listing(options);
    return;
  }
  Bench bench(options);
  if (options.text("scenarios") == "fill") {
    bench.registry.fill(bench.dataset);
    return;
  }
  for (const std::string& scenario : options.list("scenarios")) measure(scenario, pair_of(scenario, bench), options);
}

}  // namespace
}  // namespace tkv::bench

int main(int count, char** arguments) {
  return tkv::bench::run_program("tkv_bench_etcd", count, arguments, tkv::bench::run);
}
