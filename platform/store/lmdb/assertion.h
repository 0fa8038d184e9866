// What LMDB cannot go on with: a page that contradicts itself. LMDB would end the process; here it is an exception,
// which the store's entry points turn into 7.
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
