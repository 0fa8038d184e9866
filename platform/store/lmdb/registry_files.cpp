#include "store/lmdb/registry_files.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "store/lmdb/directory.h"
#include "store/lmdb/error.h"
#include "store/lmdb/file.h"
#include "store/lmdb/layout.h"
#include "store/lmdb/link_directory.h"
#include "store/lmdb/reader_pool.h"

namespace tkv::store {
namespace {

constexpr const char* kDataFile = "data.mdb";
constexpr const char* kLockFile = "lock.mdb";
constexpr const char* kWriterLockFile = "writer.lock";

// LMDB's lock file has a header of 192 bytes, which includes the first reader's slot, and 64 bytes per further reader.
constexpr off_t kLockFileSize = 192 + (kMaxReaders - 1) * 64;

std::string quoted(const std::string& path) { return "'" + path + "'"; }

FileIdentity identity_of(const struct stat& file) { return {file.st_dev, file.st_ino}; }

FileIdentity identity_of(const struct statx& file) {
  return {makedev(file.stx_dev_major, file.stx_dev_minor), file.stx_ino};
}

Status random_name(const char* name, std::string* random) {
  std::uint64_t number = 0;
  if (getrandom(&number, sizeof number, 0) != sizeof number) return {PRTKV_UNKNOWN, "no random numbers available"};
  *random = std::string(name) + ".new-" + std::to_string(number);
  return {};
}

bool looks_like_lock_file(int file) {
  std::uint32_t magic = 0;
  const ssize_t count = pread(file, &magic, sizeof magic, 0);
  return count == 0 || (count == sizeof magic && (magic == 0 || magic == kMagic));
}

bool leads_to(const std::string& path, const FileIdentity& identity) {
  struct statx found {};
  return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO, &found) == 0 && identity_of(found) == identity;
}

}  // namespace

RegistryFiles::RegistryFiles(const LmdbOptions& options)
    : path_(options.directory), data_path_(path_of(kDataFile)), lock_path_(path_of(kLockFile)) {}

Status RegistryFiles::open(const LmdbOptions& options, std::unique_ptr<const RegistryFiles>* files) {
  std::unique_ptr<RegistryFiles> opened(new RegistryFiles(options));
  if (Status status = find_sharing(options.group, &opened->sharing_); !status.ok()) return status;
  struct stat directory {};
  Status status = open_directory(options, opened->sharing_, &opened->handle_, &directory);
  if (status.ok()) status = opened->open_files(options, directory);
  if (!status.ok()) return status;
  *files = std::move(opened);
  return {};
}

Status RegistryFiles::open_files(const LmdbOptions& options, const struct stat& directory) {
  directory_identity_ = identity_of(directory);
  exposed_ = is_exposed(directory);
  owner_ = directory.st_uid;
  if (Status status = open_data_file(options); !status.ok()) return status;
  return open_lock_file(options.read_only);
}

// Leaves `*file` closed if there is no such file. A file that cannot be opened for reading is still named by the
// descriptor, which suffices to tell what is wrong with it.
Status RegistryFiles::open_file(const char* name, Access access, CheckedFile* file) const {
  constexpr int kReading = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC;
  Descriptor opened(access == Access::kRead ? openat(handle_.number(), name, kReading) : -1);
  const bool can_be_read = opened.is_open();
  if (!can_be_read) opened = Descriptor(openat(handle_.number(), name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat found {};
  const int error = opened.is_open() && fstat(opened.number(), &found) == 0 ? 0 : errno;
  if (error == ENOENT) return {};
  if (error != 0) return lmdb_status(error, "cannot use " + quoted(path_of(name)));
  if (Status status = check_file(name, found); !status.ok()) return status;
  *file = {std::move(opened), can_be_read, identity_of(found), found.st_size, found.st_blocks * 512};
  return {};
}

Status RegistryFiles::check_file(const char* name, const struct stat& file) const {
  const std::string path = quoted(path_of(name));
  if (!S_ISREG(file.st_mode)) {
    return {PRTKV_UNUSABLE, path + " is not a plain file; move it aside when no process uses the registry"};
  }
  if (file.st_nlink > 1) {
    return {PRTKV_UNUSABLE, path + " has " + std::to_string(file.st_nlink) +
                                " names (hard links) and must have one; find the others (find / -xdev -samefile " +
                                path + ") and remove them"};
  }
  const bool is_trusted = file.st_uid == owner_ || file.st_uid == 0 || file.st_uid == geteuid() ||
                          (sharing_.group && file.st_gid == *sharing_.group);
  if (is_trusted) return {};
  return {PRTKV_UNUSABLE,
          path + " belongs to another user (" + std::to_string(file.st_uid) +
              ") who is neither the owner of the directory nor a member of the registry's group; if you trust it, "
              "give it to the owner of the directory (chown), otherwise move it aside"};
}

Status RegistryFiles::open_data_file(const LmdbOptions& options) {
  if (Status status = open_file(kDataFile, Access::kRead, &data_); !status.ok()) return status;
  if (!data_.handle.is_open()) {
    if (!options.create || options.read_only) return {PRTKV_UNUSABLE, "there is no registry in " + quoted(path_)};
    const auto fill = [&](const Descriptor& file) {
      return write_fresh_registry(path_to_open(file, ""), options.root_security).about(quoted(path_of(kDataFile)));
    };
    if (Status status = create(kDataFile, fill); !status.ok()) return status;
    if (Status status = sync_directory(handle_, path_); !status.ok()) return status;
    if (Status status = open_file(kDataFile, Access::kRead, &data_); !status.ok()) return status;
    if (!data_.handle.is_open()) {
      return {PRTKV_BUSY, quoted(path_of(kDataFile)) + " was removed while it was being opened"};
    }
  }
  return inspect_data();
}

// On a read-only file system, LMDB does without a lock file.
Status RegistryFiles::open_lock_file(bool read_only) {
  const auto name_file = [&] { return open_file(kLockFile, Access::kName, &lock_); };
  if (Status status = name_file(); !status.ok() || lock_.handle.is_open()) return status;
  const auto fill = [&](const Descriptor& file) {
    const int error = posix_fallocate(file.number(), 0, kLockFileSize);
    return lmdb_status(error, "cannot allocate " + quoted(path_of(kLockFile)));
  };
  struct statvfs file_system {};
  if (read_only && fstatvfs(handle_.number(), &file_system) == 0 && (file_system.f_flag & ST_RDONLY) != 0) return {};
  if (Status status = create(kLockFile, fill); !status.ok()) return status;
  if (Status status = name_file(); !status.ok() || lock_.handle.is_open()) return status;
  return {PRTKV_BUSY, quoted(path_of(kLockFile)) + " was removed while it was being opened"};
}

// The file's descriptor can be read unless the file could not be opened for reading: the reason is reported then.
Status RegistryFiles::inspect_data() const {
  if (data_.can_be_read) return inspect_data_file(data_.handle, path_of(kDataFile));
  const Descriptor file(::open(path_to_open(data_.handle, kDataFile).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.is_open()) {
    const int error = errno;
    return lmdb_status(error, "cannot open " + quoted(path_of(kDataFile)));
  }
  return inspect_data_file(file, path_of(kDataFile));
}

// The file is complete before it appears under its name. Of several processes that create it at once, one wins.
Status RegistryFiles::create(const char* name, FunctionRef<Status(const Descriptor& file)> fill) const {
  std::string temporary;
  if (Status status = random_name(name, &temporary); !status.ok()) return status;
  Status status = create_temporary(temporary, fill);
  if (status.ok()) status = rename_temporary(temporary, name);
  if (!status.ok()) unlinkat(handle_.number(), temporary.c_str(), 0);
  return status;
}

// Closes the file before it gets its name: once it has, another thread may take LMDB's locks on it, and a process loses
// its locks on a file when it closes any descriptor of it.
Status RegistryFiles::create_temporary(const std::string& temporary,
                                       FunctionRef<Status(const Descriptor& file)> fill) const {
  const Descriptor file(
      openat(handle_.number(), temporary.c_str(), O_CREAT | O_EXCL | O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file.is_open()) {
    const int error = errno;
    return lmdb_status(error, "cannot create " + quoted(path_of(temporary)));
  }
  Status status = set_access(file.number(), path_of(temporary), sharing_, sharing_.file_mode());
  return status.ok() ? fill(file) : status;
}

Status RegistryFiles::rename_temporary(const std::string& temporary, const char* name) const {
  const int directory = handle_.number();
  int error = renameat2(directory, temporary.c_str(), directory, name, RENAME_NOREPLACE) == 0 ? 0 : errno;
  if (error == 0) return {};
  // Not every file system supports the flag.
  if (error == EINVAL) error = linkat(directory, temporary.c_str(), directory, name, 0) == 0 ? 0 : errno;
  unlinkat(directory, temporary.c_str(), 0);
  return error == EEXIST ? Status() : lmdb_status(error, "cannot create " + quoted(path_of(name)));
}

// In a directory that nobody else can change, the plain path does, which works without /proc.
std::string RegistryFiles::path_to_open(const Descriptor& file, const std::string& name) const {
  if (!exposed_ && !name.empty()) return path_of(name);
  return "/proc/self/fd/" + std::to_string(file.number());
}

// The directory that holds the data file may be another one than at first, so each file has to be found by its path.
bool RegistryFiles::are_in_place() const {
  return leads_to(data_path_, data_.identity) && (!lock_.handle.is_open() || leads_to(lock_path_, lock_.identity));
}

Status RegistryFiles::prepare_lock_file() const {
  if (!lock_.handle.is_open()) return {};
  const Descriptor file(::open(path_to_open(lock_.handle, kLockFile).c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
  if (!file.is_open()) return {};  // LMDB will report it
  const std::string path = quoted(path_of(kLockFile));
  if (!looks_like_lock_file(file.number())) {
    return {PRTKV_UNUSABLE, path + " is not a lock file of LMDB; remove it when no process uses the registry"};
  }
  if (lock_.size >= kLockFileSize && lock_.allocated >= lock_.size) return {};
  // Not posix_fallocate: where the file system lacks the operation, it would write to a file that others have mapped.
  const int error = fallocate(file.number(), 0, 0, std::max(kLockFileSize, lock_.size)) == 0 ? 0 : errno;
  return error == EOPNOTSUPP ? Status() : lmdb_status(error, "cannot allocate " + path);
}

Status RegistryFiles::open_environment(MDB_env* env, unsigned flags) const {
  LinkDirectory links;
  const bool by_link = exposed_ && lock_.handle.is_open();
  if (by_link) {
    if (Status status = links.create(data_.handle, lock_.handle); !status.ok()) return status;
  }
  const std::string doing = "cannot open the registry in " + quoted(path_);
  const std::string path = by_link ? links.path() : path_;
  int code = mdb_env_open(env, path.c_str(), flags, sharing_.file_mode());
  int file = -1;
  struct stat found {};
  if (code == 0) code = mdb_env_get_fd(env, &file);
  if (code == 0 && (fcntl(file, F_SETFD, FD_CLOEXEC) != 0 || fstat(file, &found) != 0)) code = errno;
  if (code != 0) return lmdb_status(code, doing);
  if (identity_of(found) == data_.identity && (by_link || are_in_place())) return {};
  return {PRTKV_BUSY, doing + ": its files were replaced meanwhile"};
}

Status RegistryFiles::open_writer_lock(Descriptor* file) const {
  CheckedFile found;
  if (Status status = open_file(kWriterLockFile, Access::kName, &found); !status.ok()) return status;
  if (!found.handle.is_open()) {
    const auto leave_empty = [](const Descriptor&) { return Status(); };
    if (Status status = create(kWriterLockFile, leave_empty); !status.ok()) return status;
    if (Status status = open_file(kWriterLockFile, Access::kName, &found); !status.ok()) return status;
    if (!found.handle.is_open()) {
      return {PRTKV_BUSY, quoted(path_of(kWriterLockFile)) + " was removed while it was being opened"};
    }
  }
  Descriptor opened(::open(path_to_open(found.handle, kWriterLockFile).c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
  if (!opened.is_open()) {
    const int error = errno;
    return lmdb_status(error, "cannot open " + quoted(path_of(kWriterLockFile)));
  }
  *file = std::move(opened);
  return {};
}

Descriptor RegistryFiles::open_commit_times() const {
  CheckedFile found;
  if (!open_file(kWriterLockFile, Access::kName, &found).ok() || !found.handle.is_open()) return Descriptor(-1);
  return Descriptor(::open(path_to_open(found.handle, kWriterLockFile).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

// lseek() locks the position in the file, which nothing depends on, in a process of several threads.
Status RegistryFiles::data_size(std::uint64_t* size, Askers askers) const {
  const off_t end = askers == Askers::kOne ? lseek(data_.handle.number(), 0, SEEK_END) : -1;
  if (end >= 0) {
    *size = static_cast<std::uint64_t>(end);
    return {};
  }
  struct statx found;
  if (statx(data_.handle.number(), "", AT_EMPTY_PATH, STATX_SIZE, &found) != 0) {
    const int error = errno;
    return lmdb_status(error, "cannot use " + quoted(path_of(kDataFile)));
  }
  *size = found.stx_size;
  return {};
}

bool RegistryFiles::are_own() const {
  struct stat found {};
  return fstat(data_.handle.number(), &found) == 0 && found.st_uid == geteuid();
}

}  // namespace tkv::store
