#include "store/lmdb/link_directory.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include "store/lmdb/error.h"

namespace tkv::store {
namespace {

constexpr const char* kParents[] = {"/dev/shm", "/tmp", "/var/tmp"};

int link_to(const Descriptor& file, const Descriptor& directory, const char* name) {
  const std::string target = "/proc/self/fd/" + std::to_string(file.number());
  return symlinkat(target.c_str(), directory.number(), name) == 0 ? 0 : errno;
}

}  // namespace

LinkDirectory::~LinkDirectory() {
  if (handle_.is_open()) {
    unlinkat(handle_.number(), "data.mdb", 0);
    unlinkat(handle_.number(), "lock.mdb", 0);
  }
  if (!created_.empty()) rmdir(created_.c_str());
}

// The parent may belong to others. Everything after the creation goes through the descriptor, which is ours for
// certain.
bool LinkDirectory::create_below(const char* parent) {
  std::string path = std::string(parent) + "/tkv-open-XXXXXX";
  if (mkdtemp(path.data()) == nullptr) return false;
  created_ = path;
  handle_ = Descriptor(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  return handle_.is_open() && fstat(handle_.number(), &status) == 0 && status.st_uid == geteuid() &&
         (status.st_mode & 077) == 0;
}

Status LinkDirectory::create(const Descriptor& data, const Descriptor& lock) {
  for (const char* parent : kParents) {
    if (!create_below(parent)) continue;
    int error = link_to(data, handle_, "data.mdb");
    if (error == 0) error = link_to(lock, handle_, "lock.mdb");
    return lmdb_status(error, "cannot create links in '" + created_ + "'");
  }
  return {PRTKV_UNUSABLE,
          "a registry whose directory others may write to is opened by way of a temporary directory, and none can be "
          "created in /dev/shm, /tmp or /var/tmp; let every user create files in one of them (chmod 1777)"};
}

}  // namespace tkv::store
