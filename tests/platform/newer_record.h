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

// Gives a record another version, and the checksum that goes with it under its key: a node's parent and name, a value's
// id and "", or kNoNode and "meta". `record` is anything with data() and size() in bytes.
template <typename Record>
void set_version(Record* record, std::uint8_t version, NodeId id, std::string_view name) {
  auto* const bytes = reinterpret_cast<unsigned char*>(record->data());
  const std::size_t covered = record->size() - sizeof(std::uint64_t);
  bytes[0] = version;
  std::uint64_t sum = XXH3_64bits_withSeed(bytes, covered, XXH3_64bits_withSeed(name.data(), name.size(), id));
  for (std::size_t i = 0; i < sizeof sum; ++i, sum >>= 8) bytes[covered + i] = static_cast<unsigned char>(sum);
}

}  // namespace tkv::store

#endif
