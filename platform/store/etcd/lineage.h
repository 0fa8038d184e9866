// How the nodes that a run has met hang together.
#ifndef TKV_PLATFORM_STORE_ETCD_LINEAGE_H
#define TKV_PLATFORM_STORE_ETCD_LINEAGE_H

#include <unordered_map>
#include <vector>

#include "store/store.h"

namespace tkv::store::etcd {

class Lineage {
 public:
  void add(NodeId parent, NodeId id) { parents_[id] = parent; }

  // Whether the node was met; the root always is.
  bool knows(NodeId id) const { return id == kRootNode || parents_.contains(id); }

  // The ids from the root down to this one; nothing when they were not all met.
  std::vector<NodeId> path(NodeId id) const;

  // Whether `top` is the node or one above it.
  bool is_below(NodeId id, NodeId top) const;

 private:
  std::unordered_map<NodeId, NodeId> parents_;
};

// The lowest node that all paths go through. The root when there are none, or one of them is not known.
NodeId common_top(const std::vector<std::vector<NodeId>>& paths);

}  // namespace tkv::store::etcd

#endif
