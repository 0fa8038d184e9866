#include "store/tree_check.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace tkv::store {

void TreeCheck::add_node(NodeId parent, std::string_view name, NodeId id) {
  nodes_.push_back({parent, id, std::string(name)});
  ++ids_[id];
}

// The root's id is known without its record.
void TreeCheck::add_damaged_node(NodeId parent, std::string_view name, std::string detail) {
  damaged_nodes_.push_back({parent, kNoNode, std::string(name)});
  if (parent == kNoNode && name.empty()) add_node(kNoNode, "", kRootNode);
  report_({Finding::Kind::kDamagedNode, parent, kNoNode, std::string(name), std::move(detail)});
}

void TreeCheck::add_value(NodeId id, std::size_t size) { values_[id] = size; }

void TreeCheck::add_removed_value(NodeId id) { values_[id] = std::nullopt; }

void TreeCheck::add_damaged_value(NodeId id, std::string detail) {
  damaged_values_.push_back(id);
  report_({Finding::Kind::kDamagedValue, kNoNode, id, "", std::move(detail)});
}

void TreeCheck::finish(Totals* totals, Removable* removable) {
  index_children();
  mark_below(kNoNode, Standing::kReached);
  mark_orphans();
  mark_loops();
  for (std::size_t i = 0; i < nodes_.size(); ++i)
    if (standings_[i] == Standing::kReached) reached_.insert(nodes_[i].id);
  report_nodes();
  report_values();
  *totals = count();
  if (removable != nullptr) *removable = find_removable();
}

TreeCheck::Removable TreeCheck::find_removable() const {
  Removable removable;
  for (std::size_t i = 0; i < nodes_.size(); ++i)
    if (standings_[i] != Standing::kReached && standings_[i] != Standing::kUnknown) {
      removable.nodes.push_back(nodes_[i]);
    }
  // Those of unknown keys, which seem to be below no node, are left alone.
  for (const CheckedNode& node : damaged_nodes_)
    if (node.parent != kNoNode && !reached_.contains(node.parent)) removable.nodes.push_back(node);
  for (const auto& [id, size] : values_)
    if (!reached_.contains(id)) removable.values.push_back(id);
  for (const NodeId id : damaged_values_)
    if (!reached_.contains(id)) removable.values.push_back(id);
  return removable;
}

void TreeCheck::index_children() {
  std::sort(nodes_.begin(), nodes_.end(), [](const CheckedNode& left, const CheckedNode& right) {
    return std::tie(left.parent, left.name) < std::tie(right.parent, right.name);
  });
  standings_.assign(nodes_.size(), Standing::kUnknown);
}

// Marks all nodes below `id` that have no standing yet.
void TreeCheck::mark_below(NodeId id, Standing standing) {
  std::vector<NodeId> pending{id};
  while (!pending.empty()) {
    const NodeId parent = pending.back();
    pending.pop_back();
    const auto before = [](const CheckedNode& entry, NodeId wanted) { return entry.parent < wanted; };
    auto at = std::lower_bound(nodes_.begin(), nodes_.end(), parent, before);
    for (; at != nodes_.end() && at->parent == parent; ++at) {
      Standing& own = standings_[static_cast<std::size_t>(at - nodes_.begin())];
      if (own != Standing::kUnknown) continue;
      own = standing;
      pending.push_back(at->id);
    }
  }
}

void TreeCheck::mark_orphans() {
  for (std::size_t i = 0; i < nodes_.size(); ++i)
    if (standings_[i] == Standing::kUnknown && ids_.count(nodes_[i].parent) == 0) {
      mark_below(nodes_[i].parent, Standing::kBelowOrphan);
    }
}

// A node that still has no standing has a parent, which has a parent, and so on: following them leads to a loop.
void TreeCheck::mark_loops() {
  std::unordered_map<NodeId, std::size_t> holders;
  for (std::size_t i = 0; i < nodes_.size(); ++i)
    if (standings_[i] == Standing::kUnknown) holders.emplace(nodes_[i].id, i);
  for (std::size_t start = 0; start < nodes_.size(); ++start) {
    if (standings_[start] != Standing::kUnknown) continue;
    std::unordered_set<std::size_t> path;
    std::size_t at = start;
    while (path.insert(at).second) {
      const auto parent = holders.find(nodes_[at].parent);
      if (parent == holders.end()) break;  // below an id that a node outside has as well
      at = parent->second;
    }
    const std::size_t loop = at;
    do {
      standings_[at] = Standing::kOnLoop;
      const auto parent = holders.find(nodes_[at].parent);
      if (parent == holders.end()) break;
      at = parent->second;
    } while (at != loop);
    do {
      mark_below(nodes_[at].id, Standing::kBelowLoop);
      const auto parent = holders.find(nodes_[at].parent);
      if (parent == holders.end()) break;
      at = parent->second;
    } while (at != loop);
  }
}

void TreeCheck::report_nodes() {
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    const CheckedNode& node = nodes_[i];
    if (ids_[node.id] > 1) {
      report_({Finding::Kind::kDuplicateId, node.parent, node.id, node.name, "another node has the same id"});
    }
    if (standings_[i] == Standing::kOnLoop) {
      report_({Finding::Kind::kOrphan, node.parent, node.id, node.name, "it is its own ancestor"});
    }
    if (standings_[i] == Standing::kBelowOrphan && !ids_.contains(node.parent)) {
      report_({Finding::Kind::kOrphan, node.parent, node.id, node.name, missing_text("its parent")});
    }
  }
}

void TreeCheck::report_values() {
  std::vector<NodeId> lost;
  for (const auto& [id, size] : values_)
    if (!ids_.contains(id)) lost.push_back(id);  // the value of an unreachable node belongs to it
  std::sort(lost.begin(), lost.end());
  for (const NodeId id : lost) report_({Finding::Kind::kOrphanValue, kNoNode, id, "", missing_text("its node")});
}

std::string TreeCheck::missing_text(const char* what) const {
  const std::string text = std::string(what) + " is missing";
  return damaged_nodes_.empty() ? text : text + "; it may be one of the damaged ones";
}

Totals TreeCheck::count() const {
  Totals totals;
  totals.nodes = static_cast<std::uint64_t>(std::count(standings_.begin(), standings_.end(), Standing::kReached));
  for (const auto& [id, size] : values_) {
    if (!size || reached_.count(id) == 0) continue;
    ++totals.values;
    totals.value_bytes += *size;
  }
  return totals;
}

}  // namespace tkv::store
