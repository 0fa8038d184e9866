#include "lmdb_error.h"

#include <fcntl.h>
#include <lmdb.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace tkv::store {
namespace {

constexpr std::size_t kProbeSize = 64 * 1024;

// 1: written, 0: no room, -1: could not be tried.
int write_nameless_file(const char* directory) {
  const int file = open(directory, O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
  if (file < 0) return errno == ENOSPC || errno == EDQUOT ? 0 : -1;
  static constexpr std::array<char, kProbeSize> kZeroes{};
  const ssize_t written = write(file, kZeroes.data(), kZeroes.size());
  const int error = written < 0 ? errno : 0;
  close(file);
  if (written == static_cast<ssize_t>(kZeroes.size())) return 1;
  return written >= 0 || error == ENOSPC || error == EDQUOT ? 0 : -1;
}

}  // namespace

DiskRoom disk_room(const char* directory) {
  const int written = write_nameless_file(directory);
  if (written >= 0) return written == 1 ? DiskRoom::kLeft : DiskRoom::kExhausted;
  struct statvfs disk {};
  if (statvfs(directory, &disk) != 0) return DiskRoom::kLeft;
  return disk.f_bavail * disk.f_frsize < kProbeSize ? DiskRoom::kExhausted : DiskRoom::kLeft;
}

Status lmdb_status(int code, const std::string& doing, DiskRoom room) {
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
      if (room == DiskRoom::kExhausted) return failed(PRTKV_STORAGE_FULL, "no space left on the device");
      return system(PRTKV_STORAGE_FAILED);
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return system(PRTKV_STORAGE_FULL);
    case MDB_MAP_FULL:
      return failed(PRTKV_STORAGE_FULL, "the registry has grown to the size that it may have");
    case ENOMEM:
      return system(PRTKV_OUT_OF_MEMORY);
    case EACCES:
    case EPERM:
    case EROFS:
      return system(PRTKV_ACCESS_DENIED);
    case MDB_INVALID:
      return failed(PRTKV_STORAGE_FAILED, "this is not a file of a registry, or it is damaged");
    case MDB_VERSION_MISMATCH:
      return failed(PRTKV_STORAGE_FAILED, "the file or its lock file was made by another version of LMDB");
    case MDB_CORRUPTED:
    case MDB_PAGE_NOTFOUND:
      return failed(PRTKV_STORAGE_FAILED, "the registry's file is damaged");
    case MDB_PANIC:
      return failed(PRTKV_STORAGE_FAILED, "an earlier write failed half way");
    case MDB_READERS_FULL:
      return failed(PRTKV_STORAGE_FAILED, "too many processes and threads read the registry at once");
    default:
      return failed(PRTKV_STORAGE_FAILED, std::string(mdb_strerror(code)) + " (" + std::to_string(code) + ")");
  }
}

}  // namespace tkv::store
