// Identity: on whose behalf a session acts.
#ifndef TKV_PLATFORM_BASE_IDENTITY_H
#define TKV_PLATFORM_BASE_IDENTITY_H

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "base/status.h"
#include "sec_attr.h"

namespace tkv::registry {

struct Identity {
  std::string user;                 // name of the effective user
  std::vector<std::string> groups;  // names of all groups, the effective one first
  bool superuser = false;           // may do everything

  const std::string& group() const;  // the effective group's name, "" when there is none
};

// The calls that an identity is made of, for tests to stand in for the system.
struct IdentityCalls {
  uid_t (*effective_user)() = nullptr;
  gid_t (*effective_group)() = nullptr;
  int (*groups)(int size, gid_t list[]) = nullptr;
  int (*user_by_id)(uid_t, passwd*, char* buffer, std::size_t size, passwd** found) = nullptr;
  int (*group_by_id)(gid_t, group*, char* buffer, std::size_t size, group** found) = nullptr;

  static const IdentityCalls& system();
};

// Reads the identity of the process: effective user, effective and supplementary groups, by the system's name service.
// A user or group that has no name goes by its number, as in the listings of the system. Uid 0 is the superuser. 14
// when the name service fails, with its reason. Any thread may call.
Status identity_of_process(Identity* identity, const IdentityCalls& calls = IdentityCalls::system());

// The security record that this system gives keys for which nobody asked for another: they belong to the identity, and
// others may read and list them.
sec_attr default_security(const Identity& identity);

// Puts a name into a record's field of TKV_NAME_SIZE bytes, zero-filled. 8 when it is longer.
Status set_user(sec_attr* security, const std::string& name);
Status set_group(sec_attr* security, const std::string& name);

}  // namespace tkv::registry

#endif
