// Kv: the requests that a registry sends to etcd. Cluster sends them over gRPC; tests answer them from memory.
//
// Threads. Any number may call at once.
#ifndef TKV_PLATFORM_STORE_ETCD_KV_H
#define TKV_PLATFORM_STORE_ETCD_KV_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stop_token>
#include <string>
#include <vector>

#include "base/status.h"
#include "etcd.pb.h"
#include "store/etcd/judgement.h"

namespace tkv::store::etcd {

class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds from_now) : at_(std::chrono::steady_clock::now() + from_now) {}

  // Never negative.
  std::chrono::milliseconds left() const {
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(at_ - std::chrono::steady_clock::now());
    return rest.count() > 0 ? rest : std::chrono::milliseconds(0);
  }

  void put_off(std::chrono::nanoseconds by) { at_ += by; }

 private:
  std::chrono::steady_clock::time_point at_;
};

// How a request ended. `repeated`: it was sent again after an answer had been lost. The first one may have been carried
// out as well: after a success the caller can tell from the answer, after a failure nobody can.
struct Reply {
  Verdict verdict = Verdict::kDone;
  Status status;
  bool repeated = false;

  bool ok() const { return verdict == Verdict::kDone; }
};

struct Lease {
  std::int64_t id = 0;
  std::int64_t ttl = 0;  // seconds
};

// What one endpoint says about its member, or why it says nothing.
struct EndpointAnswer {
  std::string address;
  Status status;
  etcdserverpb::StatusResponse member;
};

// What the cluster says about itself. What the user may not see is empty.
struct ClusterAnswer {
  etcdserverpb::MemberListResponse members;
  etcdserverpb::AlarmResponse alarms;
  std::vector<EndpointAnswer> endpoints;
  std::uint64_t retries = 0;  // requests sent to another endpoint, or again, since connecting
};

// What a watch of one key has seen.
struct WatchAnswer {
  std::vector<etcdserverpb::KeyValue> events;  // puts and removals, in the order of revisions
  std::int64_t compacted = 0;  // not 0: nothing was seen, since only revisions from this one on are kept

  // Of a removal, an event has the key and the revision only.
  static bool is_removal(const etcdserverpb::KeyValue& event) { return event.create_revision() == 0; }
};

class Kv {
 public:
  virtual ~Kv() = default;
  Kv(const Kv&) = delete;
  Kv& operator=(const Kv&) = delete;

  virtual Reply range(const etcdserverpb::RangeRequest& request, etcdserverpb::RangeResponse* response,
                      Deadline deadline) = 0;

  // Sends a transaction, and sends it again if its answer is lost. The first copy may be carried out after the second,
  // and after any number of later changes. So it must be one that only reads, one whose comparisons fail for good once
  // it has been made, or one that changes nothing the second time. `expected` is the size in bytes of a large answer,
  // which is given more time.
  virtual Reply txn(const etcdserverpb::TxnRequest& request, etcdserverpb::TxnResponse* response, Deadline deadline,
                    std::size_t expected) = 0;
  Reply txn(const etcdserverpb::TxnRequest& request, etcdserverpb::TxnResponse* response, Deadline deadline) {
    return txn(request, response, deadline, 0);
  }

  // Waits until `key` is put or removed at the revision `start` or later, and returns what the first answer has of
  // that. Without any by the deadline, or until `stop` is requested, the reply is a success without events.
  virtual Reply watch(const std::string& key, std::int64_t start, const std::stop_token& stop, WatchAnswer* answer,
                      Deadline deadline) = 0;

  // Leases: etcd removes the keys that are put with a lease once it has not been kept alive for `ttl` seconds. The ttl
  // that was granted may be longer than the one requested. Keeping a lease alive that no longer exists gives a ttl of
  // 0.
  virtual Reply grant_lease(std::int64_t ttl, Lease* lease, Deadline deadline) = 0;
  virtual Reply keep_lease_alive(Lease* lease, Deadline deadline) = 0;
  virtual Reply revoke_lease(std::int64_t id, Deadline deadline) = 0;

  // Asks the cluster for its members and alarms, and every endpoint for its member. An endpoint that does not answer is
  // part of the answer.
  virtual Reply ask_members(ClusterAnswer* answer, Deadline deadline) = 0;

  // The time limit of one operation.
  virtual std::chrono::milliseconds timeout() const = 0;

  // Whether this process is the one that connected. A forked child must not send anything.
  virtual bool is_ours() const = 0;

 protected:
  Kv() = default;
};

}  // namespace tkv::store::etcd

#endif
