#include "base/file_trust.h"

#include <unistd.h>

namespace tkv {

std::string reason_for_distrust(const struct stat& file) {
  if (::geteuid() != 0) return "";
  if (file.st_uid != 0) return "it belongs to user " + std::to_string(file.st_uid) + ", not to root";
  const bool group_writes = (file.st_mode & S_IWGRP) != 0 && file.st_gid != 0;
  return group_writes || (file.st_mode & S_IWOTH) != 0 ? "users other than root can write to it" : "";
}

}  // namespace tkv
