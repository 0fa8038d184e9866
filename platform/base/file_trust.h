// Files that root takes instructions from: configuration files and modules.
#ifndef TKV_PLATFORM_BASE_FILE_TRUST_H
#define TKV_PLATFORM_BASE_FILE_TRUST_H

#include <sys/stat.h>

#include <string>

namespace tkv {

// Returns why a file or directory must not be relied upon when this process runs as root, or "" if it may be: users
// other than root own it or can write to it. Always returns "" for other users. Any thread may call.
std::string reason_for_distrust(const struct stat& file);

}  // namespace tkv

#endif
