#include "store/lmdb/directory.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <system_error>

#include "base/descriptor.h"
#include "base/name_service.h"
#include "store/lmdb/error.h"
#include "store/lmdb/file.h"
#include "store/lmdb/file_system_type.h"

namespace tkv::store {
namespace {

std::string message_of(int error) { return std::generic_category().message(error); }

std::string quoted(const std::string& path) { return "'" + path + "'"; }

Status unusable(const std::string& path, const std::string& why) {
  return {PRTKV_STORAGE_FAILED, quoted(path) + " cannot hold a registry: " + why};
}

std::string parent_of(const std::string& directory) {
  const std::size_t end = directory.find_last_not_of('/');
  const std::size_t slash = directory.find_last_of('/', end);
  return slash == 0 || slash == std::string::npos ? "/" : directory.substr(0, slash);
}

Status check_access(const std::string& directory) {
  if (faccessat(AT_FDCWD, directory.c_str(), R_OK | W_OK | X_OK, AT_EACCESS) == 0) return {};
  const int error = errno;
  return lmdb_status(error, quoted(directory) + " is not writable");
}

Status check_file_system(const std::string& directory, FileSystemType type_of) {
  long type = 0;
  if (const int error = type_of(directory.c_str(), &type); error != 0)
    return lmdb_status(error, "cannot ask for the file system of " + quoted(directory));
  const FileSystem found = file_system_of_type(type);
  switch (found.kind) {
    case FileSystemKind::kLocal:
      return {};
    case FileSystemKind::kNetwork:
      return unusable(directory, std::string("it is on a network file system (") + found.name +
                                     "), where processes of several machines would damage it");
    case FileSystemKind::kPseudo:
      return unusable(directory,
                      std::string("it is on a pseudo file system (") + found.name + "), which keeps no files");
  }
  return {PRTKV_UNKNOWN, "a file system of an unknown kind"};
}

constexpr auto kAskTheSystem = [](const char* path, long* type) -> int {
  struct statfs status {};
  if (statfs(path, &status) != 0) return errno;
  *type = static_cast<long>(static_cast<unsigned int>(status.f_type));
  return 0;
};

enum class Presence { kAbsent, kPresent };

Status look_at(const std::string& directory, Presence* presence) {
  if (directory.empty() || directory.front() != '/')
    return {PRTKV_INVALID_ARGUMENT, quoted(directory) + " is not an absolute path"};
  if (directory.find('\0') != std::string::npos)
    return {PRTKV_INVALID_ARGUMENT, quoted(directory.c_str()) + " is followed by a NUL"};
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0) {
    const int error = errno;
    if (error != ENOENT) return lmdb_status(error, "cannot use " + quoted(directory));
    *presence = Presence::kAbsent;
    return {};
  }
  *presence = Presence::kPresent;
  return S_ISDIR(status.st_mode) ? Status() : unusable(directory, "it is not a directory");
}

Status check_parent(const std::string& directory) {
  const std::string parent = parent_of(directory);
  struct stat status {};
  if (stat(parent.c_str(), &status) != 0) {
    const int error = errno;
    return unusable(directory, "its parent " + quoted(parent) + ": " + message_of(error));
  }
  if (!S_ISDIR(status.st_mode)) return unusable(directory, "its parent " + quoted(parent) + " is not a directory");
  return {};
}

Status find_group(const std::string& name, std::optional<gid_t>* id) {
  if (name.empty()) return {};
  const auto ask = [&](group* entry, char* buffer, std::size_t size, group** found) {
    return getgrnam_r(name.c_str(), entry, buffer, size, found);
  };
  const int error = ask_name_service<group>(ask, [&](const group* found) {
    if (found != nullptr) *id = found->gr_gid;
  });
  if (*id) return {};
  return {PRTKV_INVALID_CONFIGURATION,
          "group '" + name + "' of the registry " + (error == 0 ? "does not exist" : message_of(error))};
}

enum class Kind { kDirectory, kFile };

// Gives a directory or file the mode, and the group when there is one. Asks and changes the very file that it has
// opened: whoever may write to a shared directory may put something else in its place at any time. The handle is one of
// no rights, whose closing leaves LMDB's locks on the file alone.
class Access {
 public:
  // A directory may be reached by a link; a file must be there itself.
  Access(const std::string& path, Kind kind)
      : path_(path), kind_(kind), handle_(open(path.c_str(), O_PATH | O_CLOEXEC | flags_of(kind))) {
    if (!handle_.is_open() || fstat(handle_.number(), &status_) != 0) error_ = errno;
  }

  Status check() const {
    if (error_ != 0) return lmdb_status(error_, "cannot use " + quoted(path_));
    const bool is_right = kind_ == Kind::kDirectory || S_ISREG(status_.st_mode);
    return is_right ? Status() : Status(PRTKV_STORAGE_FAILED, quoted(path_) + " is not a plain file");
  }

  bool is_ours_to_change() const {
    const uid_t user = geteuid();
    return user == 0 || user == status_.st_uid;
  }

  Status set(mode_t mode, std::optional<gid_t> group) const {
    if (group && status_.st_gid != *group &&
        fchownat(handle_.number(), "", static_cast<uid_t>(-1), *group, AT_EMPTY_PATH) != 0) {
      const int error = errno;
      return lmdb_status(error, "cannot give " + quoted(path_) + " to the registry's group");
    }
    // There is no fchmod for a handle without rights, but a name that leads to what it stands for.
    const std::string name = "/proc/self/fd/" + std::to_string(handle_.number());
    if ((status_.st_mode & 07777) != mode && chmod(name.c_str(), mode) != 0) {
      const int error = errno;
      return lmdb_status(error, "cannot set the mode of " + quoted(path_));
    }
    return {};
  }

 private:
  static int flags_of(Kind kind) { return kind == Kind::kDirectory ? O_DIRECTORY : O_NOFOLLOW; }

  const std::string path_;
  const Kind kind_;
  const Descriptor handle_;
  struct stat status_ {};
  int error_ = 0;
};

// Whose the directory and its files are, and what others may do with them.
struct Sharing {
  std::optional<gid_t> group;

  mode_t mode_of(Kind kind) const {
    if (kind == Kind::kDirectory) return group ? 02770 : 0700;
    return group ? 0660 : 0600;
  }
};

// For what this process has just made: the umask took away from its mode.
Status set_access(const std::string& path, Kind kind, const Sharing& sharing) {
  const Access access(path, kind);
  if (Status status = access.check(); !status.ok()) return status;
  return access.set(sharing.mode_of(kind), sharing.group);
}

// Shares what is there already with the group, when it is ours to share. What belongs to another user is his.
Status share(const std::string& path, Kind kind, const Sharing& sharing) {
  if (!sharing.group) return {};
  const Access access(path, kind);
  if (Status status = access.check(); !status.ok()) return status;
  return access.is_ours_to_change() ? access.set(sharing.mode_of(kind), sharing.group) : Status();
}

Status sync_directory(const std::string& directory) {
  const Descriptor handle(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!handle.is_open()) {
    const int error = errno;
    return lmdb_status(error, "cannot open " + quoted(directory));
  }
  const int error = fsync(handle.number()) == 0 ? 0 : errno;
  return lmdb_status(error, "cannot make the contents of " + quoted(directory) + " durable");
}

Status make_directory(const std::string& directory, const Sharing& sharing) {
  const int error = mkdir(directory.c_str(), 0700) == 0 ? 0 : errno;
  if (error != 0 && error != EEXIST) return lmdb_status(error, "cannot make the directory " + quoted(directory));
  if (error == 0) {
    if (Status status = set_access(directory, Kind::kDirectory, sharing); !status.ok()) return status;
  }
  // Another process that was faster may not have come this far yet.
  return sync_directory(parent_of(directory));
}

// Makes the directories above that are missing, and sees that they are where a registry can be.
Status make_parents(const std::string& directory) {
  const std::string parent = parent_of(directory);
  Presence presence = Presence::kAbsent;
  if (Status status = look_at(parent, &presence); !status.ok()) return status;
  if (presence == Presence::kPresent) return check_file_system(parent, kAskTheSystem);
  if (Status status = make_parents(parent); !status.ok()) return status;
  return make_directory(parent, Sharing{});
}

// A file that is made under a name of its own, and gets its real one when it is complete: whoever finds a file of that
// name finds a whole one, and of several processes one wins.
class FreshFile {
 public:
  explicit FreshFile(const std::string& target) : target_(target) {}
  ~FreshFile() {
    if (!path_.empty()) unlink(path_.c_str());
  }
  FreshFile(const FreshFile&) = delete;
  FreshFile& operator=(const FreshFile&) = delete;

  const std::string& path() const { return path_; }

  Status create(const Sharing& sharing) {
    std::uint64_t number = 0;
    if (getrandom(&number, sizeof number, 0) != sizeof number) return {PRTKV_UNKNOWN, "no random numbers to be had"};
    const std::string path = target_ + ".new-" + std::to_string(number);
    const Descriptor file(open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600));
    if (!file.is_open()) {
      const int error = errno;
      return lmdb_status(error, "cannot make the file " + quoted(path));
    }
    path_ = path;
    return set_access(path_, Kind::kFile, sharing);
  }

  Status publish() {
    if (link(path_.c_str(), target_.c_str()) != 0) {
      const int error = errno;
      if (error != EEXIST) return lmdb_status(error, "cannot make the file " + quoted(target_));
    }
    return {};
  }

 private:
  const std::string target_;
  std::string path_;
};

Status make_data_file(const LmdbOptions& options, const Sharing& sharing) {
  FreshFile file(data_file(options.directory));
  if (Status status = file.create(sharing); !status.ok()) return status;
  if (Status status = write_fresh_registry(file.path(), options.root_security); !status.ok()) return status;
  if (Status status = file.publish(); !status.ok()) return status;
  return sync_directory(options.directory);
}

// LMDB would make it with a mode that the umask has a say in.
Status make_lock_file(const std::string& directory, const Sharing& sharing) {
  FreshFile file(lock_file(directory));
  if (Status status = file.create(sharing); !status.ok()) return status;
  return file.publish();
}

Status provide_directory(const LmdbOptions& options, const Sharing& sharing) {
  Presence presence = Presence::kAbsent;
  if (Status status = look_at(options.directory, &presence); !status.ok()) return status;
  if (presence == Presence::kPresent) return check_file_system(options.directory, kAskTheSystem);
  if (!options.create || options.read_only) return unusable(options.directory, "it does not exist");
  if (options.create_parents) {
    if (Status status = make_parents(options.directory); !status.ok()) return status;
  } else {
    if (Status status = check_parent(options.directory); !status.ok()) return status;
    if (Status status = check_file_system(parent_of(options.directory), kAskTheSystem); !status.ok()) return status;
  }
  return make_directory(options.directory, sharing);
}

// A link in place of a file would let LMDB write to wherever it leads.
Status look_at_file(const std::string& path, Presence* presence) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    const int error = errno;
    if (error != ENOENT) return lmdb_status(error, "cannot use " + quoted(path));
    *presence = Presence::kAbsent;
    return {};
  }
  *presence = Presence::kPresent;
  return S_ISREG(status.st_mode) ? Status() : Status(PRTKV_STORAGE_FAILED, quoted(path) + " is not a plain file");
}

Status provide_data_file(const LmdbOptions& options, const Sharing& sharing) {
  const std::string file = data_file(options.directory);
  Presence presence = Presence::kAbsent;
  if (Status status = look_at_file(file, &presence); !status.ok()) return status;
  if (presence == Presence::kPresent) return inspect_data_file(file);
  if (!options.create || options.read_only)
    return {PRTKV_STORAGE_FAILED, "there is no registry in " + quoted(options.directory)};
  if (Status status = share(options.directory, Kind::kDirectory, sharing); !status.ok()) return status;
  if (Status status = make_data_file(options, sharing); !status.ok()) return status;
  return inspect_data_file(file);  // of several processes, another may have made it
}

Status provide_lock_file(const LmdbOptions& options, const Sharing& sharing) {
  const std::string file = lock_file(options.directory);
  Presence presence = Presence::kAbsent;
  if (Status status = look_at_file(file, &presence); !status.ok()) return status;
  if (presence == Presence::kPresent || options.read_only) return {};
  return make_lock_file(options.directory, sharing);
}

Status provide_files(const LmdbOptions& options, const Sharing& sharing) {
  if (Status status = provide_data_file(options, sharing); !status.ok()) return status;
  if (Status status = provide_lock_file(options, sharing); !status.ok()) return status;
  if (options.read_only) return {};
  for (const std::string& file : {data_file(options.directory), lock_file(options.directory)}) {
    if (Status status = share(file, Kind::kFile, sharing); !status.ok()) return status;
  }
  return share(options.directory, Kind::kDirectory, sharing);
}

}  // namespace

Status check_directory(const std::string& directory, FileSystemType type_of) {
  Presence presence = Presence::kAbsent;
  if (Status status = look_at(directory, &presence); !status.ok()) return status;
  if (presence == Presence::kAbsent) {
    if (Status status = check_parent(directory); !status.ok()) return status;
  }
  const std::string existing = presence == Presence::kPresent ? directory : parent_of(directory);
  if (Status status = check_access(existing); !status.ok()) return status;
  return check_file_system(existing, type_of);
}

Status check_lmdb_directory(const std::string& directory) { return check_directory(directory, kAskTheSystem); }

Status prepare_directory(const LmdbOptions& options) {
  Sharing sharing;
  if (Status status = find_group(options.group, &sharing.group); !status.ok()) return status;
  if (Status status = provide_directory(options, sharing); !status.ok()) return status;
  return provide_files(options, sharing);
}

std::string data_file(const std::string& directory) { return directory + "/data.mdb"; }
std::string lock_file(const std::string& directory) { return directory + "/lock.mdb"; }

}  // namespace tkv::store
