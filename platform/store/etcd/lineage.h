// Lineage: the parents of the nodes that a run has met. Sends no requests. Used by one thread.
#ifndef TKV_PLATFORM_STORE_ETCD_LINEAGE_H
#define TKV_PLATFORM_STORE_ETCD_LINEAGE_H

#include <unordered_map>
#include <vector>

#include "store/store.h"

namespace tkv::store::etcd {

class Lineage {
 public:
  void add(NodeId parent, NodeId id) { parents_[id] = parent; }

  // Whether the node has been met. The root always has.
  bool knows(NodeId id) const { return id == kRootNode || parents_.contains(id); }

  // The ids from the root down to this one; empty if they have not all been met.
  std::vector<NodeId> path(NodeId id) const;

  // Whether `top` is the node itself or an ancestor of it.
  bool is_below(NodeId id, NodeId top) const;

 private:
  std::unordered_map<NodeId, NodeId> parents_;
};

// CommonPath: the path from the root to the lowest node at or above everything added.
class CommonPath {
 public:
  // A node whose path is unknown counts as the root.
  void add(NodeId id, const Lineage& lineage);

  // Empty if nothing was added.
  const std::vector<NodeId>& nodes() const { return nodes_; }

 private:
  std::vector<NodeId> nodes_;
};

// The lowest node that is on all paths. The root if there are no paths, or one of them is unknown.
NodeId common_top(const std::vector<std::vector<NodeId>>& paths);

}  // namespace tkv::store::etcd

#endif
