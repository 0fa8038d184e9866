// DirectoryCache: ids of keys that were found by full name, so that a read of one of their subkeys need not look up
// every level again. An entry is valid as long as the store's structure number does not change.
#ifndef TKV_PLATFORM_REGISTRY_DIRECTORY_CACHE_H
#define TKV_PLATFORM_REGISTRY_DIRECTORY_CACHE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "registry/name.h"
#include "store/store.h"

namespace tkv::registry {

// Any thread may call. Only for reads: what an update has created does not exist if the update fails.
class DirectoryCache {
 public:
  // The id of the key `name` under the store's `structure`, kNoNode if it is not known. A structure other than that of
  // the last call forgets everything; 0 knows nothing. Does not allocate.
  store::NodeId find(std::uint64_t structure, std::string_view name) {
    const std::lock_guard lock(mutex_);
    if (structure != structure_) {
      ids_.clear();
      structure_ = structure;
    }
    if (structure == 0) return store::kNoNode;
    const auto found = ids_.find(name);
    return found == ids_.end() ? store::kNoNode : found->second;
  }

  // Keeps what was found under `structure`, if that is still the structure of the last find(). Forgets everything if
  // memory runs out or the cache is full.
  void keep(std::uint64_t structure, std::string_view name, store::NodeId id) noexcept {
    const std::lock_guard lock(mutex_);
    if (structure == 0 || structure != structure_) return;
    try {
      if (ids_.size() >= kMostEntries) ids_.clear();
      ids_.emplace(name, id);
    } catch (...) {
      ids_.clear();
    }
  }

 private:
  static constexpr std::size_t kMostEntries = 1024;

  std::mutex mutex_;  // guards what follows
  std::uint64_t structure_ = 0;
  std::unordered_map<std::string, store::NodeId, NameHash, std::equal_to<>> ids_;
};

}  // namespace tkv::registry

#endif
