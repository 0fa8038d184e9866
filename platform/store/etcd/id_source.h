// IdSource: node ids that are never used twice. Every process takes blocks of ids from one counter in the cluster by
// compare-and-swap. Each claim rewrites a key of the session as well, by which History notices that it was undone.
//
// Threads. Any number may call at once.
#ifndef TKV_PLATFORM_STORE_ETCD_ID_SOURCE_H
#define TKV_PLATFORM_STORE_ETCD_ID_SOURCE_H

#include <mutex>
#include <string>

#include "store/etcd/history.h"
#include "store/etcd/keys.h"
#include "store/record.h"

namespace tkv::store::etcd {

// Ids from `first` to `last`.
struct IdRange {
  NodeId first = 1;
  NodeId last = 0;
};

class IdSource {
 public:
  IdSource(History& kv, const Keys& keys);

  Status take(NodeId* id, Deadline deadline);

  // Takes a block for the caller alone.
  Status take_block(std::uint64_t size, IdRange* block, Deadline deadline);

  // The counter as it was last seen. Saves a round trip for the first block.
  void know(const Meta& meta, std::int64_t mod_revision);

  // The key of this session's claims; empty if there were none.
  std::string claims_key() const;

 private:
  Status claim(std::uint64_t size, IdRange* block, Deadline deadline);

  History& kv_;
  const Keys& keys_;
  const std::string claims_key_;
  mutable std::mutex mutex_;
  IdRange block_;
  Meta meta_;
  std::int64_t mod_revision_ = 0;
  std::int64_t claimed_at_ = 0;  // revision of the last claim
  std::uint64_t claims_ = 0;
};

}  // namespace tkv::store::etcd

#endif
