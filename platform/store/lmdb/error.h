// Translation of LMDB codes and errno values into the registry's results.
#ifndef TKV_PLATFORM_STORE_LMDB_ERROR_H
#define TKV_PLATFORM_STORE_LMDB_ERROR_H

#include <cerrno>
#include <string>

#include "base/status.h"

namespace tkv::store {

// The result of an LMDB call that may have written to the file: its return code, and errno as the call left it.
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

// Translates an LMDB code or errno. `doing` is the beginning of the message ("cannot commit in '/srv/registry'").
Status lmdb_status(int code, const std::string& doing);

// The same for calls that may write. LMDB returns EIO both for a failing disk and for a short write on a full disk, but
// the system sets errno only in the first case.
Status lmdb_status(LmdbOutcome outcome, const std::string& doing);

}  // namespace tkv::store

#endif
