#include "store/etcd/lineage.h"

#include <algorithm>
#include <utility>

namespace tkv::store::etcd {

std::vector<NodeId> Lineage::path(NodeId id) const {
  std::vector<NodeId> path;
  while (id != kRootNode) {
    const auto parent = parents_.find(id);
    // A damaged tree may have loops.
    if (parent == parents_.end() || path.size() > parents_.size()) return {};
    path.push_back(id);
    id = parent->second;
  }
  path.push_back(kRootNode);
  std::reverse(path.begin(), path.end());
  return path;
}

bool Lineage::is_below(NodeId id, NodeId top) const {
  if (top == kRootNode) return true;
  for (std::size_t steps = 0; id != top; ++steps) {
    const auto parent = parents_.find(id);
    if (parent == parents_.end() || steps > parents_.size()) return false;
    id = parent->second;
  }
  return true;
}

void CommonPath::add(NodeId id, const Lineage& lineage) {
  if (!nodes_.empty() && nodes_.back() == id) return;
  std::vector<NodeId> path = lineage.path(id);
  if (path.empty()) path = {kRootNode};
  if (nodes_.empty()) {
    nodes_ = std::move(path);
  } else {
    const auto common = std::mismatch(nodes_.begin(), nodes_.end(), path.begin(), path.end());
    nodes_.erase(common.first, nodes_.end());
  }
}

NodeId common_top(const std::vector<std::vector<NodeId>>& paths) {
  if (paths.empty() || paths.front().empty()) return kRootNode;
  std::size_t length = paths.front().size();
  for (const std::vector<NodeId>& path : paths) {
    const auto [end, other] = std::mismatch(paths.front().begin(), paths.front().begin() + static_cast<long>(length),
                                            path.begin(), path.end());
    length = static_cast<std::size_t>(end - paths.front().begin());
  }
  return length == 0 ? kRootNode : paths.front()[length - 1];
}

}  // namespace tkv::store::etcd
