// FakeKv: answers a registry's requests from memory as etcd does, with all former revisions, so that tests need no
// cluster. A test can look at each request before it is carried out, change what is stored by then, and lose answers.
//
// Threads. Any number may call at once; the functions that look at requests may call back.
#ifndef TKV_TESTS_ETCD_FAKE_KV_H
#define TKV_TESTS_ETCD_FAKE_KV_H

#include <unistd.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "store/etcd/kv.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {

class FakeKv final : public Kv {
 public:
  struct Version {
    std::int64_t mod_revision = 0;
    std::int64_t create_revision = 0;
    std::int64_t version = 1;
    bool exists = true;
    std::string value;
    std::int64_t lease = 0;
  };

  // All that is stored, as in a snapshot of the cluster.
  struct State {
    std::map<std::string, std::vector<Version>> keys;
    std::int64_t revision = 1;
  };
  State state() const;
  void restore(const State& state);

  using Kv::txn;
  Reply range(const RangeRequest& request, RangeResponse* response, Deadline deadline) override;
  Reply txn(const TxnRequest& request, TxnResponse* response, Deadline deadline, std::size_t expected) override;
  Reply watch(const std::string& key, std::int64_t start, const std::stop_token& stop, WatchAnswer* answer,
              Deadline deadline) override;
  Reply grant_lease(std::int64_t ttl, Lease* lease, Deadline deadline) override;
  Reply keep_lease_alive(Lease* lease, Deadline deadline) override;
  Reply revoke_lease(std::int64_t id, Deadline deadline) override;
  Reply ask_members(ClusterAnswer* answer, Deadline deadline) override;
  std::chrono::milliseconds timeout() const override { return std::chrono::seconds(60); }
  bool is_ours() const override { return getpid() == process_; }

  // A function of a test. It may be replaced at any time, also by itself, while other threads send requests.
  class Hook {
   public:
    using Function = std::function<Reply(const TxnRequest& request)>;

    explicit Hook(std::recursive_mutex& mutex) : mutex_(mutex) {}

    Hook& operator=(Function function) {
      (void)replace(std::move(function));
      return *this;
    }

    // Returns the former one.
    Function replace(Function function) {
      const std::lock_guard lock(mutex_);
      return *std::exchange(function_, std::make_shared<Function>(std::move(function)));
    }

    // Success if there is no function.
    Reply operator()(const TxnRequest& request) const {
      const std::lock_guard lock(mutex_);
      const std::shared_ptr<Function> function = function_;
      return *function ? (*function)(request) : Reply();
    }

   private:
    std::recursive_mutex& mutex_;
    std::shared_ptr<Function> function_ = std::make_shared<Function>();
  };

 private:
  mutable std::recursive_mutex mutex_;

 public:
  // Called before each transaction is carried out. A failure that it returns is the reply, and nothing is carried out.
  Hook before_txn{mutex_};

  // Called after each transaction has been carried out. A failure that it returns is the reply in place of the answer.
  // A success may say that the request was repeated.
  Hook after_txn{mutex_};

  // The space alarm: nothing can be put any more.
  std::atomic<bool> is_full{false};

  // What the cluster says about itself.
  ClusterAnswer members;

  // Direct access, as another client has it.
  void put(const std::string& key, const std::string& value);
  void erase(const std::string& key);
  std::string get(const std::string& key) const;  // "" if it does not exist
  std::size_t count(const KeyRange& range) const;
  std::vector<std::string> keys_of(const KeyRange& range) const;  // that exist
  std::int64_t mod_revision(const std::string& key) const;

  std::int64_t revision() const;
  void compact();
  int requests() const;  // other than those for leases

  // Lets every lease run out: its keys are removed, all at one revision. None runs out by itself.
  void expire_leases();
  std::size_t leases() const;

 private:
  const Version* version(const std::string& key, std::int64_t revision) const;
  std::vector<std::string> keys_of(const std::string& key, const std::string& end, std::int64_t revision) const;
  bool holds(const Compare& compare) const;
  static bool holds(const Compare& compare, const Version* version);
  void read(const RangeRequest& request, std::int64_t now, RangeResponse* response) const;
  void write(const std::string& key, const std::string* value, std::int64_t revision, std::int64_t lease = 0);
  void end_lease(std::int64_t id);

  const pid_t process_ = getpid();
  std::map<std::string, std::vector<Version>> keys_;
  std::int64_t revision_ = 1;
  std::int64_t compacted_ = 0;
  std::set<std::int64_t> leases_;
  std::int64_t last_lease_ = 0;
  int requests_ = 0;
};

// Hands the requests of several sessions to one cluster. A session that has died sends nothing any more.
class SharedKv final : public Kv {
 public:
  explicit SharedKv(FakeKv& kv) : kv_(kv) {}
  void die() { dead_ = true; }

  using Kv::txn;
  Reply range(const RangeRequest& request, RangeResponse* response, Deadline deadline) override {
    return dead_ ? silence() : kv_.range(request, response, deadline);
  }
  Reply txn(const TxnRequest& request, TxnResponse* response, Deadline deadline, std::size_t expected) override {
    return dead_ ? silence() : kv_.txn(request, response, deadline, expected);
  }
  Reply watch(const std::string& key, std::int64_t start, const std::stop_token& stop, WatchAnswer* answer,
              Deadline deadline) override {
    return dead_ ? silence() : kv_.watch(key, start, stop, answer, deadline);
  }
  Reply grant_lease(std::int64_t ttl, Lease* lease, Deadline deadline) override {
    return dead_ ? silence() : kv_.grant_lease(ttl, lease, deadline);
  }
  Reply keep_lease_alive(Lease* lease, Deadline deadline) override {
    return dead_ ? silence() : kv_.keep_lease_alive(lease, deadline);
  }
  Reply revoke_lease(std::int64_t id, Deadline deadline) override {
    return dead_ ? silence() : kv_.revoke_lease(id, deadline);
  }
  Reply ask_members(ClusterAnswer* answer, Deadline deadline) override {
    return dead_ ? silence() : kv_.ask_members(answer, deadline);
  }
  std::chrono::milliseconds timeout() const override { return kv_.timeout(); }
  bool is_ours() const override { return kv_.is_ours(); }

 private:
  static Reply silence() { return {Verdict::kFinal, Status(PRTKV_UNREACHABLE, "the process has died"), false}; }

  FakeKv& kv_;
  std::atomic<bool> dead_{false};
};

}  // namespace tkv::store::etcd

#endif
