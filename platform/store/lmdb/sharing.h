// Sharing: who may use the directory and the files of an embedded registry.
#ifndef TKV_PLATFORM_STORE_LMDB_SHARING_H
#define TKV_PLATFORM_STORE_LMDB_SHARING_H

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/status.h"

namespace tkv::store {

// With a group, its members share the registry. The directory's sticky bit keeps them from removing each other's files.
struct Sharing {
  std::optional<gid_t> group;

  mode_t directory_mode() const { return group ? 03770 : 0700; }
  mode_t file_mode() const { return group ? 0660 : 0600; }
};

// An empty name means the owner alone. Returns PRTKV_INVALID_CONFIGURATION if there is no such group.
Status find_sharing(const std::string& group_name, Sharing* sharing);

// Gives a file or directory its group and mode through a descriptor opened for reading or writing. `path` is for the
// message only.
Status set_access(int descriptor, const std::string& path, const Sharing& sharing, mode_t mode);

}  // namespace tkv::store

#endif
