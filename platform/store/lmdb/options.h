// How an embedded registry is opened.
#ifndef TKV_PLATFORM_STORE_LMDB_OPTIONS_H
#define TKV_PLATFORM_STORE_LMDB_OPTIONS_H

#include <cstdint>
#include <functional>
#include <string>

#include "sec_attr.h"
#include "store/store.h"

namespace tkv::store {

struct LmdbOptions {
  std::string directory;             // absolute; its last level is created if absent and `create` is set
  std::uint64_t map_size = 0;        // upper limit of the file's size in bytes; 0: grows on demand
  std::uint64_t first_map_size = 0;  // without map_size: the initial map size, doubled when full; 0: the default
  std::string group;                 // the group that shares the directory and its files; empty: the owner alone
  bool create = true;                // create a fresh registry if there is none
  bool create_parents = false;       // also create missing parent directories, accessible to the owner alone
  bool read_only = false;
  std::uint32_t timeout_ms = 30000;  // how long a write waits for other writers before it returns PRTKV_BUSY

  // Called once per write that has waited for a second, with a message that names the writer it waits for. Must not use
  // the store.
  std::function<void(const std::string& message)> on_wait;
  sec_attr root_security{};  // security record of a fresh registry's root
  Retention retention;       // of the past, by the writes of this store
};

}  // namespace tkv::store

#endif
