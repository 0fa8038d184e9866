// What LMDB's and the system's error codes mean to the registry.
#ifndef TKV_PLATFORM_STORE_LMDB_ERROR_H
#define TKV_PLATFORM_STORE_LMDB_ERROR_H

#include <string>

#include "status.h"

namespace tkv::store {

// Whether the file system took a small write just now.
enum class DiskRoom { kLeft, kExhausted };

// Translates an LMDB code or errno. `doing` begins the text ("cannot commit to '/srv/registry'"). LMDB reports a write
// that the disk had no room for as EIO, as it does a failing disk: `room` tells the two apart.
Status lmdb_status(int code, const std::string& doing, DiskRoom room = DiskRoom::kLeft);

// Asks the file system of `directory`, by writing a few bytes to a file without a name; only when the file system has
// no such files, by its count of free blocks.
DiskRoom disk_room(const char* directory);

}  // namespace tkv::store

#endif
