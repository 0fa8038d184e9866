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
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "registry/client.h"
#include "registry/recent_names.h"

namespace tkv::registry {

class KnownKeys {
 public:
  static std::size_t hash(std::string_view name) { return RecentNames<KnownKey>::hash(name); }

  // What is known of a key, whose name has this hash, or null. Valid until the next call.
  KnownKey* find(std::string_view name, std::size_t hash) { return keys_.find(name, hash); }

  // Notes what was found out about a key.
  void note(std::string_view name, std::size_t hash, const KnownKey& known) noexcept {
    if (known.state == 0 || !was_seen(hash)) return;  // with state 0, it is never up to date
    if (KnownKey* const before = find(name, hash)) {
      *before = known;
    } else {
      keys_.add(name, hash, known);
    }
  }

 private:
  static constexpr std::size_t kKeys = std::size_t{1} << 17;
  static constexpr std::size_t kSeen = std::size_t{1} << 17;  // names that are remembered as seen, by their hashes
  // Clearing a table of that size takes longer than opening a key and reading it, and many sessions read few keys. The
  // first names are therefore remembered in a smaller one, which is still large enough to keep them apart.
  static constexpr std::size_t kFewSeen = 512;
  static constexpr std::size_t kFewPlaces = std::size_t{1} << 14;

  // Tells whether a name was seen before, and remembers it in place of another.
  bool was_seen(std::size_t hash) noexcept {
    const auto mark = static_cast<std::uint32_t>(hash >> 32 | 1);
    try {
      if (seen_.empty()) seen_.resize(kFewPlaces);
      if (names_seen_ == kFewSeen && seen_.size() < kSeen) enlarge();
    } catch (const std::bad_alloc&) {
      return false;
    }
    std::uint32_t& place = place_of(mark, seen_);
    if (place == mark) return true;
    if (names_seen_ < kFewSeen) ++names_seen_;
    place = mark;
    return false;
  }

  void enlarge() {
    std::vector<std::uint32_t> larger(kSeen);
    for (const std::uint32_t mark : seen_) {
      if (mark != 0) place_of(mark, larger) = mark;
    }
    seen_ = std::move(larger);
  }

  // The lowest bit is set in each mark.
  static std::uint32_t& place_of(std::uint32_t mark, std::vector<std::uint32_t>& places) {
    return places[(mark >> 1) % places.size()];
  }

  RecentNames<KnownKey> keys_{kKeys};
  std::vector<std::uint32_t> seen_;  // marks made of names' hashes, 0 where there is none
  std::size_t names_seen_ = 0;       // counted up to kFewSeen
};

}  // namespace tkv::registry

#endif
