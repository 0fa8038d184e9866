// The directory and the files of an embedded registry, before LMDB opens them.
#ifndef TKV_PLATFORM_STORE_LMDB_DIRECTORY_H
#define TKV_PLATFORM_STORE_LMDB_DIRECTORY_H

#include <string>

#include "base/function_ref.h"
#include "base/status.h"
#include "store/lmdb/lmdb_store.h"

namespace tkv::store {

// Gives the f_type of the file system that holds a path: 0, or an errno.
using FileSystemType = FunctionRef<int(const char* path, long* type)>;

// As check_lmdb_directory, with the file system's type from `type_of`.
Status check_directory(const std::string& directory, FileSystemType type_of);

// Makes the directory ready for LMDB to open: it is there, it is local, it holds a registry's file (a fresh one when
// there was none and options.create allows it) and its lock file, both with the modes that the options ask for. What
// is there already is never overwritten. Several processes may do this at once.
Status prepare_directory(const LmdbOptions& options);

std::string data_file(const std::string& directory);
std::string lock_file(const std::string& directory);

}  // namespace tkv::store

#endif
