// Run: how one run of a caller's function is going, and what the next one starts from.
//
// The parts of a transaction share it. When one of them finds that the run cannot succeed, it tells the run and returns
// the failure, which the caller's function is expected to pass on; whatever the function makes of it, the run knows.
//
// Used by one thread.
#ifndef TKV_PLATFORM_STORE_ETCD_RUN_H
#define TKV_PLATFORM_STORE_ETCD_RUN_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "store/etcd/claims.h"
#include "store/etcd/keys.h"
#include "store/etcd/kv.h"
#include "store/etcd/seen_node.h"

namespace tkv::store::etcd {

// What a transaction whose comparisons failed read again, all of one revision.
struct Prefetch {
  std::int64_t revision = 0;  // 0: nothing was prefetched
  std::map<NodePlace, SeenNode> nodes;
  KnownClaims claims;
};

// The claim that a run must lay before it reads anything.
struct ClaimOrder {
  NodeId top = kNoNode;
  std::int64_t began = 0;  // see claims.h
  int attempt = 1;
  std::optional<Claim> former;  // of the run before, which this one replaces
};

// Whose turn it is, as far as this operation has found out.
struct Turns {
  std::int64_t began = 0;         // of a small write that has met a claim; 0: it has not
  std::set<std::string> awaited;  // tokens of the claims that were waited for; each is waited for once
};

struct NextRun {
  Prefetch prefetch;
  std::optional<ClaimOrder> claim;
  Turns turns;
};

class Run {
 public:
  // `deadline` is that of the whole operation; each request of a long run has `timeout` for itself.
  Run(Deadline deadline, std::chrono::milliseconds timeout) : deadline_(deadline), timeout_(timeout) {}
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  // The cluster failed: this ends the operation. The first failure counts. Returns `status`.
  Status fail(Status status) {
    if (failure_.ok()) failure_ = status;
    return status;
  }

  // The state that this run has read is outdated: the function must run again, on what was prefetched.
  Status repeat() {
    repeats_ = true;
    return outdated();
  }

  // The same without anything prefetched.
  Status repeat_from_scratch() {
    next.prefetch = {};
    return repeat();
  }

  // The failure or the need to repeat that has been found so far.
  Status check() const { return failure_.ok() && repeats_ ? outdated() : failure_; }
  bool repeats() const { return repeats_; }
  const Status& failure() const { return failure_; }

  // The same because another session came first, which the order of turns allows only a few to do.
  Status give_way() {
    gives_way_ = true;
    return repeat_from_scratch();
  }
  bool gives_way() const { return gives_way_; }

  // Waits for another session. The operation's deadline is put off by the time that this takes.
  template <typename Wait>
  auto wait(Wait wait) {
    const auto begin = std::chrono::steady_clock::now();
    auto result = wait();
    deadline_.put_off(std::chrono::steady_clock::now() - begin);
    return result;
  }

  // A long run is limited by its progress, not by the operation's deadline.
  void become_long() { long_ = true; }
  bool is_long() const { return long_; }
  Deadline deadline() const { return long_ ? Deadline(timeout_) : deadline_; }
  Deadline deadline_of_operation() const { return deadline_; }

  // What the next run starts from, should there be one.
  NextRun next;

 private:
  static Status outdated() { return {PRTKV_BUSY, "the registry changed while it was read"}; }

  Deadline deadline_;
  const std::chrono::milliseconds timeout_;
  bool repeats_ = false;
  bool gives_way_ = false;
  bool long_ = false;
  Status failure_;
};

}  // namespace tkv::store::etcd

#endif
