#include "store/etcd/node_cache.h"

namespace tkv::store::etcd {

std::optional<SeenNode> NodeCache::get(const NodePlace& place) {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(place);
  if (found == entries_.end()) return {};
  used_.splice(used_.begin(), used_, found->second.used);
  return found->second.known;
}

void NodeCache::put(const NodePlace& place, const SeenNode& known) {
  if (!known.node) return;
  const std::lock_guard lock(mutex_);
  const auto [entry, added] = entries_.try_emplace(place);
  if (!added) {
    if (known.mod_revision >= entry->second.known.mod_revision) entry->second.known = known;
    return;
  }
  used_.push_front(&entry->first);
  entry->second = Cached{known, used_.begin()};
  if (entries_.size() <= capacity_) return;
  entries_.erase(entries_.find(*used_.back()));
  used_.pop_back();
}

void NodeCache::erase(const NodePlace& place) {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(place);
  if (found == entries_.end()) return;
  used_.erase(found->second.used);
  entries_.erase(found);
}

}  // namespace tkv::store::etcd
