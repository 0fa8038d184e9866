// Access: what an identity may do with a key.
//
// A key grants the union of the masks of every class that the identity belongs to: the owner, the owning group (by any
// of the identity's groups), and others, which is everybody, including the owner and the group's members. The superuser
// may do everything. An empty name in a record matches nobody, and a name that does not fit into a record matches none.
//
// Nothing here allocates, except for messages. Any thread may call.
#ifndef TKV_PLATFORM_REGISTRY_ACCESS_H
#define TKV_PLATFORM_REGISTRY_ACCESS_H

#include <cstdint>
#include <string>
#include <string_view>

#include "base/identity.h"
#include "base/status.h"
#include "sec_attr.h"

namespace tkv::registry {

using Rights = std::int32_t;  // TKV_RIGHT_ constants, or-ed together

// Which classes of a record an identity belongs to, and what each grants.
struct AccessReason {
  bool superuser = false;   // then the classes do not matter
  bool owner = false;       // the record's user is the identity's
  bool group = false;       // the record's group is one of the identity's
  Rights owner_grants = 0;  // what the class grants the identity; nothing if it does not belong to it
  Rights group_grants = 0;
  Rights other_grants = 0;
  Rights granted = 0;  // all together
};

AccessReason explain_access(const Identity& identity, const sec_attr& security);

Rights rights_of(const Identity& identity, const sec_attr& security);

// What a right allows, for people: "read", "list", "write", "security", "create", "delete". `right` is one bit of
// TKV_RIGHT_ALL.
const char* right_name(Rights right);

// A name in a record, without its NULs.
std::string_view user_of(const sec_attr& security);
std::string_view group_of(const sec_attr& security);

// Tells whether two records mean the same, whatever follows the NUL of a name.
bool same_security(const sec_attr& left, const sec_attr& right);

// Puts a name into a record's field of TKV_NAME_SIZE bytes, zero-filled. Returns PRTKV_INVALID_ARGUMENT if it is
// longer.
Status set_user(sec_attr* security, const std::string& name);
Status set_group(sec_attr* security, const std::string& name);

// The security of keys for which nobody asked for another: they belong to the identity, and others may read and list
// them.
sec_attr default_security(const Identity& identity);

// Returns PRTKV_INVALID_ARGUMENT if a mask has bits outside TKV_RIGHT_ALL.
Status check_security(const sec_attr& security);

// The record with zero bytes after its names, whatever the caller's memory held there.
sec_attr normalized(const sec_attr& security);

}  // namespace tkv::registry

#endif
