// The identity that a user of this machine would have, for asking what it may do.
#ifndef TKV_TOOLS_TKV_USER_IDENTITY_H
#define TKV_TOOLS_TKV_USER_IDENTITY_H

#include <string>

#include "base/identity.h"
#include "outcome.h"

namespace tkv::command {

// A user by name, or by number for one that has no name, with all groups that the system's records give it. 3 when
// there is no such user.
Outcome identity_of_user(const std::string& user, registry::Identity* identity);

}  // namespace tkv::command

#endif
