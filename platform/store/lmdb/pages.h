// Whether the pages of a registry's file make the trees that LMDB will take them for.
//
// LMDB keeps no checksums and follows whatever offset and page number it reads, out of the page and out of the file. So
// pages that were damaged on the disk could end the process. This looks at them first, by reading the file and not its
// map, since also a disk that fails to deliver a mapped page ends the process.
#ifndef TKV_PLATFORM_STORE_LMDB_PAGES_H
#define TKV_PLATFORM_STORE_LMDB_PAGES_H

#include <lmdb.h>

#include <cstdint>

#include "base/function_ref.h"
#include "base/status.h"

namespace tkv::store {

// Looks through all pages in use in the state that a transaction sees, which must not have written anything. 7 with a
// text that names the page; `*outdated` is set instead when other writers have meanwhile overwritten what tells where
// the state's pages are: then a new transaction is needed.
Status check_pages(MDB_txn* txn, FunctionRef<void(std::uint64_t done, std::uint64_t total)> progress, bool* outdated);

}  // namespace tkv::store

#endif
