// The embedded store: one LMDB environment in a directory of this node, shared by the processes that open it.
#ifndef TKV_PLATFORM_STORE_LMDB_LMDB_STORE_H
#define TKV_PLATFORM_STORE_LMDB_LMDB_STORE_H

#include <memory>
#include <string>

#include "store/lmdb/options.h"
#include "store/store.h"

namespace tkv::store {

// Opens the environment, or shares the one that this process already has open on the same directory. Its map sizes then
// stay in force.
//
// Failures name the path and the reason: PRTKV_ACCESS_DENIED what permissions forbid, PRTKV_UNUSABLE a location that is
// absent or cannot hold a registry, PRTKV_STORAGE_FAILED a damaged file and a format that this release does not read,
// PRTKV_INVALID_ARGUMENT a path that is not absolute, PRTKV_STORAGE_FULL a full disk, PRTKV_INVALID_CONFIGURATION an
// unknown group. Nothing is overwritten in any of these cases.
//
// Readers wait for nobody, except while this process replaces its map because the registry has outgrown it. A function
// given to the store may read from the same store again, also inside a write (it reads the state before the write);
// a write inside a function yields PRTKV_INVALID_ARGUMENT. After a fork the child has to open the store again: the one
// that it inherits yields PRTKV_UNUSABLE.
Status open_lmdb_store(const LmdbOptions& options, std::shared_ptr<Store>* store);

// Checks whether `directory` can hold an embedded registry that is shared with `group`, if one is given: it is
// absolute, it or its parent exists, is writable and cannot be tampered with by others, and it is not on a network or
// pseudo file system. Changes nothing.
Status check_lmdb_directory(const std::string& directory, const std::string& group = {});

}  // namespace tkv::store

#endif
