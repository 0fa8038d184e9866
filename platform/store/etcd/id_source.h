// IdSource: node ids that are never used twice. Every process takes blocks of ids from one counter in the cluster by
// compare-and-swap. Each claim rewrites a key of the session as well, by which History notices that it was undone. Ids
// that were claimed in one session are not used in the next one.
//
// Threads. Any number may call at once.
#ifndef TKV_PLATFORM_STORE_ETCD_ID_SOURCE_H
#define TKV_PLATFORM_STORE_ETCD_ID_SOURCE_H

#include <mutex>
#include <string>

#include "store/etcd/history.h"
#include "store/etcd/keys.h"
#include "store/etcd/session.h"
#include "store/record.h"

namespace tkv::store::etcd {

// Ids from `first` to `last`.
struct IdRange {
  NodeId first = 1;
  NodeId last = 0;
};

class IdSource {
 public:
  IdSource(History& kv, const Keys& keys) : kv_(kv), keys_(keys) {}

  // Sets `*lost` if the owner's session has ended; there is no id then, and no failure.
  Status take(const Owner& owner, NodeId* id, bool* lost, Deadline deadline);

  // Takes a block for the caller alone.
  Status take_block(const Owner& owner, std::uint64_t size, IdRange* block, bool* lost, Deadline deadline);

  // The counter as it was last seen, to save a round trip for the first block; or kUnknown, if it could not be read.
  static constexpr std::int64_t kUnknown = -1;
  void know(const Meta& meta, std::int64_t mod_revision);

 private:
  void belong_to(const Owner& owner);
  Status claim(std::uint64_t size, IdRange* block, bool* lost, Deadline deadline);
  Status take_in(const TxnResponse& failed, bool* lost);

  History& kv_;
  const Keys& keys_;
  mutable std::mutex mutex_;
  Owner owner_;  // of what follows
  std::string claims_key_;
  IdRange block_;
  Meta meta_;
  std::int64_t mod_revision_ = 0;
  std::int64_t claimed_at_ = 0;  // revision of the last claim
  std::uint64_t claims_ = 0;
};

}  // namespace tkv::store::etcd

#endif
