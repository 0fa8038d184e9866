// The check of all pages of the data file: whether they form the trees that LMDB takes them for, and nothing else.
#ifndef TKV_PLATFORM_STORE_LMDB_PAGES_H
#define TKV_PLATFORM_STORE_LMDB_PAGES_H

#include <cstdint>

#include "base/function_ref.h"
#include "base/status.h"
#include "store/lmdb/file_state.h"

namespace tkv::store {

// Reads every page in use in `state` through `file`, not through the map: a disk that cannot deliver a page then fails
// a call instead of ending the process. Returns PRTKV_STORAGE_FAILED with a message that names the first page that is
// damaged or used twice, or the numbers that LMDB keeps if they are wrong.
Status check_pages(int file, const FileState& state,
                   FunctionRef<void(std::uint64_t done, std::uint64_t total)> progress);

}  // namespace tkv::store

#endif
