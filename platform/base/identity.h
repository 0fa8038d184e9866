// Identity: the user and the groups on whose behalf a session acts.
#ifndef TKV_PLATFORM_BASE_IDENTITY_H
#define TKV_PLATFORM_BASE_IDENTITY_H

#include <optional>
#include <string>
#include <vector>

#include "base/name_service.h"
#include "base/status.h"

namespace tkv {

// Users and groups are identified by name. One that has no name is identified by its number ("54321"), as is usual in a
// container, where a process may run under a user id that no account has.
struct Identity {
  std::string user;                 // the effective user
  std::vector<std::string> groups;  // all groups, the effective one first
  bool superuser = false;           // uid 0: may do everything

  const std::string& group() const;  // the effective group, "" if there is none
};

// Reads the identity of the process: its effective user, and its effective and supplementary groups. Returns
// PRTKV_UNKNOWN with the reason if the name service fails; `*identity` is then unchanged. Any thread may call.
Status identity_of_process(Identity* identity, const NameService& service = NameService::system());

// Reads the identity that a user would have, with all groups that the system's records give the user. `user` is a name
// or a number; a number that no account has stands for a user without a name and without known groups. Succeeds with an
// empty `*identity` if there is no such user. Returns PRTKV_UNKNOWN with the reason if the name service fails. Any
// thread may call.
Status identity_of_user(const std::string& user, std::optional<Identity>* identity,
                        const NameService& service = NameService::system());

}  // namespace tkv

#endif
