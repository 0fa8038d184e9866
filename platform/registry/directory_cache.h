// DirectoryCache: ids of keys that were found by full name, so that a read of one of their subkeys need not look up
// every level again. An entry is valid as long as the store's structure number does not change.
#ifndef TKV_PLATFORM_REGISTRY_DIRECTORY_CACHE_H
#define TKV_PLATFORM_REGISTRY_DIRECTORY_CACHE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <string_view>

#include "base/fair_mutex.h"
#include "registry/key_values.h"
#include "registry/recent_names.h"
#include "store/store.h"

namespace tkv::registry {

// A key that may have subkeys.
struct Directory {
  store::NodeId id = store::kNoNode;
  Route route = kAnyRoute;
};

// Any thread may call; threads that find what they look for do not wait for each other. Only for reads: what an update
// has created does not exist if the update fails.
class DirectoryCache {
 public:
  // The key `name` under the store's `structure`, without an id if it is not known. A structure other than that of the
  // last call forgets everything; 0 knows nothing. Does not allocate.
  Directory find(std::uint64_t structure, std::string_view name) {
    const std::size_t hash = Names::hash(name);
    Shard& shard = shard_of(hash);
    Directory directory;
    if (structure == 0 || shard.look_up(structure, name, hash, &directory)) return directory;
    const std::lock_guard lock(shard.mutex);
    if (structure != shard.structure) {
      shard.ids.clear();
      shard.structure = structure;
    }
    const Directory* const found = shard.ids.find(name, hash);
    return found == nullptr ? Directory() : *found;
  }

  // Keeps what was found under `structure`, if that is still the structure of the last find(). Forgets everything if
  // memory runs out.
  void keep(std::uint64_t structure, std::string_view name, const Directory& directory) noexcept {
    const std::size_t hash = Names::hash(name);
    Shard& shard = shard_of(hash);
    const std::lock_guard lock(shard.mutex);
    if (structure == 0 || structure != shard.structure) return;
    if (shard.ids.find(name, hash) == nullptr) shard.ids.add(name, hash, directory);
  }

 private:
  using Names = RecentNames<Directory>;
  static constexpr std::size_t kShards = 16;
  static constexpr std::size_t kLeastNames = std::size_t{1} << 18;  // of all shards together

  // The parents that a program uses are far fewer than its keys; the bound is there for those that use every key once.
  struct alignas(64) Shard {
    FairSharedMutex mutex;  // guards what follows
    std::uint64_t structure = 0;
    Names ids{kLeastNames / kShards};

    // Returns false if the answer takes a change of the shard: another structure, or a name to carry over.
    bool look_up(std::uint64_t sought, std::string_view name, std::size_t hash, Directory* directory) {
      bool is_old = false;
      const std::shared_lock lock(mutex);
      if (sought != structure) return false;
      const Directory* const found = ids.peek(name, hash, &is_old);
      if (found != nullptr) *directory = *found;
      return !is_old;
    }
  };

  Shard& shard_of(std::size_t hash) { return shards_[hash >> 32 & (kShards - 1)]; }

  std::array<Shard, kShards> shards_;
};

}  // namespace tkv::registry

#endif
