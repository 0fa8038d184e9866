// History: keeps a session within the history of the cluster that it began in.
//
// When a snapshot of the cluster is restored, it continues from an earlier state: revisions, ids and records that the
// session knows are given out again for something else. Nothing else shows this, since the cluster and its members keep
// their ids. So every request passes through here, and the session ends with PRTKV_UNUSABLE
//   - when a revision is lower than one that was known before the request was sent,
//   - when the registry's mark is no longer the one that was found at opening, or
//   - when the key that records the session's claims of ids is missing or older than the last claim, unless it was
//     removed because the session ended (see session.h).
// The latter two are compared by every transaction that writes, so that nothing is written into another history. A mark
// that is damaged ends no session: writes fail with PRTKV_STORAGE_FAILED as long as it is.
//
// Threads. Any number may call at once.
#ifndef TKV_PLATFORM_STORE_ETCD_HISTORY_H
#define TKV_PLATFORM_STORE_ETCD_HISTORY_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "store/etcd/kv.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {

class History final : public Kv {
 public:
  explicit History(std::unique_ptr<Kv> kv) : kv_(std::move(kv)) {}

  using Kv::txn;
  Reply range(const RangeRequest& request, RangeResponse* response, Deadline deadline) override;
  Reply txn(const TxnRequest& request, TxnResponse* response, Deadline deadline, std::size_t expected) override;
  Reply watch(const std::string& key, std::int64_t start, const std::stop_token& stop, WatchAnswer* answer,
              Deadline deadline) override;
  Reply grant_lease(std::int64_t ttl, Lease* lease, Deadline deadline) override;
  Reply keep_lease_alive(Lease* lease, Deadline deadline) override;
  Reply revoke_lease(std::int64_t id, Deadline deadline) override;
  Reply ask_members(ClusterAnswer* answer, Deadline deadline) override;
  std::chrono::milliseconds timeout() const override { return kv_->timeout(); }
  bool is_ours() const override { return kv_->is_ours(); }

  // From here on, every write compares that the key has this value.
  void hold_mark(std::string key, std::string value);

  // From here on, every write compares that `key` has not been removed, or been replaced by an older one, while the key
  // of the session that made the claim exists.
  void hold_ids(std::string key, std::int64_t claimed_at, std::string session);

  // Ends the session: this and every further request is answered with PRTKV_UNUSABLE.
  Reply end();

 private:
  struct Held {
    std::string mark;
    std::string value;
    std::string ids;
    std::string session;
    std::int64_t claimed_at = 0;

    bool holds() const { return !mark.empty() || !ids.empty(); }
  };

  Reply send(const TxnRequest& request, const Held& fence, TxnResponse* response, Deadline deadline,
             std::size_t expected);
  Reply check(Reply reply, std::int64_t known, std::int64_t revision);
  Held held() const;
  Reply take_fence(const Held& fence, TxnResponse* response, bool* ids_gone);
  Reply release_ids(const Held& fence, Deadline deadline);

  const std::unique_ptr<Kv> kv_;
  std::atomic<std::int64_t> newest_{0};  // revision
  std::atomic<bool> ended_{false};
  mutable std::mutex mutex_;
  Held held_;
};

}  // namespace tkv::store::etcd

#endif
