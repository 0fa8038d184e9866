// IdSource: node ids that are never used twice. Every process takes blocks of ids from one counter in the cluster by
// compare-and-swap.
//
// Threads. Any number may call at once.
#ifndef TKV_PLATFORM_STORE_ETCD_ID_SOURCE_H
#define TKV_PLATFORM_STORE_ETCD_ID_SOURCE_H

#include <mutex>

#include "store/etcd/keys.h"
#include "store/etcd/kv.h"
#include "store/record.h"

namespace tkv::store::etcd {

// Ids from `first` to `last`.
struct IdRange {
  NodeId first = 1;
  NodeId last = 0;
};

class IdSource {
 public:
  IdSource(Kv& kv, const Keys& keys) : kv_(kv), keys_(keys) {}

  Status take(NodeId* id, Deadline deadline);

  // Takes a block for the caller alone.
  Status take_block(std::uint64_t size, IdRange* block, Deadline deadline);

  // The counter as it was last seen. Saves a round trip for the first block.
  void know(const Meta& meta, std::int64_t mod_revision);

 private:
  Status claim(std::uint64_t size, IdRange* block, Deadline deadline);

  Kv& kv_;
  const Keys& keys_;
  std::mutex mutex_;
  IdRange block_;
  Meta meta_;
  std::int64_t mod_revision_ = 0;
};

}  // namespace tkv::store::etcd

#endif
