// SeenNames: which names were seen before, told by their hashes alone.
//
// It is a cache of hashes: sets of four places each, of which the names that are seen take one after the other. Until a
// few hundred names have been seen it is a small one: clearing the large one takes longer than opening a key and
// reading it, and many sessions read few keys.
//
// One thread at a time.
#ifndef TKV_PLATFORM_REGISTRY_SEEN_NAMES_H
#define TKV_PLATFORM_REGISTRY_SEEN_NAMES_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

namespace tkv::registry {

class SeenNames {
 public:
  // Tells whether the name with this hash was seen before, and remembers that it was seen now. May take a name that it
  // has forgotten, or for which there is no memory, for one that was never seen.
  bool see(std::size_t hash) noexcept {
    const auto mark = static_cast<std::uint32_t>(hash >> 32 | 1);
    try {
      if (sets_.empty()) sets_.resize(kFewSets);
      if (seen_ >= kFew && sets_.size() < kSets) enlarge();
    } catch (const std::bad_alloc&) {
      return false;
    }
    Set& set = set_of(mark, sets_);
    if (std::find(set.begin(), set.end(), mark) != set.end()) return true;
    add(mark, set);
    return false;
  }

 private:
  using Set = std::array<std::uint32_t, 4>;  // marks made of hashes; 0 where there is none

  static constexpr std::size_t kSets = std::size_t{1} << 15;
  static constexpr std::size_t kFewSets = std::size_t{1} << 10;
  static constexpr std::size_t kFew = 512;  // so few that sets seldom have more than four of them

  // The lowest bit is set in each mark.
  static Set& set_of(std::uint32_t mark, std::vector<Set>& sets) { return sets[(mark >> 1) % sets.size()]; }

  // Takes a free place, or one by turns. If more names are read by turns than a set has places, some of them are found
  // each time; if the oldest were replaced, none would be.
  void add(std::uint32_t mark, Set& set) {
    const auto free = std::find(set.begin(), set.end(), 0u);
    (free != set.end() ? *free : set[seen_ % set.size()]) = mark;
    ++seen_;
  }

  void enlarge() {
    std::vector<Set> larger(kSets);
    for (const Set& set : sets_) {
      for (const std::uint32_t mark : set) {
        if (mark != 0) add(mark, set_of(mark, larger));
      }
    }
    sets_.swap(larger);
  }

  std::vector<Set> sets_;
  std::size_t seen_ = 0;  // how often a place was taken
};

}  // namespace tkv::registry

#endif
