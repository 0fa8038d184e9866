// DirectoryCache: ids of keys that were found by full name, so that a read of one of their subkeys need not look up
// every level again. What it holds stands while the store's structure number does.
#ifndef TKV_PLATFORM_REGISTRY_DIRECTORY_CACHE_H
#define TKV_PLATFORM_REGISTRY_DIRECTORY_CACHE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "store/store.h"

namespace tkv::registry {

// One thread at a time. Only for reads: what an update has made is not there when the update fails.
class DirectoryCache {
 public:
  // The id of the key `name` under the store's `structure`, kNoNode when it is not known. A structure other than at
  // the last call forgets everything; 0 knows nothing. Does not allocate.
  store::NodeId find(std::uint64_t structure, std::string_view name) {
    if (structure != structure_) {
      ids_.clear();
      structure_ = structure;
    }
    if (structure == 0) return store::kNoNode;
    const auto found = ids_.find(name);
    return found == ids_.end() ? store::kNoNode : found->second;
  }

  // Keeps what was found under the structure of the last call of find. Without memory, or when it is full, it forgets.
  void keep(std::string_view name, store::NodeId id) noexcept {
    if (structure_ == 0) return;
    try {
      if (ids_.size() >= kMostEntries) ids_.clear();
      ids_.emplace(name, id);
    } catch (...) {
      ids_.clear();
    }
  }

 private:
  static constexpr std::size_t kMostEntries = 1024;

  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
  };

  std::uint64_t structure_ = 0;
  std::unordered_map<std::string, store::NodeId, Hash, std::equal_to<>> ids_;
};

}  // namespace tkv::registry

#endif
