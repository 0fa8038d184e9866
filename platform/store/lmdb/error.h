// What LMDB's and the system's error codes mean to the registry.
#ifndef TKV_PLATFORM_STORE_LMDB_ERROR_H
#define TKV_PLATFORM_STORE_LMDB_ERROR_H

#include <cerrno>
#include <string>

#include "base/status.h"

namespace tkv::store {

// How an LMDB call ended that may have written to the file: its code, and errno when it returned.
struct LmdbOutcome {
  int code;
  int error_number;
};

template <typename Call>
LmdbOutcome lmdb_outcome(Call call) {
  errno = 0;
  const int code = call();
  const int error_number = errno;
  return {code, error_number};
}

// Translates an LMDB code or errno. `doing` begins the text ("cannot commit in '/srv/registry'").
Status lmdb_status(int code, const std::string& doing);

// The same for calls that may write. LMDB says EIO both of a disk that fails and of a write that was cut short for want
// of room; but only of the first does the system set errno.
Status lmdb_status(LmdbOutcome outcome, const std::string& doing);

}  // namespace tkv::store

#endif
