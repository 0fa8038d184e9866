// Which kinds of file systems there are, as far as an embedded registry is concerned.
#ifndef TKV_PLATFORM_STORE_LMDB_FILE_SYSTEM_TYPE_H
#define TKV_PLATFORM_STORE_LMDB_FILE_SYSTEM_TYPE_H

namespace tkv::store {

enum class FileSystemKind {
  kLocal,    // of this machine, or not known to be anything else
  kNetwork,  // several machines may be at it
  kPseudo    // the kernel's own view of itself, where nobody's files are kept
};

struct FileSystem {
  FileSystemKind kind = FileSystemKind::kLocal;
  const char* name = nullptr;  // as people call it; null for local ones
};

// What a number of statfs's f_type stands for.
//
// LMDB's locks and its map are memory that processes share, which they only do on one machine. FUSE is among the
// network file systems because nothing tells whether a server stands behind it.
FileSystem file_system_of_type(long type);

}  // namespace tkv::store

#endif
