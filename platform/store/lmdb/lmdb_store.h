// The embedded store: one LMDB environment in a directory of this node, shared by the processes that open it.
#ifndef TKV_PLATFORM_STORE_LMDB_LMDB_STORE_H
#define TKV_PLATFORM_STORE_LMDB_LMDB_STORE_H

#include <memory>
#include <string>

#include "store/lmdb/options.h"
#include "store/store.h"

namespace tkv::store {

// Opens the environment, or takes part in the one that this process has open on the same directory; then the map sizes
// of whoever opened it first hold.
//
// Failures name path and reason: 2 what permissions forbid, 7 what is not there or is not a registry of a format that
// this release reads (nothing is overwritten then), 8 a path that is not absolute, 11 a full disk, 41 no such group.
//
// Readers wait for nobody, except while this process replaces its map because the registry has outgrown it. A function
// given to the store may read from the same store again, also inside a write (it reads the state before the write);
// a write inside a function is refused with 8. After a fork the child has to open the store anew: what it inherits
// answers 7.
Status open_lmdb_store(const LmdbOptions& options, std::shared_ptr<Store>* store);

// Tells whether `directory` can hold an embedded registry: absolute, its parent there, writable, not on a network or
// pseudo file system. Changes nothing.
Status check_lmdb_directory(const std::string& directory);

}  // namespace tkv::store

#endif
