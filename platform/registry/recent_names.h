// RecentNames: a map from names to values that is bounded and keeps the names in use.
//
// It has two generations. Names are added to the young one; when that is full, the old one is dropped and the young one
// takes its place. A name found in the old generation is added to the young one again, so names in use stay.
//
// One thread at a time; but any number of threads may call peek() at once.
#ifndef TKV_PLATFORM_REGISTRY_RECENT_NAMES_H
#define TKV_PLATFORM_REGISTRY_RECENT_NAMES_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "base/large_pages.h"
#include "registry/name.h"

namespace tkv::registry {

template <typename Value>
class RecentNames {
 public:
  // Keeps at least the latest `least` names and at most twice as many.
  explicit RecentNames(std::size_t least) : least_(least), young_(least), old_(least) {}

  static std::size_t hash(std::string_view name) { return NameHash()(name); }

  // The value of a name, which has this hash; valid until the next call. Null if the name is not kept. Allocates only
  // to carry a name over to the young generation.
  Value* find(std::string_view name, std::size_t hash) {
    if (Entry* const found = young_.find_by_turns(name, hash)) return &found->value;
    Entry* const found = old_.find_by_turns(name, hash);
    if (found == nullptr) return nullptr;
    const Value value = found->value;
    add(name, hash, value);
    Entry* const young = young_.find_by_turns(name, hash);
    return young == nullptr ? nullptr : &young->value;
  }

  // As find(), but carries nothing over: `*is_old` tells whether find() would.
  const Value* peek(std::string_view name, std::size_t hash, bool* is_old) const {
    const Entry* const young = young_.find(name, hash);
    const Entry* const found = young != nullptr ? young : old_.find(name, hash);
    *is_old = young == nullptr && found != nullptr;
    return found == nullptr ? nullptr : &found->value;
  }

  // Adds a name that is not kept. Forgets everything if memory runs out.
  void add(std::string_view name, std::size_t hash, const Value& value) noexcept {
    try {
      if (young_.size() >= least_) old_ = std::exchange(young_, Generation(least_));
      young_.add(name, hash, value);
    } catch (...) {
      clear();
    }
  }

  void clear() noexcept {
    young_ = Generation(least_);
    old_ = Generation(least_);
  }

 private:
  // The entries take more memory than the processor's caches have, so what counts is how many lines of an entry a
  // search touches. Names that are longer than an entry has room for are kept elsewhere.
  static constexpr std::size_t kLine = 64;
  static constexpr std::size_t kLeastRoom = 24;
  static constexpr std::size_t kWithoutRoom =
      sizeof(std::size_t) + sizeof(Value) + sizeof(std::unique_ptr<char[]>) + sizeof(std::uint16_t);
  static constexpr std::size_t kEntrySize = (kWithoutRoom + kLeastRoom + kLine - 1) / kLine * kLine;

  struct alignas(kEntrySize) Entry {
    Entry(std::string_view name, std::size_t name_hash, const Value& of_name)
        : hash(name_hash), value(of_name), size(static_cast<std::uint16_t>(name.size())) {
      if (name.size() > room.size()) elsewhere = std::make_unique<char[]>(name.size());
      name.copy(elsewhere ? elsewhere.get() : room.data(), name.size());
    }

    bool has(std::string_view name, std::size_t name_hash) const {
      return hash == name_hash && std::string_view(elsewhere ? elsewhere.get() : room.data(), size) == name;
    }

    std::size_t hash;
    Value value;
    std::unique_ptr<char[]> elsewhere;
    std::uint16_t size;
    std::array<char, kEntrySize - kWithoutRoom> room;
  };

  // A hash table with linear probing. It is small rather than sparse: then most places of the table are in a cache of
  // the processor, and a search waits for the memory of the entry alone.
  class Generation {
   public:
    // For up to `most` names.
    explicit Generation(std::size_t most) : most_(most) {}

    std::size_t size() const { return entries_.size(); }

    // As find(), for names that are looked up by turns, or several times one after the other. Entries are in the order
    // in which their names were added, so the next name is likely to be that of the next entry. This takes no
    // place in the table, for whose memory a search may have to wait.
    Entry* find_by_turns(std::string_view name, std::size_t hash) {
      for (std::size_t index = latest_; index < entries_.size() && index <= latest_ + 1; ++index)
        if (entries_[index].has(name, hash)) return &entries_[latest_ = index];
      const Entry* const found = find(name, hash);
      if (found == nullptr) return nullptr;
      latest_ = static_cast<std::size_t>(found - entries_.data());
      return &entries_[latest_];
    }

    const Entry* find(std::string_view name, std::size_t hash) const {
      if (entries_.empty()) return nullptr;
      const Place tag = tag_of(hash);
      for (Place at = static_cast<Place>(hash) & mask_;; at = (at + 1) & mask_) {
        const Place place = places_[at];
        if (place == kFree) return nullptr;
        if ((place & ~mask_) != tag) continue;
        const Entry& entry = entries_[place & mask_];
        if (entry.has(name, hash)) return &entry;
      }
    }

    void add(std::string_view name, std::size_t hash, const Value& value) {
      if (entries_.size() >= most_of(places_.size())) grow();
      entries_.emplace_back(name, hash, value);
      place(entries_.size() - 1);
    }

   private:
    // The index of an entry in the low bits, as many as tell a place. Above them is a part of the entry's hash, so that
    // most entries that are passed are not looked at.
    using Place = std::uint32_t;

    static constexpr Place kFree = ~Place{0};  // no entry has this index, as the table is never full
    static constexpr std::size_t kFirstSize = 64;

    static std::size_t most_of(std::size_t places) { return places / 5 * 4; }

    // Other bits of the hash than those that tell where a search begins.
    Place tag_of(std::size_t hash) const { return static_cast<Place>(hash >> 32) & ~mask_; }

    void grow() {
      const std::size_t size = places_.empty() ? kFirstSize : 2 * places_.size();
      entries_.reserve(std::min(most_of(size), most_));
      std::vector<Place>(size, kFree).swap(places_);
      mask_ = static_cast<Place>(size - 1);
      for (std::size_t index = 0; index < entries_.size(); ++index) place(index);
    }

    void place(std::size_t index) {
      const std::size_t hash = entries_[index].hash;
      Place at = static_cast<Place>(hash) & mask_;
      while (places_[at] != kFree) at = (at + 1) & mask_;
      places_[at] = tag_of(hash) | static_cast<Place>(index);
    }

    std::size_t most_;
    std::vector<Entry, LargePages<Entry>> entries_;
    std::vector<Place> places_;  // of entries_, by hash; their number is a power of two
    Place mask_ = 0;             // the bits that tell a place
    std::size_t latest_ = 0;     // the index of the entry that find_by_turns() has found last
  };

  const std::size_t least_;
  Generation young_;
  Generation old_;
};

}  // namespace tkv::registry

#endif
