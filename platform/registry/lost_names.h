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

  // Makes room for the loss of a name, so that add() cannot fail. Each call is followed by one of add() or of
  // give_up().
  void prepare(std::string_view name) { ++names_.try_emplace(std::string(name)).first->second.prepared; }

  // Notes that the key of a prepared name and all keys below it are lost.
  void add(std::string_view name) noexcept {
    Loss& loss = names_.find(name)->second;
    --loss.prepared;
    loss.latest = ++now_;
  }

  // The key of a prepared name is not lost.
  void give_up(std::string_view name) noexcept { --names_.find(name)->second.prepared; }

  // Tells whether a key was lost after `since`, by its name or with an ancestor. Does not allocate.
  bool holds(std::string_view name, std::uint64_t since) const noexcept {
    if (since == now_) return false;
    for (; !name.empty(); name = parent_of(name)) {
      const auto found = names_.find(name);
      if (found != names_.end() && found->second.latest > since) return true;
    }
    return false;
  }

  // Forgets all names but those that are prepared. Every handle must have been checked up to now().
  void clear() noexcept {
    std::erase_if(names_, [](const auto& name) { return name.second.prepared == 0; });
  }

 private:
  struct Loss {
    std::uint64_t latest = 0;  // the number of the latest loss; zero: there was none
    unsigned prepared = 0;
  };

  std::uint64_t now_ = 0;
  std::unordered_map<std::string, Loss, NameHash, std::equal_to<>> names_;
};

}  // namespace tkv::registry

#endif
