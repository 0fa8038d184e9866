// Kills the leader of an etcd cluster on this machine and measures how long a registry's sessions then wait: the time
// from another member reporting that it leads to each session's first answer, in nanoseconds, one line for each
// session. 0 means that the answer came earlier. Busy and idle sessions are reported separately. bench/run-etcd starts
// the members, starts a process for each fail-over, and starts the killed member again.
//
//   --endpoints host:port,...  --processes pid,...  --prefix text  --leader first|last
//
// The last option says whether sessions name the leader first or last.

#include <grpcpp/grpcpp.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "etcd.grpc.pb.h"
#include "options.h"
#include "store/etcd/etcd_store.h"

namespace tkv::bench {
namespace {

using Clock = std::chrono::steady_clock;
using store::Store;

constexpr auto kLongest = std::chrono::seconds(30);

void require(const Status& status, const char* what) {
  if (!status.ok()) throw std::runtime_error(std::string(what) + ": " + status.text());
}

// A member, as its operator sees it.
class Member {
 public:
  Member(std::string endpoint, pid_t process)
      : endpoint_(std::move(endpoint)),
        process_(process),
        stub_(grpc::CreateChannel(endpoint_, grpc::InsecureChannelCredentials())) {}

  const std::string& endpoint() const { return endpoint_; }

  bool leads() {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(200));
    etcdserverpb::StatusResponse response;
    const bool answered = stub_.Status(&context, {}, &response).ok();
    return answered && response.leader() != 0 && response.leader() == response.header().member_id();
  }

  void kill() const {
    if (::kill(process_, SIGKILL) != 0) throw std::runtime_error("the leader cannot be killed");
  }

 private:
  std::string endpoint_;
  pid_t process_;
  etcdserverpb::Maintenance::Stub stub_;
};

std::vector<std::unique_ptr<Member>> members_of(const Options& options) {
  std::vector<std::unique_ptr<Member>> members;
  const auto processes = options.list("processes");
  for (const std::string& endpoint : options.list("endpoints")) {
    members.push_back(std::make_unique<Member>(endpoint, std::stoi(processes.at(members.size()))));
  }
  return members;
}

// Waits until one of the members leads; returns its index.
std::size_t wait_for_leader(const std::vector<std::unique_ptr<Member>>& members, std::size_t but_not) {
  for (const auto start = Clock::now(); Clock::now() - start < kLongest;) {
    for (std::size_t at = 0; at < members.size(); ++at) {
      if (at != but_not && members[at]->leads()) return at;
    }
  }
  throw std::runtime_error("no member leads");
}

std::vector<std::string> endpoints_from(const std::vector<std::unique_ptr<Member>>& members, std::size_t first) {
  std::vector<std::string> endpoints;
  for (std::size_t i = 0; i < members.size(); ++i)
    endpoints.push_back(members[(first + i) % members.size()]->endpoint());
  return endpoints;
}

// One session that reads or writes one key.
class Session {
 public:
  Session(const store::EtcdOptions& options, bool writes) : writes_(writes) {
    require(store::etcd::open_etcd_store(options, &store_), "opening the registry");
    require(act(), "the first operation");
  }

  Status act() {
    if (writes_) return store_->write([](store::Update& update) { return update.set_value(store::kRootNode, 3, {}); });
    return store_->read([](store::View& view) -> Status {
      store::Node node;
      store::Value value;
      if (Status status = view.find(store::kNoNode, "", &node); !status.ok()) return status;
      return view.value(node.id, &value);
    });
  }

  // Works until an operation that began after `after` has succeeded; returns when it ended.
  Clock::time_point work_until_past(const std::atomic<Clock::rep>& after) {
    for (const auto start = Clock::now(); Clock::now() - start < kLongest;) {
      const auto begun = Clock::now();
      const Status status = act();
      if (!status.ok()) ++failures_;
      const Clock::rep since = after;
      if (status.ok() && since != 0 && begun.time_since_epoch().count() > since) return Clock::now();
    }
    throw std::runtime_error("a session has no answer");
  }

  int failures() const { return failures_; }

 private:
  bool writes_;
  std::shared_ptr<Store> store_;
  int failures_ = 0;
};

void print(const char* name, Clock::duration time) {
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
  std::printf("%s\t%lld\n", name, static_cast<long long>(std::max<decltype(nanoseconds)>(0, nanoseconds)));
}

void run(const Options& options) {
  const auto members = members_of(options);
  const std::size_t leader = wait_for_leader(members, members.size());
  store::EtcdOptions session;
  session.endpoints = endpoints_from(members, options.text("leader") == "first" ? leader : leader + 1);
  session.prefix = options.text("prefix");
  Session reader(session, false);
  Session writer(session, true);
  Session idle_reader(session, false);
  Session idle_writer(session, true);

  // Busy sessions count from their first request after the kill, idle ones from their first request.
  std::atomic<Clock::rep> killed{0};
  const std::atomic<Clock::rep> long_ago{1};
  const auto end_of_work = [](Session& which, const std::atomic<Clock::rep>& after) {
    return std::async(std::launch::async, [&] { return which.work_until_past(after); });
  };
  std::future<Clock::time_point> reading = end_of_work(reader, killed);
  std::future<Clock::time_point> writing = end_of_work(writer, killed);
  members[leader]->kill();
  const auto kill_time = Clock::now();
  killed = kill_time.time_since_epoch().count();
  (void)wait_for_leader(members, leader);
  const auto elected = Clock::now();
  std::future<Clock::time_point> idle_reading = end_of_work(idle_reader, long_ago);
  std::future<Clock::time_point> idle_writing = end_of_work(idle_writer, long_ago);
  print("election", elected - kill_time);
  print("read", reading.get() - elected);
  print("write", writing.get() - elected);
  print("idle-read", idle_reading.get() - elected);
  print("idle-write", idle_writing.get() - elected);
  std::printf("failures\t%d\n",
              reader.failures() + writer.failures() + idle_reader.failures() + idle_writer.failures());
}

}  // namespace
}  // namespace tkv::bench

int main(int count, char** arguments) {
  return tkv::bench::run_program("tkv_bench_failover", count, arguments, tkv::bench::run);
}
