// What LMDB's table of readers tells: which processes read, which of them have read one state for long, and how much
// disk space that costs.
#ifndef TKV_PLATFORM_STORE_LMDB_READER_TABLE_H
#define TKV_PLATFORM_STORE_LMDB_READER_TABLE_H

#include <lmdb.h>
#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "store/lmdb/commit_times.h"
#include "store/lmdb/file_state.h"
#include "store/store.h"

namespace tkv::store {

// A slot of the table that is in use.
struct TableReader {
  pid_t process = 0;
  std::uint64_t transaction = 0;  // whose state it holds; 0: it is not reading
};

// Returns LMDB's code.
int list_readers(MDB_env* env, std::vector<TableReader>* readers);

// Those of `readers` that have held their state for a minute or longer, the oldest state first. `state` is the present
// one.
std::vector<LongReader> find_long_readers(const std::vector<TableReader>& readers, const FileState& state,
                                          const CommitTimes& times);

}  // namespace tkv::store

#endif
