// RegistryFiles: the files of an embedded registry, created if necessary, checked, and held open by identity.
//
// In a directory that others may write to, a file can be replaced at any time. Every file is therefore opened relative
// to the directory's descriptor without following links, and then checked: it must be a regular file with a single name
// that belongs to the caller, root, the directory's owner or the registry's group. What LMDB opens is the very file
// that was checked. Mode and group are changed only on files that this process has just created.
//
// A process loses its POSIX locks on a file when it closes any descriptor of that file. LMDB holds such locks on the
// lock file only, which is therefore held by a descriptor without access rights (O_PATH): closing that one releases
// nothing. The data file carries no locks; it is held by a descriptor that can read it. The objects are immutable; any
// thread may use them.
//
// What every transaction asks about the files, are_in_place() and data_size(), does not ask for their times (statx).
// Linux gives a file whose times were read a new time at the next write, and a file system without a journal then
// writes the inode, too, in the next synchronous write. lseek() does not read them either.
#ifndef TKV_PLATFORM_STORE_LMDB_REGISTRY_FILES_H
#define TKV_PLATFORM_STORE_LMDB_REGISTRY_FILES_H

#include <lmdb.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "base/descriptor.h"
#include "base/function_ref.h"
#include "base/status.h"
#include "store/lmdb/options.h"
#include "store/lmdb/sharing.h"

namespace tkv::store {

// Identifies a file or directory for as long as it exists.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileIdentity&) const = default;
};

class RegistryFiles {
 public:
  // Opens the directory and the files of a registry, and creates what is absent if the options allow it: the directory,
  // the data file with a fresh registry, the lock file. Nothing that exists is overwritten. Any number of processes may
  // do this at once.
  static Status open(const LmdbOptions& options, std::unique_ptr<const RegistryFiles>* files);

  RegistryFiles(const RegistryFiles&) = delete;
  RegistryFiles& operator=(const RegistryFiles&) = delete;

  const FileIdentity& directory() const { return directory_identity_; }
  const FileIdentity& data() const { return data_.identity; }
  const FileIdentity& lock() const { return lock_.identity; }  // all zero if a read-only file system lacks the file

  // True if the paths of the data file and of the lock file still lead to these files.
  bool are_in_place() const;

  // Allocates the disk space of the lock file, so that a full disk cannot interrupt a process that writes to its map,
  // and makes sure that it is a lock file. The process must not have the registry open: this would release its locks.
  Status prepare_lock_file() const;

  // Calls mdb_env_open for exactly these files.
  Status open_environment(MDB_env* env, unsigned flags) const;

  // Opens the file of the writers' lock for reading and writing, and creates it if it is absent.
  Status open_writer_lock(Descriptor* file) const;

  // Opens the same file to read the times of commits. Not open if there is no such file, or it may not be read.
  Descriptor open_commit_times() const;

  const std::string& path() const { return path_; }  // of the directory
  int data_file() const { return data_.handle.number(); }

  // The size of the data file in bytes. A single thread that asks has the answer in less than half of the time, but
  // threads that use this way at once wait for one another.
  enum class Askers { kAny, kOne };
  Status data_size(std::uint64_t* size, Askers askers = Askers::kAny) const;

  // Tells whether the data file belongs to the process's effective user.
  bool are_own() const;

 private:
  enum class Access { kName, kRead };  // what a descriptor is for: to name the file only, or to read it as well

  // A file as it was found and checked when it was opened.
  struct CheckedFile {
    Descriptor handle{-1};
    bool can_be_read = false;  // by the descriptor
    FileIdentity identity;
    off_t size = 0;
    off_t allocated = 0;  // bytes on the disk
  };

  explicit RegistryFiles(const LmdbOptions& options);

  Status open_files(const LmdbOptions& options, const struct stat& directory);
  Status open_file(const char* name, Access access, CheckedFile* file) const;
  Status check_file(const char* name, const struct stat& file) const;
  Status open_data_file(const LmdbOptions& options);
  Status open_lock_file(bool read_only);
  Status inspect_data() const;
  Status create(const char* name, FunctionRef<Status(const Descriptor& file)> fill) const;
  Status create_temporary(const std::string& temporary, FunctionRef<Status(const Descriptor& file)> fill) const;
  Status rename_temporary(const std::string& temporary, const char* name) const;
  std::string path_of(const std::string& name) const { return path_ + "/" + name; }
  std::string path_to_open(const Descriptor& file, const std::string& name) const;

  const std::string path_;
  const std::string data_path_;
  const std::string lock_path_;
  Sharing sharing_;
  bool exposed_ = false;  // others may replace files in the directory
  uid_t owner_ = 0;       // of the directory
  Descriptor handle_{-1};
  FileIdentity directory_identity_;
  CheckedFile data_;
  CheckedFile lock_;
};

}  // namespace tkv::store

#endif
