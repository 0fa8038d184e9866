// LinkDirectory: a private directory in which LMDB finds given open files under the names that it expects.
//
// LMDB opens files by path only and follows symbolic links. A path in a directory that others may write to could lead
// to another file by the time LMDB opens it. The links in this directory, which belongs to the caller alone, lead to
// the open files themselves (/proc/self/fd).
#ifndef TKV_PLATFORM_STORE_LMDB_LINK_DIRECTORY_H
#define TKV_PLATFORM_STORE_LMDB_LINK_DIRECTORY_H

#include <string>

#include "base/descriptor.h"
#include "base/status.h"

namespace tkv::store {

class LinkDirectory {
 public:
  LinkDirectory() = default;
  ~LinkDirectory();  // removes the directory
  LinkDirectory(const LinkDirectory&) = delete;
  LinkDirectory& operator=(const LinkDirectory&) = delete;

  // Called once. Returns PRTKV_UNUSABLE if there is no place for a temporary directory.
  Status create(const Descriptor& data, const Descriptor& lock);

  // Valid as long as this object exists.
  std::string path() const { return "/proc/self/fd/" + std::to_string(handle_.number()); }

 private:
  bool create_below(const char* parent);

  std::string created_;
  Descriptor handle_{-1};
};

}  // namespace tkv::store

#endif
