// Nodes as they were last seen in the cluster, to try a transaction on before the cluster is asked. What is in here may
// be outdated: whoever uses it has etcd compare the revision before anything is made of it.
//
// Threads. Any number may call.
#ifndef TKV_PLATFORM_STORE_ETCD_NODE_CACHE_H
#define TKV_PLATFORM_STORE_ETCD_NODE_CACHE_H

#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <optional>

#include "store/etcd/keys.h"
#include "store/store.h"

namespace tkv::store::etcd {

// What the cluster holds at a place. Revision 0: nothing. A record that cannot be trusted has `damage` and no node.
struct SeenNode {
  std::int64_t mod_revision = 0;
  std::optional<Node> node;
  Status damage;
};

class NodeCache {
 public:
  explicit NodeCache(std::size_t capacity) : capacity_(capacity) {}

  std::optional<SeenNode> get(const NodePlace& place);

  // Only what is there is kept; an absent or damaged record, or one of an older revision, is not.
  void put(const NodePlace& place, const SeenNode& known);

  void erase(const NodePlace& place);

 private:
  struct Cached {
    SeenNode known;
    std::list<const NodePlace*>::iterator used;
  };

  std::size_t capacity_;
  std::mutex mutex_;
  std::map<NodePlace, Cached> entries_;
  std::list<const NodePlace*> used_;  // the latest first
};

}  // namespace tkv::store::etcd

#endif
