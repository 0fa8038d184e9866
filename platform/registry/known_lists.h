// KnownLists: the lists of subkeys that a session has taken, for further handles of the same keys.
//
// A list is labelled with the state that it was read from. As long as that is the registry's latest state, another
// handle of the key need not read it again. The client that read the list has checked the right to do so; neither
// rights nor keys change within a state.
//
// One thread at a time.
#ifndef TKV_PLATFORM_REGISTRY_KNOWN_LISTS_H
#define TKV_PLATFORM_REGISTRY_KNOWN_LISTS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "registry/key_values.h"
#include "registry/subkey_names.h"

namespace tkv::registry {

class KnownLists {
 public:
  // The list of a key's subkeys in a state, or null.
  std::shared_ptr<const SubkeyNames> find(KeyId id, std::uint64_t state) const {
    const List& list = lists_[id % kLists];
    return state != 0 && list.id == id && list.state == state ? list.names : nullptr;
  }

  // Keeps a list in place of another, unless it is a long one. The state is zero if it is not known.
  void keep(KeyId id, std::uint64_t state, std::shared_ptr<const SubkeyNames> names) noexcept {
    if (state != 0 && names->bytes() <= kMostBytes) lists_[id % kLists] = {id, state, std::move(names)};
  }

 private:
  static constexpr std::size_t kLists = 16;
  static constexpr std::size_t kMostBytes = std::size_t{64} << 10;

  struct List {
    KeyId id = kAnyKey;
    std::uint64_t state = 0;
    std::shared_ptr<const SubkeyNames> names;
  };

  std::array<List, kLists> lists_;
};

}  // namespace tkv::registry

#endif
