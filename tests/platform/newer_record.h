// Records as a later release may write them: of a version that this one does not know, under a checksum that holds.
#ifndef TKV_TESTS_PLATFORM_NEWER_RECORD_H
#define TKV_TESTS_PLATFORM_NEWER_RECORD_H

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "store/store.h"

namespace tkv::store {

// `record` is anything with data() and size() in bytes.
template <typename Record>
void seal_with_seed(Record* record, std::uint64_t seed) {
  auto* const bytes = reinterpret_cast<unsigned char*>(record->data());
  const std::size_t covered = record->size() - sizeof(std::uint64_t);
  std::uint64_t sum = XXH3_64bits_withSeed(bytes, covered, seed);
  for (std::size_t i = 0; i < sizeof sum; ++i, sum >>= 8) bytes[covered + i] = static_cast<unsigned char>(sum);
}

// Gives a record the checksum that version 1 computes for its key.
template <typename Record>
void set_version_1_checksum(Record* record, NodeId id, std::string_view name) {
  seal_with_seed(record, XXH3_64bits_withSeed(name.data(), name.size(), id));
}

// Gives a record another version, and the checksum that goes with it under its key: a node's parent and name, a value's
// id and "", or kNoNode and "meta".
template <typename Record>
void set_version(Record* record, std::uint8_t version, NodeId id, std::string_view name) {
  reinterpret_cast<unsigned char*>(record->data())[0] = version;
  unsigned char bytes[sizeof id];
  for (std::size_t i = 0; i < sizeof id; ++i) bytes[i] = static_cast<unsigned char>(id >> (8 * i));
  const std::uint64_t id_seed = id == kNoNode ? id : XXH3_64bits(bytes, sizeof bytes);
  seal_with_seed(record, XXH3_64bits_withSeed(name.data(), name.size(), id_seed));
}

}  // namespace tkv::store

#endif
