#include "store/etcd/etcd_store.h"

#include <exception>
#include <new>
#include <random>
#include <thread>

#include "store/etcd/checker.h"
#include "store/etcd/cluster_status.h"
#include "store/etcd/core.h"
#include "store/etcd/limits.h"
#include "store/etcd/opening.h"
#include "store/etcd/revision_view.h"
#include "store/etcd/settled_view.h"
#include "store/etcd/stm.h"

namespace tkv::store::etcd {
namespace {

constexpr int kMostLongRuns = 8;      // besides those that gave way to other sessions
constexpr int kMostTurnsGiven = 100;  // the order of turns needs a few; more mean that claims are removed untimely
constexpr std::size_t kMaxPrefixBytes = 256;

// No exception of this module leaves it. An exception of the caller's function passes through.
struct ThrownByCaller {
  std::exception_ptr exception;
};

template <typename Function, typename Argument>
Status call(Function function, Argument& argument) {
  try {
    return function(argument);
  } catch (...) {
    throw ThrownByCaller{std::current_exception()};
  }
}

template <typename Function>
Status guarded(Function function) {
  try {
    return function();
  } catch (const ThrownByCaller& thrown) {
    std::rethrow_exception(thrown.exception);
  } catch (const std::bad_alloc&) {
    return PRTKV_OUT_OF_MEMORY;
  } catch (const std::exception& error) {
    return {PRTKV_UNKNOWN, std::string("unexpected failure: ") + error.what()};
  }
}

// Writers that conflict do so less often if each waits for a random time.
void pause_before_run(int run, Deadline deadline) {
  if (run < 2) return;
  thread_local std::minstd_rand random{std::random_device{}()};
  const int longest = 1 << std::min(run, 6);
  const std::chrono::milliseconds pause(std::uniform_int_distribution<int>(0, longest)(random));
  std::this_thread::sleep_for(std::min(pause, deadline.left()));
}

class EtcdStore final : public Store {
 public:
  EtcdStore(std::unique_ptr<Kv> kv, const EtcdOptions& options)
      : core_(std::move(kv), options.prefix, options.session_ttl_s, std::chrono::seconds(options.sweep_interval_s)) {}

  Status open(const EtcdOptions& options) { return open_registry(core_, options); }

  Status read(FunctionRef<Status(View&)> function) override {
    Revision none = 0;
    return run(
        Stm::Purpose::kRead, [&](Stm& view) { return function(view); }, &none);
  }

  Status read_all(FunctionRef<Status(View&)> function) override;

  Status write(FunctionRef<Status(Update&)> function, Revision* revision) override;

  Status check(const ChangeDescription* repair, FunctionRef<void(const Finding&)> report,
               FunctionRef<void(const CheckProgress&)> progress, Totals* totals) override {
    return guarded([&] { return check_registry(core_, repair, report, progress, totals); });
  }

  const char* kind() const override { return "etcd"; }

  Status status(StoreStatus* status) override {
    return guarded([&] { return read_cluster_status(core_, status); });
  }
  Status read_at(Revision revision, FunctionRef<Status(View&)> function) override;
  Status changes(const LogRange& range, FunctionRef<Status(const ChangeRecord& record)> visit,
                 LogPosition* position) override;
  Status wait(Revision after, std::chrono::milliseconds timeout, const std::stop_token& stop,
              Revision* revision) override {
    return guarded([&] { return core_.log.wait(after, timeout, stop, revision); });
  }
  Status purge(ChooseNodes, const ChangeDescription&, std::uint64_t*) override { return can_purge(); }
  Status can_purge() override;

 private:
  Status run(Stm::Purpose purpose, FunctionRef<Status(Stm&)> function, Revision* committed);

  Core core_;
};

Status EtcdStore::read_all(FunctionRef<Status(View&)> function) {
  return guarded([&] {
    core_.sweeper.look_around_when_due();
    RevisionView snapshot(core_, 0);
    Status status = call(function, static_cast<View&>(snapshot));
    return snapshot.failure().ok() ? status : snapshot.failure().status;
  });
}

Status EtcdStore::write(FunctionRef<Status(Update&)> function, Revision* revision) {
  *revision = 0;
  Status status = run(
      Stm::Purpose::kWrite, [&](Stm& update) { return function(update); }, revision);
  if (!status.ok() || *revision != 0) return status;
  return guarded([&] { return core_.log.revision(0, revision).status; });
}

// etcd gives up a state while it is being read, if it is compacted then.
Status EtcdStore::read_at(Revision revision, FunctionRef<Status(View&)> function) {
  return guarded([&] {
    std::int64_t at = 0;
    if (Status status = core_.log.find_state(revision, &at); !status.ok()) return status;
    SettledView past(core_, at);
    if (Status status = past.load(); !status.ok()) return status;
    Status status = call(function, static_cast<View&>(past));
    return past.failure().ok() ? status : past.failure().status;
  });
}

Status EtcdStore::changes(const LogRange& range, FunctionRef<Status(const ChangeRecord& record)> visit,
                          LogPosition* position) {
  return guarded([&] {
    return core_.log.visit(
        range, [&](const ChangeRecord& record) { return call(visit, record); }, position);
  });
}

Status EtcdStore::can_purge() {
  return guarded([&]() -> Status {
    Revision latest = 0;
    if (Reply reply = core_.log.revision(0, &latest); !reply.ok()) return reply.status;
    return {PRTKV_INVALID_ARGUMENT,
            "the past of a registry on etcd is that of the cluster, which is removed as a whole: etcdctl compact " +
                std::to_string(latest)};
  });
}

Status EtcdStore::run(Stm::Purpose purpose, FunctionRef<Status(Stm&)> function, Revision* committed) {
  return guarded([&]() -> Status {
    core_.sweeper.look_around_when_due();
    Deadline deadline = core_.deadline();
    NextRun next;
    int long_runs = 0;
    int turns_given = 0;
    for (int run = 1;; ++run) {
      Stm stm(core_, purpose, std::move(next), deadline);
      Status result = stm.start();
      if (result.ok()) result = call(function, stm);
      if (stm.finish(&result)) {
        *committed = stm.committed();
        return result;
      }
      deadline = stm.deadline();
      if (stm.is_long()) ++(stm.gives_way() ? turns_given : long_runs);
      const bool out_of_runs = long_runs >= kMostLongRuns || turns_given >= kMostTurnsGiven;
      const bool out_of_time = stm.is_long() ? out_of_runs : deadline.left().count() == 0;
      if (out_of_time) {
        return {PRTKV_BUSY,
                "given up after " + std::to_string(run) + " attempts: others changed the same entries each time"};
      }
      next = stm.take_next();
      pause_before_run(run, deadline);
    }
  });
}

Status open(const EtcdOptions& options, std::shared_ptr<Store>* store, std::function<Interceptors()> interceptors) {
  if (options.prefix.empty() || options.prefix.size() > kMaxPrefixBytes) {
    return {PRTKV_INVALID_CONFIGURATION, "the prefix of the registry's keys in etcd is 1 to 256 bytes long"};
  }
  const ClusterOptions connection{.endpoints = options.endpoints,
                                  .ca = options.ca,
                                  .cert = options.cert,
                                  .key = options.key,
                                  .user = options.user,
                                  .password_file = options.password_file,
                                  .timeout = std::chrono::milliseconds(options.timeout_ms),
                                  .attempt = std::chrono::milliseconds(options.attempt_ms),
                                  .interceptors = std::move(interceptors)};
  std::unique_ptr<Cluster> cluster;
  if (Status status = Cluster::connect(connection, &cluster); !status.ok()) return status;
  auto opened = std::make_shared<EtcdStore>(std::move(cluster), options);
  if (Status status = opened->open(options); !status.ok()) return status;
  *store = std::move(opened);
  return {};
}

}  // namespace

Status open_etcd_store(const EtcdOptions& options, std::shared_ptr<Store>* store,
                       std::function<Interceptors()> interceptors) {
  return guarded([&] { return open(options, store, std::move(interceptors)); });
}

}  // namespace tkv::store::etcd
