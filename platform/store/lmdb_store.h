// The embedded store: one LMDB environment in a directory of this node, shared by the processes that open it.
#ifndef TKV_PLATFORM_STORE_LMDB_STORE_H
#define TKV_PLATFORM_STORE_LMDB_STORE_H

#include <cstdint>
#include <memory>
#include <string>

#include "store.h"

namespace tkv::store {

struct LmdbOptions {
  std::string directory;        // absolute; created (its last level) when absent and `create` is set
  std::uint64_t map_size = 0;   // bytes that the file may grow to; 0: the default
  std::string group;            // group that shares directory and file; empty: only the owner
  bool create = true;           // make a fresh registry when there is none
  bool read_only = false;
  sec_attr root_security{};     // security record of a fresh registry's root
};

// Opens the environment, or takes part in the one that this process has open on the same directory.
Status open_lmdb_store(const LmdbOptions& options, std::shared_ptr<Store>* store);

// Tells whether `directory` can hold an embedded registry: absolute, its parent there, writable, not on a network file
// system. Changes nothing.
Status check_lmdb_directory(const std::string& directory);

}  // namespace tkv::store

#endif
