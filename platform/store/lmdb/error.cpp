#include "store/lmdb/error.h"

#include <lmdb.h>
#include <unistd.h>

#include "store/lmdb/reader_pool.h"

namespace tkv::store {

Status lmdb_status(int code, const std::string& doing) { return lmdb_status(LmdbOutcome{code, code}, doing); }

Status lmdb_status(LmdbOutcome outcome, const std::string& doing) {
  const int code = outcome.code;
  const auto failed = [&](prtkv_result result, const std::string& why) { return Status(result, doing + ": " + why); };
  const auto system = [&](prtkv_result result) { return failed(result, mdb_strerror(code)); };
  switch (code) {
    case MDB_SUCCESS:
      return {};
    case MDB_NOTFOUND:
      return PRTKV_NO_SUCH_KEY;
    case MDB_KEYEXIST:
      return PRTKV_KEY_EXISTS;
    case EIO:
      if (outcome.error_number != EIO) return failed(PRTKV_STORAGE_FULL, "no space left on the device");
      return system(PRTKV_STORAGE_FAILED);
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return system(PRTKV_STORAGE_FULL);
    case MDB_MAP_FULL:
      return failed(PRTKV_STORAGE_FULL, "the registry has reached its size limit; raise `map_size`");
    case ENOMEM:
      return system(PRTKV_OUT_OF_MEMORY);
    case EACCES:
    case EPERM:
      return failed(PRTKV_ACCESS_DENIED, std::string(mdb_strerror(code)) +
                                             "; act as its owner or, if a group shares it, as a member of the group");
    case EROFS:
      return failed(PRTKV_ACCESS_DENIED,
                    std::string(mdb_strerror(code)) + "; mount it for writing, or set `location` to another directory");
    case MDB_INVALID:
      return failed(PRTKV_STORAGE_FAILED, "this is not the data file of a registry, or it is damaged");
    case MDB_CORRUPTED:
    case MDB_PAGE_NOTFOUND:
      return failed(PRTKV_STORAGE_FAILED, "the registry's file is damaged");
    case MDB_PANIC:
      return failed(PRTKV_STORAGE_FAILED, "an earlier write failed before it was complete");
    case EBADMSG:
    case EUCLEAN:
    case ENXIO:
      return system(PRTKV_STORAGE_FAILED);
    case MDB_VERSION_MISMATCH:
      return failed(PRTKV_UNUSABLE,
                    "the file or its lock file was created by another version of LMDB; use the release of TKV that "
                    "created it, or "
                    "export the registry there and import it here");
    case ENOENT:
    case ENOTDIR:
    case EISDIR:
    case ELOOP:
    case ENAMETOOLONG:
    case ENODEV:
    case ESTALE:
    case EOPNOTSUPP:
      return system(PRTKV_UNUSABLE);
    case EAGAIN:
      // LMDB could not lock the byte of the lock file that stands for this process's id.
      return failed(PRTKV_UNUSABLE,
                    "a process in another PID namespace has the registry open under the same process id, " +
                        std::to_string(getpid()) +
                        ", and LMDB tells processes apart by this id; let the containers share one PID namespace, or "
                        "start this program under another process id");
    case MDB_READERS_FULL:
      return failed(PRTKV_BUSY, "all " + std::to_string(kMaxReaders) + " reader slots of the registry are in use");
    case MDB_MAP_RESIZED:
      return failed(PRTKV_BUSY, "the registry grew while it was being read");
    case EMFILE:
    case ENFILE:
    case EBUSY:
    case EINTR:
    case ETIMEDOUT:
      return system(PRTKV_BUSY);
    default:
      return failed(PRTKV_UNKNOWN, std::string(mdb_strerror(code)) + " (" + std::to_string(code) + ")");
  }
}

}  // namespace tkv::store
