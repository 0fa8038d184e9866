// Classification of file systems: which of them can hold an embedded registry.
#ifndef TKV_PLATFORM_STORE_LMDB_FILE_SYSTEM_TYPE_H
#define TKV_PLATFORM_STORE_LMDB_FILE_SYSTEM_TYPE_H

namespace tkv::store {

enum class FileSystemKind {
  kLocal,    // used by this machine only, or unknown
  kNetwork,  // may be mounted by several machines
  kPseudo    // an interface to the kernel that stores no files
};

struct FileSystem {
  FileSystemKind kind = FileSystemKind::kLocal;
  const char* name = nullptr;  // for messages; null for local file systems
};

// Classifies the f_type of statfs.
//
// LMDB's locks and its map are shared memory, so all processes must run on one machine. FUSE counts as a network file
// system because there is no way to tell whether a remote server is behind it.
FileSystem file_system_of_type(long type);

}  // namespace tkv::store

#endif
