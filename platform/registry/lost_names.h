// LostNames: the names of keys that a session has deleted or moved away. A handle finds out when it is used next, so a
// deletion costs the same however many handles are open.
#ifndef TKV_PLATFORM_REGISTRY_LOST_NAMES_H
#define TKV_PLATFORM_REGISTRY_LOST_NAMES_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "registry/name.h"

namespace tkv::registry {

// One thread at a time.
class LostNames {
 public:
  // The number of losses so far. A handle remembers the number up to which it was checked.
  std::uint64_t now() const { return now_; }

  std::size_t size() const { return names_.size(); }

  // Makes room for the loss of a name, so that add() cannot fail.
  void prepare(std::string_view name) { names_.try_emplace(std::string(name), 0); }

  // Notes that the key of a prepared name and all keys below it are lost.
  void add(std::string_view name) noexcept {
    if (const auto found = names_.find(name); found != names_.end()) found->second = ++now_;
  }

  // Tells whether a key was lost after `since`, by its name or with an ancestor. Does not allocate.
  bool holds(std::string_view name, std::uint64_t since) const noexcept {
    if (since == now_) return false;
    for (; !name.empty(); name = parent_of(name)) {
      const auto found = names_.find(name);
      if (found != names_.end() && found->second > since) return true;
    }
    return false;
  }

  // Forgets all names. Every handle must have been checked up to now().
  void clear() noexcept { names_.clear(); }

 private:
  std::uint64_t now_ = 0;
  std::unordered_map<std::string, std::uint64_t, NameHash, std::equal_to<>>
      names_;  // with the number of their last loss
};

}  // namespace tkv::registry

#endif
