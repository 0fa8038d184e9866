// How an embedded registry is opened.
#ifndef TKV_PLATFORM_STORE_LMDB_OPTIONS_H
#define TKV_PLATFORM_STORE_LMDB_OPTIONS_H

#include <cstdint>
#include <string>

#include "sec_attr.h"

namespace tkv::store {

struct LmdbOptions {
  std::string directory;             // absolute; created (its last level) when absent and `create` is set
  std::uint64_t map_size = 0;        // bytes that the file may grow to; 0: it grows as it has to
  std::uint64_t first_map_size = 0;  // with no map_size: the map to begin with, doubled when full; 0: the default
  std::string group;                 // group that shares directory and file; empty: only the owner
  bool create = true;                // make a fresh registry when there is none
  bool create_parents = false;       // and the directories above it that are missing, for the owner alone
  bool read_only = false;
  sec_attr root_security{};  // security record of a fresh registry's root
};

}  // namespace tkv::store

#endif
