// KnownKeys: what a session knows of the keys that it reads again and again, by name.
//
// A key is taken in when it is looked up for the second time, so that reading many keys once costs nothing and
// displaces nothing. Nothing of a value is kept, only its place. What is known of a key is out of date after any change
// of the registry; its client finds out (see KnownKey).
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

  // What a look-up of a key begins with if find() has returned null. `is_kept` of the result tells whether note() will
  // take the key in.
  KnownKey begin(std::size_t hash) noexcept {
    KnownKey known;
    known.is_kept = has_states_ && seen_.see(hash);
    return known;
  }

  // Notes what was found out about a key.
  void note(std::string_view name, std::size_t hash, const KnownKey& known) noexcept {
    has_states_ = known.state != 0;
    if (!has_states_ || !known.is_kept) return;
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
  bool has_states_ = true;  // unless the client does not number them: then what is known is never up to date
};

}  // namespace tkv::registry

#endif
