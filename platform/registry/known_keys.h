// KnownKeys: what a session knows of the keys that it reads again and again, by name.
//
// A key is taken in when it is seen for the second time, so that reading many keys once costs nothing and displaces
// nothing. Nothing of a value is kept, only its place. What is known of a key is out of date after any change of the
// registry; its client finds out (see KnownKey).
//
// One thread at a time.
#ifndef TKV_PLATFORM_REGISTRY_KNOWN_KEYS_H
#define TKV_PLATFORM_REGISTRY_KNOWN_KEYS_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "registry/client.h"
#include "registry/recent_names.h"
#include "registry/seen_names.h"

namespace tkv::registry {

class KnownKeys {
 public:
  static std::size_t hash(std::string_view name) { return RecentNames<KnownKey>::hash(name); }

  // What is known of a key, whose name has this hash, or null. Valid until the next call.
  KnownKey* find(std::string_view name, std::size_t hash) { return keys_.find(name, hash); }

  // Begins to find out about a key of which nothing is known. `known->is_kept` tells whether it is to be noted.
  KnownKey begin(std::size_t hash) noexcept {
    KnownKey known;
    known.is_kept = seen_.see(hash);
    return known;
  }

  // Notes what was found out about a key.
  void note(std::string_view name, std::size_t hash, const KnownKey& known) noexcept {
    if (known.state == 0 || !known.is_kept) return;  // with state 0, it is never up to date
    if (KnownKey* const before = find(name, hash)) {
      *before = known;
    } else {
      keys_.add(name, hash, known);
    }
  }

 private:
  static constexpr std::size_t kKeys = std::size_t{1} << 17;

  RecentNames<KnownKey> keys_{kKeys};
  SeenNames seen_;
};

}  // namespace tkv::registry

#endif
