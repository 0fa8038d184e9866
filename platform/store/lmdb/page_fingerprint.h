// Fingerprints of leaf pages: a hash of what a page holds and of the range of keys that it is for.
//
// Pages with equal fingerprints are taken to have equal contents. That this is wrong is as unlikely as guessing a
// number of 64 bits. It cannot be brought about either: the hash begins with a random number that each process makes
// for itself and tells nobody.
#ifndef TKV_PLATFORM_STORE_LMDB_PAGE_FINGERPRINT_H
#define TKV_PLATFORM_STORE_LMDB_PAGE_FINGERPRINT_H

#include <cstdint>

#include "store/lmdb/file_state.h"

namespace tkv::store {

// The fingerprint of the leaf page with this number in the tree of records, within the transaction of the state.
// Returns 0 if the tree has no such page, or if a page on the way to it is damaged.
std::uint64_t fingerprint_of_leaf(const FileState& state, std::uint64_t number) noexcept;

}  // namespace tkv::store

#endif
