#include "store/lmdb/sharing.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "base/name_service.h"
#include "store/lmdb/error.h"

namespace tkv::store {

Status find_sharing(const std::string& group_name, Sharing* sharing) {
  sharing->group.reset();
  if (group_name.empty()) return {};
  const auto ask = [&](group* entry, char* buffer, std::size_t size, group** found) {
    return getgrnam_r(group_name.c_str(), entry, buffer, size, found);
  };
  const int error = ask_name_service<group>(ask, [&](const group* found) {
    if (found != nullptr) sharing->group = found->gr_gid;
  });
  if (sharing->group) return {};
  const std::string reason =
      error == 0 ? "does not exist; type: groupadd --system '" + group_name + "', or set `group` to one that exists"
                 : std::generic_category().message(error);
  return {PRTKV_INVALID_CONFIGURATION, "group '" + group_name + "' of the registry " + reason};
}

Status set_access(int descriptor, const std::string& path, const Sharing& sharing, mode_t mode) {
  struct stat status {};
  int error = fstat(descriptor, &status) == 0 ? 0 : errno;
  if (error == 0 && sharing.group && status.st_gid != *sharing.group &&
      fchown(descriptor, static_cast<uid_t>(-1), *sharing.group) != 0) {
    error = errno;
    return lmdb_status(error, "cannot give '" + path + "' to the registry's group");
  }
  // Changing the group may have cleared the set-group-ID bit.
  if (error == 0 && fchmod(descriptor, mode) != 0) error = errno;
  return lmdb_status(error, "cannot set the mode of '" + path + "'");
}

}  // namespace tkv::store
