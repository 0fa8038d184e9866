#include "lmdb_directory.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "lmdb_error.h"
#include "lmdb_file.h"

namespace tkv::store {
namespace {

struct NetworkFileSystem {
  long type;
  const char* name;
};

// Numbers from the kernel's and the makers' own headers; those of file systems outside the kernel have no header here.
constexpr NetworkFileSystem kNetworkFileSystems[] = {
    {0x6969, "NFS"},
    {0x517B, "SMB"},
    {0xFF534D42L, "CIFS"},
    {0xFE534D42L, "SMB2"},
    {0x5346414FL, "AFS"},
    {0x6B414653L, "AFS"},
    {0x73757245L, "Coda"},
    {0x564C, "NCP"},
    {0x00C36400L, "Ceph"},
    {0x0BD00BD0L, "Lustre"},
    {0x47504653L, "GPFS"},
    {0x01161970L, "GFS2"},
    {0x7461636FL, "OCFS2"},
    {0x20030528L, "OrangeFS"},
    {0x19830326L, "BeeGFS"},
    {0xAAD7AAEAL, "PanFS"},
    {0x01021997L, "9P"},
    {0x65735546L, "FUSE"},
    {0x786F4256L, "a shared folder of a virtual machine"},
    {0xBACBACBCL, "a shared folder of a virtual machine"},
};

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

Status check_local(const std::string& directory, FileSystemType type_of) {
  long type = 0;
  if (const int error = type_of(directory.c_str(), &type); error != 0)
    return lmdb_status(error, "cannot ask for the file system of " + quoted(directory));
  const char* const name = network_file_system(type);
  if (name == nullptr) return {};
  return unusable(directory, std::string("it is on a network file system (") + name +
                                 "), where processes of several machines would damage it");
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
    return unusable(directory, "its parent " + quoted(parent) + ": " + std::strerror(error));
  }
  if (!S_ISDIR(status.st_mode)) return unusable(directory, "its parent " + quoted(parent) + " is not a directory");
  return {};
}

Status find_group(const std::string& name, std::optional<gid_t>* group) {
  if (name.empty()) return {};
  std::vector<char> buffer(1024);
  struct group entry {};
  struct group* found = nullptr;
  int error = 0;
  while ((error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE)
    buffer.resize(buffer.size() * 2);
  if (found == nullptr) {
    return {PRTKV_INVALID_CONFIGURATION,
            "group '" + name + "' of the registry " + (error == 0 ? "does not exist" : std::strerror(error))};
  }
  *group = entry.gr_gid;
  return {};
}

// Whose the files are, and what others may do with them.
struct Sharing {
  std::optional<gid_t> group;
  mode_t directory_mode() const { return group ? 02770 : 0700; }
  mode_t file_mode() const { return group ? 0660 : 0600; }
};

// Gives a path to the group, when it is ours to give. What belongs to another user is his to share.
Status share(const std::string& path, const Sharing& sharing, mode_t mode) {
  if (!sharing.group) return {};
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    const int error = errno;
    return lmdb_status(error, "cannot use " + quoted(path));
  }
  const uid_t user = geteuid();
  if (user != 0 && user != status.st_uid) return {};
  if (status.st_gid != *sharing.group && chown(path.c_str(), static_cast<uid_t>(-1), *sharing.group) != 0) {
    const int error = errno;
    return lmdb_status(error, "cannot give " + quoted(path) + " to the registry's group");
  }
  if ((status.st_mode & 07777) != mode && chmod(path.c_str(), mode) != 0) {
    const int error = errno;
    return lmdb_status(error, "cannot give the group access to " + quoted(path));
  }
  return {};
}

Status sync_directory(const std::string& directory) {
  const int handle = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (handle < 0) {
    const int error = errno;
    return lmdb_status(error, "cannot open " + quoted(directory));
  }
  const int error = fsync(handle) == 0 ? 0 : errno;
  close(handle);
  return lmdb_status(error, "cannot make the contents of " + quoted(directory) + " durable");
}

Status make_directory(const std::string& directory, const Sharing& sharing) {
  if (mkdir(directory.c_str(), 0700) != 0) {
    const int error = errno;
    if (error == EEXIST) return {};  // another process was faster
    return lmdb_status(error, "cannot make the directory " + quoted(directory));
  }
  if (chmod(directory.c_str(), 0700) != 0) {  // whatever the umask took away
    const int error = errno;
    return lmdb_status(error, "cannot set the mode of " + quoted(directory));
  }
  if (Status status = share(directory, sharing, sharing.directory_mode()); !status.ok()) return status;
  return sync_directory(parent_of(directory));
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
    const int file = open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
    if (file < 0) {
      const int error = errno;
      return lmdb_status(error, "cannot make the file " + quoted(path));
    }
    close(file);
    path_ = path;
    return share(path_, sharing, sharing.file_mode());
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

bool exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

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
  if (presence == Presence::kPresent) return check_local(options.directory, kAskTheSystem);
  if (!options.create || options.read_only) return unusable(options.directory, "it does not exist");
  if (Status status = check_parent(options.directory); !status.ok()) return status;
  if (Status status = check_local(parent_of(options.directory), kAskTheSystem); !status.ok()) return status;
  return make_directory(options.directory, sharing);
}

Status provide_files(const LmdbOptions& options, const Sharing& sharing) {
  const std::string data = data_file(options.directory);
  const std::string lock = lock_file(options.directory);
  if (!exists(data)) {
    if (!options.create || options.read_only)
      return {PRTKV_STORAGE_FAILED, "there is no registry in " + quoted(options.directory)};
    if (Status status = share(options.directory, sharing, sharing.directory_mode()); !status.ok()) return status;
    if (Status status = make_data_file(options, sharing); !status.ok()) return status;
  }
  if (Status status = inspect_data_file(data); !status.ok()) return status;
  if (!exists(lock) && !options.read_only) {
    if (Status status = make_lock_file(options.directory, sharing); !status.ok()) return status;
  }
  for (const std::string& file : {data, lock}) {
    if (!exists(file)) continue;
    if (Status status = share(file, sharing, sharing.file_mode()); !status.ok()) return status;
  }
  return share(options.directory, sharing, sharing.directory_mode());
}

}  // namespace

const char* network_file_system(long type) {
  for (const NetworkFileSystem& known : kNetworkFileSystems)
    if (known.type == type) return known.name;
  return nullptr;
}

Status check_directory(const std::string& directory, FileSystemType type_of) {
  Presence presence = Presence::kAbsent;
  if (Status status = look_at(directory, &presence); !status.ok()) return status;
  if (presence == Presence::kAbsent) {
    if (Status status = check_parent(directory); !status.ok()) return status;
  }
  const std::string existing = presence == Presence::kPresent ? directory : parent_of(directory);
  if (Status status = check_access(existing); !status.ok()) return status;
  return check_local(existing, type_of);
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
