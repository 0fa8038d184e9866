#include "store/etcd/write_set.h"

#include <algorithm>
#include <functional>
#include <span>
#include <utility>

#include "store/etcd/limits.h"
#include "store/record.h"

namespace tkv::store::etcd {

void WriteSet::add_fresh(NodeId id) {
  if (!fresh_.empty() && fresh_.back().last + 1 == id) {
    fresh_.back().last = id;
  } else {
    fresh_.push_back({id, id});
  }
}

bool WriteSet::is_fresh(NodeId id) const {
  return std::any_of(fresh_.rbegin(), fresh_.rend(),
                     [id](const IdRange& range) { return range.first <= id && id <= range.last; });
}

void WriteSet::discard(NodeId id) {
  discarded_.insert(id);
  values_.erase(id);
}

const std::optional<Node>* WriteSet::find_node(const NodePlace& place) const {
  const auto found = nodes_.find(place);
  return found == nodes_.end() ? nullptr : &found->second;
}

const std::optional<std::string>* WriteSet::find_value(NodeId id) const {
  const auto found = values_.find(id);
  return found == values_.end() ? nullptr : &found->second;
}

std::size_t WriteSet::hash_of(const NodePlace& place) {
  return std::hash<std::string>()(place.name) ^ (std::hash<NodeId>()(place.parent) * 0x9e3779b97f4a7c15u);
}

bool WriteSet::has_child(NodeId parent) const {
  for (auto at = nodes_.lower_bound({parent, ""}); at != nodes_.end() && at->first.parent == parent; ++at) {
    if (at->second) return true;
  }
  return false;
}

std::int64_t WriteSet::removed_below(NodeId parent) const {
  std::int64_t count = 0;
  for (auto at = nodes_.lower_bound({parent, ""}); at != nodes_.end() && at->first.parent == parent; ++at) {
    if (!at->second) ++count;
  }
  return count;
}

bool WriteSet::can_be_staged(const NodePlace& place, const std::optional<Node>& node) const {
  return is_fresh(place.parent) && (!node || is_fresh(node->id));
}

bool WriteSet::has_room(std::size_t bytes) {
  const bool room = staged_operations_ < kBatchOperations && staged_bytes_ + bytes <= kMaxTxnBytes;
  if (!room) {
    staged_operations_ = 0;
    staged_bytes_ = 0;
  }
  ++staged_operations_;
  staged_bytes_ += bytes;
  return room;
}

RequestOp WriteSet::node_operation(const NodePlace& place, const std::optional<Node>& node, Revision ticket) const {
  RequestOp operation;
  if (node) {
    put(&operation, keys_.node(place),
        as_text(encode_node(place.parent, place.name, {node->id, node->security, ticket, node->moves})));
  } else {
    erase(&operation, keys_.node(place));
  }
  return operation;
}

RequestOp WriteSet::value_operation(NodeId id, const std::optional<std::string>& record, Revision ticket) const {
  RequestOp operation;
  if (record) {
    std::string with_ticket = *record;
    if (ticket != 0) set_value_revision(id, ticket, std::as_writable_bytes(std::span(with_ticket)));
    put(&operation, keys_.value(id), std::move(with_ticket));
  } else {
    erase(&operation, keys_.value(id));
  }
  return operation;
}

std::vector<TxnRequest> WriteSet::take_staged(Revision ticket) {
  std::vector<TxnRequest> batches;
  std::size_t bytes = 0;
  const auto add = [&](RequestOp operation, std::size_t size) {
    if (batches.empty() || batches.back().success_size() >= kBatchOperations || bytes + size > kMaxTxnBytes) {
      batches.emplace_back();
      bytes = 0;
    }
    bytes += size;
    *batches.back().add_success() = std::move(operation);
  };
  std::erase_if(nodes_, [&](const auto& each) {
    const auto& [place, node] = each;
    if (!can_be_staged(place, node)) return false;
    add(node_operation(place, node, ticket), kOperationOverhead);
    staged_.insert(hash_of(place));
    return true;
  });
  std::erase_if(values_, [&](const auto& each) {
    const auto& [id, record] = each;
    if (!is_fresh(id)) return false;
    add(value_operation(id, record, ticket), kOperationOverhead + (record ? record->size() : 0));
    return true;
  });
  return batches;
}

bool WriteSet::is_removed_at_once(NodeId discarded, const std::set<NodeId>& childless) const {
  return childless.contains(discarded) && !has_child(discarded);
}

std::vector<std::string> WriteSet::garbage(const std::set<NodeId>& childless) const {
  std::vector<std::string> keys;
  for (const NodeId id : discarded_) {
    if (!is_removed_at_once(id, childless)) keys.push_back(keys_.garbage(id));
  }
  return keys;
}

std::vector<RequestOp> WriteSet::puts(const std::set<NodeId>& childless, Revision ticket) const {
  std::vector<RequestOp> operations;
  for (const auto& [place, node] : nodes_) operations.push_back(node_operation(place, node, ticket));
  for (const auto& [id, record] : values_) operations.push_back(value_operation(id, record, ticket));
  for (const NodeId id : discarded_) {
    if (is_removed_at_once(id, childless)) operations.push_back(value_operation(id, {}, ticket));
  }
  for (std::string& key : garbage(childless)) put(&operations.emplace_back(), std::move(key), "");
  return operations;
}

}  // namespace tkv::store::etcd
