#include "store/lmdb/directory.h"

#include <fcntl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "store/lmdb/error.h"
#include "store/lmdb/file_system_type.h"
#include "store/lmdb/lmdb_store.h"

namespace tkv::store {
namespace {

std::string message_of(int error) { return std::generic_category().message(error); }

std::string quoted(const std::string& path) { return "'" + path + "'"; }

Status unusable(const std::string& path, const std::string& why) {
  return {PRTKV_UNUSABLE, quoted(path) + " cannot hold a registry: " + why};
}

std::size_t last_slash(const std::string& directory) {
  return directory.find_last_of('/', directory.find_last_not_of('/'));
}

std::string parent_of(const std::string& directory) {
  const std::size_t slash = last_slash(directory);
  return slash == 0 || slash == std::string::npos ? "/" : directory.substr(0, slash);
}

std::string name_of(const std::string& directory) {
  const std::size_t begin = last_slash(directory) + 1;
  return directory.substr(begin, directory.find_last_not_of('/') + 1 - begin);
}

Status check_access(const std::string& directory) {
  if (faccessat(AT_FDCWD, directory.c_str(), R_OK | W_OK | X_OK, AT_EACCESS) == 0) return {};
  const int error = errno;
  return lmdb_status(error, quoted(directory) + " is not writable");
}

Status check_file_system(const std::string& directory, FileSystemType type_of) {
  long type = 0;
  if (const int error = type_of(directory.c_str(), &type); error != 0) {
    return lmdb_status(error, "cannot determine the file system of " + quoted(directory));
  }
  const FileSystem found = file_system_of_type(type);
  switch (found.kind) {
    case FileSystemKind::kLocal:
      return {};
    case FileSystemKind::kNetwork:
      return unusable(
          directory,
          std::string("it is on a network file system (") + found.name +
              "), where processes on several machines would damage it; set `location` to a directory on a local disk");
    case FileSystemKind::kPseudo:
      return unusable(directory, std::string("it is on a pseudo file system (") + found.name +
                                     "), which stores no files; set `location` to a directory on a disk");
  }
  return {PRTKV_UNKNOWN, "unknown kind of file system"};
}

template <typename Ask>
int file_system_type(long* type, Ask ask) {
  struct statfs found {};
  if (ask(&found) != 0) return errno;
  *type = static_cast<long>(static_cast<unsigned int>(found.f_type));
  return 0;
}

constexpr auto kStatfs = [](const char* path, long* type) {
  return file_system_type(type, [&](struct statfs* found) { return statfs(path, found); });
};

Status check_path(const std::string& directory) {
  if (directory.empty() || directory.front() != '/') {
    return {PRTKV_INVALID_ARGUMENT, quoted(directory) + " is not an absolute path"};
  }
  if (directory.find('\0') != std::string::npos) {
    return {PRTKV_INVALID_ARGUMENT, quoted(directory.c_str()) + " is followed by a NUL"};
  }
  return {};
}

// Opens a directory, which may be reached through a symbolic link. Leaves `*opened` closed if it does not exist.
Status open_existing(const std::string& directory, Descriptor* opened) {
  if (Status status = check_path(directory); !status.ok()) return status;
  Descriptor found(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const int error = found.is_open() ? 0 : errno;
  if (error == ENOENT) return {};
  struct stat status {};
  if (error == ENOTDIR && stat(directory.c_str(), &status) == 0) {
    return unusable(directory, "it is not a directory; move it aside, or set `location` to a directory");
  }
  if (error == ENOTDIR) {
    return {PRTKV_UNUSABLE,
            "cannot use " + quoted(directory) + ": " + message_of(error) + "; set `location` to another directory"};
  }
  if (error != 0) return lmdb_status(error, "cannot use " + quoted(directory));
  *opened = std::move(found);
  return {};
}

Status parent_unusable(const std::string& directory, int error) {
  const std::string parent = parent_of(directory);
  if (error == EACCES) return lmdb_status(error, "cannot use " + quoted(parent));
  if (error == ENOENT) {
    return unusable(directory, "its parent " + quoted(parent) + " does not exist; type: mkdir -p " + quoted(parent));
  }
  return unusable(directory,
                  "its parent " + quoted(parent) + ": " + message_of(error) + "; set `location` to another directory");
}

Status open_parent(const std::string& directory, Descriptor* opened) {
  *opened = Descriptor(open(parent_of(directory).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (opened->is_open()) return {};
  const int error = errno;
  return parent_unusable(directory, error);
}

Status look_at(const Descriptor& opened, const std::string& path, struct stat* found) {
  if (fstat(opened.number(), found) == 0) return {};
  const int error = errno;
  return lmdb_status(error, "cannot use " + quoted(path));
}

enum class Role { kItself, kParent };

// The directory at `checked` is the location `directory` itself or its parent.
Status check_trust(const std::string& directory, Role role, const std::string& checked, const struct stat& found,
                   const Sharing& sharing) {
  if (sharing.group && found.st_gid == *sharing.group && (found.st_mode & S_IWOTH) == 0) return {};
  const std::string subject = role == Role::kItself ? "it" : "its parent " + quoted(checked);
  if (found.st_uid != 0 && found.st_uid != geteuid()) {
    return unusable(directory, subject + " belongs to another user (" + std::to_string(found.st_uid) +
                                   "), who could replace the registry; act as that user, choose another location, or "
                                   "set `group` to the group that the directory belongs to");
  }
  const mode_t others = role == Role::kItself ? S_IWGRP | S_IWOTH : S_IWOTH;
  if ((found.st_mode & others) == 0 || (found.st_mode & S_ISVTX) != 0) return {};
  return unusable(directory, subject +
                                 " can be written to by other users, who could replace the registry; type: "
                                 "chmod go-w " +
                                 quoted(checked) + ", or set `group` to the group that shares the registry");
}

Status check_parent_trust(const std::string& directory, const Sharing& sharing) {
  const std::string parent = parent_of(directory);
  struct stat found {};
  int error = stat(parent.c_str(), &found) == 0 ? 0 : errno;
  if (error == 0 && !S_ISDIR(found.st_mode)) error = ENOTDIR;
  if (error != 0) return parent_unusable(directory, error);
  return check_trust(directory, Role::kParent, parent, found, sharing);
}

// Behind a symbolic link, the directory's own parent counts as well as that of the link.
Status check_location(const std::string& directory, const Descriptor& opened, const Sharing& sharing,
                      struct stat* found) {
  struct stat above {};
  if (Status status = look_at(opened, directory, found); !status.ok()) return status;
  if (Status status = check_trust(directory, Role::kItself, directory, *found, sharing); !status.ok()) return status;
  if (fstatat(opened.number(), "..", &above, 0) == 0) {
    if (Status status = check_trust(directory, Role::kParent, directory + "/..", above, sharing); !status.ok()) {
      return status;
    }
  }
  return check_parent_trust(directory, sharing);
}

Status reopen(const Descriptor& directory, const std::string& path, Descriptor* readable) {
  *readable = Descriptor(openat(directory.number(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (readable->is_open()) return {};
  const int error = errno;
  return lmdb_status(error, "cannot open " + quoted(path));
}

Status share(const Descriptor& directory, const std::string& path, const Sharing& sharing) {
  Descriptor readable(-1);
  if (Status status = reopen(directory, path, &readable); !status.ok()) return status;
  return set_access(readable.number(), path, sharing, sharing.directory_mode());
}

// `*found` is what the directory is like before and, on success, after that.
Status share_existing(const Descriptor& directory, const LmdbOptions& options, const Sharing& sharing,
                      struct stat* found) {
  if (!sharing.group || options.read_only) return {};
  const bool is_ours = geteuid() == 0 || geteuid() == found->st_uid;
  const bool is_done = found->st_gid == *sharing.group && (found->st_mode & 07777) == sharing.directory_mode();
  if (is_done || !is_ours) return {};
  struct stat data {};
  const bool holds_registry = fstatat(directory.number(), "data.mdb", &data, AT_SYMLINK_NOFOLLOW) == 0;
  if (found->st_gid != *sharing.group && holds_registry) {
    const std::string& path = options.directory;
    return unusable(path, "it does not belong to the group '" + options.group +
                              "'. To share the registry with the group, type: chgrp " + options.group + " '" + path +
                              "' '" + path + "'/*.mdb && chmod 3770 '" + path + "' && chmod 660 '" + path + "'/*.mdb");
  }
  Status status = share(directory, options.directory, sharing);
  return status.ok() ? look_at(directory, options.directory, found) : status;
}

// The parent is an open descriptor, so that nobody can exchange it between the check of the parent and the creation.
Status create_directory(const std::string& directory, const Sharing& sharing, Descriptor* created) {
  Descriptor parent(-1);
  struct stat found {};
  if (Status status = open_parent(directory, &parent); !status.ok()) return status;
  if (Status status = look_at(parent, parent_of(directory), &found); !status.ok()) return status;
  if (Status status = check_trust(directory, Role::kParent, parent_of(directory), found, sharing); !status.ok()) {
    return status;
  }
  const std::string name = name_of(directory);
  const int error = mkdirat(parent.number(), name.c_str(), 0700) == 0 ? 0 : errno;
  if (error != 0 && error != EEXIST) return lmdb_status(error, "cannot create the directory " + quoted(directory));
  Descriptor opened(openat(parent.number(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!opened.is_open()) {
    const int open_error = errno;
    return lmdb_status(open_error, "cannot open " + quoted(directory));
  }
  // If another process created it, its mode and its durability are that process's business, but it may not be done yet.
  if (error == 0) {
    if (Status status = share(opened, directory, sharing); !status.ok()) return status;
  }
  *created = std::move(opened);
  return sync_directory(parent, parent_of(directory));
}

Status create_parents(const std::string& directory) {
  const std::string parent = parent_of(directory);
  Descriptor opened(-1);
  if (Status status = open_existing(parent, &opened); !status.ok()) return status;
  if (opened.is_open()) return check_file_system(parent, kStatfs);
  if (Status status = create_parents(parent); !status.ok()) return status;
  return create_directory(parent, Sharing{}, &opened);
}

Status check_creation(const LmdbOptions& options) {
  if (!options.create || options.read_only) return unusable(options.directory, "it does not exist");
  if (options.create_parents) return create_parents(options.directory);
  Descriptor parent(-1);
  if (Status status = open_parent(options.directory, &parent); !status.ok()) return status;
  return check_file_system(parent_of(options.directory), kStatfs);
}

}  // namespace

bool is_exposed(const struct stat& directory) {
  const bool is_foreign = directory.st_uid != 0 && directory.st_uid != geteuid();
  return is_foreign || (directory.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

Status sync_directory(const Descriptor& directory, const std::string& path) {
  Descriptor readable(-1);
  if (Status status = reopen(directory, path, &readable); !status.ok()) return status;
  const int error = fsync(readable.number()) == 0 ? 0 : errno;
  return lmdb_status(error, "cannot make the contents of " + quoted(path) + " durable");
}

Status check_directory(const std::string& directory, const std::string& group, FileSystemType type_of) {
  Sharing sharing;
  Descriptor opened(-1);
  struct stat found {};
  if (Status status = find_sharing(group, &sharing); !status.ok()) return status;
  if (Status status = open_existing(directory, &opened); !status.ok()) return status;
  if (Status status = opened.is_open() ? check_location(directory, opened, sharing, &found)
                                       : check_parent_trust(directory, sharing);
      !status.ok()) {
    return status;
  }
  const std::string existing = opened.is_open() ? directory : parent_of(directory);
  if (Status status = check_access(existing); !status.ok()) return status;
  return check_file_system(existing, type_of);
}

Status check_lmdb_directory(const std::string& directory, const std::string& group) {
  return check_directory(directory, group, kStatfs);
}

Status open_directory(const LmdbOptions& options, const Sharing& sharing, Descriptor* directory, struct stat* found) {
  Descriptor opened(-1);
  if (Status status = open_existing(options.directory, &opened); !status.ok()) return status;
  if (opened.is_open()) {
    const auto type_of_opened = [&](const char*, long* type) {
      return file_system_type(type, [&](struct statfs* system) { return fstatfs(opened.number(), system); });
    };
    if (Status status = check_file_system(options.directory, type_of_opened); !status.ok()) return status;
    if (Status status = check_location(options.directory, opened, sharing, found); !status.ok()) return status;
    if (Status status = share_existing(opened, options, sharing, found); !status.ok()) return status;
  } else {
    if (Status status = check_creation(options); !status.ok()) return status;
    if (Status status = create_directory(options.directory, sharing, &opened); !status.ok()) return status;
    if (Status status = check_location(options.directory, opened, sharing, found); !status.ok()) return status;
  }
  *directory = std::move(opened);
  return {};
}

std::string data_file(const std::string& directory) { return directory + "/data.mdb"; }

}  // namespace tkv::store
