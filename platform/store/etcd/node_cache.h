// Nodes as they were last seen in the cluster. They may be outdated: whoever uses one has etcd compare its revision
// before relying on it.
//
// Threads. Any number may call at once.
#ifndef TKV_PLATFORM_STORE_ETCD_NODE_CACHE_H
#define TKV_PLATFORM_STORE_ETCD_NODE_CACHE_H

#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <optional>

#include "store/etcd/keys.h"
#include "store/etcd/seen_node.h"
#include "store/store.h"

namespace tkv::store::etcd {

class NodeCache {
 public:
  explicit NodeCache(std::size_t capacity) : capacity_(capacity) {}

  std::optional<SeenNode> get(const NodePlace& place);

  // Keeps a sound node unless a newer revision of it is cached already. Absent and damaged records are not kept.
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
  std::list<const NodePlace*> used_;  // the most recently used first
};

}  // namespace tkv::store::etcd

#endif
