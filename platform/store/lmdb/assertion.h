// A failed assertion inside LMDB, which means that a page contradicts itself. By default LMDB would abort the process;
// throw_lmdb_assertion raises an exception instead, and the store's entry points turn it into PRTKV_STORAGE_FAILED.
#ifndef TKV_PLATFORM_STORE_LMDB_ASSERTION_H
#define TKV_PLATFORM_STORE_LMDB_ASSERTION_H

#include <lmdb.h>

#include <stdexcept>

namespace tkv::store {

class LmdbAssertion : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// For mdb_env_set_assert.
[[noreturn]] inline void throw_lmdb_assertion(MDB_env* /*env*/, const char* message) { throw LmdbAssertion(message); }

}  // namespace tkv::store

#endif
