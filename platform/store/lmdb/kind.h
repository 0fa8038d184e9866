// The embedded store's row in the table of store kinds.
#ifndef TKV_PLATFORM_STORE_LMDB_KIND_H
#define TKV_PLATFORM_STORE_LMDB_KIND_H

#include "store/store_kinds.h"

namespace tkv::store {

extern const StoreKind kLmdbKind;

}  // namespace tkv::store

#endif
