#include "store/lmdb/page_fingerprint.h"

#include <sys/random.h>

#include "store/lmdb/tree_cursor.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace tkv::store {
namespace {

// 0 if there are no random numbers.
std::uint64_t random_seed() noexcept {
  std::uint64_t number = 0;
  return ::getrandom(&number, sizeof number, 0) == sizeof number ? number : 0;
}

std::uint64_t hash(std::span<const std::byte> bytes, std::uint64_t seed) {
  return XXH3_64bits_withSeed(bytes.data(), bytes.size(), seed);
}

}  // namespace

// A page that is free keeps its former contents until it is used again, so the tree is searched for the page's first
// key. Before the search has ended on the page, that key may be anything, and may change.
std::uint64_t fingerprint_of_leaf(const FileState& state, std::uint64_t number) noexcept {
  static const std::uint64_t seed = random_seed();
  Page page;
  std::span<const std::byte> key;
  bool found = false;
  const std::size_t size = state.map.page_size;
  const std::byte* const bytes = seed == 0 ? nullptr : state.page(number);
  const bool may_be_it =
      bytes != nullptr && page.open(bytes, size, number, kLeafPage) == nullptr && page.read_key(0, &key);
  if (!may_be_it) return 0;
  TreeCursor cursor(state);
  if (cursor.seek(key, &found) || !found || cursor.page_number() != number) return 0;
  std::span<const std::byte> begin;
  std::span<const std::byte> end;
  if (cursor.range(&begin, &end)) return 0;
  const std::uint64_t fingerprint = hash({bytes, size}, hash(end, hash(begin, seed)));
  return fingerprint == 0 ? 1 : fingerprint;
}

}  // namespace tkv::store
