// The directory of an embedded registry: where it may be, and how it is created.
#ifndef TKV_PLATFORM_STORE_LMDB_DIRECTORY_H
#define TKV_PLATFORM_STORE_LMDB_DIRECTORY_H

#include <sys/stat.h>

#include <string>

#include "base/descriptor.h"
#include "base/function_ref.h"
#include "base/status.h"
#include "store/lmdb/options.h"
#include "store/lmdb/sharing.h"

namespace tkv::store {

// Stores the f_type of the file system that contains `path`. Returns 0 or an errno value.
using FileSystemType = FunctionRef<int(const char* path, long* type)>;

// The same as check_lmdb_directory, with `type_of` in place of statfs.
Status check_directory(const std::string& directory, const std::string& group, FileSystemType type_of);

// Opens the directory as an O_PATH descriptor, creating it if it is absent and the options allow it. `*found` is what
// it is like in the end.
//
// A directory qualifies if it is on a local file system and neither it nor its parent can be tampered with by others:
// it is owned by the caller or root, and others may not write to it unless its sticky bit is set. Group and others both
// count as others for the directory itself, only "other" for its parent. A directory that belongs to the group of
// `sharing` is exempt, unless everybody may write to it.
//
// With a group, an existing directory of that group is given mode 03770 if the caller is its owner or root, and an
// existing directory of another group is given to the group if it contains no registry yet.
Status open_directory(const LmdbOptions& options, const Sharing& sharing, Descriptor* directory, struct stat* found);

// True if users other than the caller and root may replace files in the directory.
bool is_exposed(const struct stat& directory);

// Makes the names in a directory durable. `path` is for the message only.
Status sync_directory(const Descriptor& directory, const std::string& path);

std::string data_file(const std::string& directory);

}  // namespace tkv::store

#endif
