#include "registry/access.h"

#include <algorithm>
#include <cstring>

namespace tkv::registry {
namespace {

std::string_view field_text(const char (&field)[TKV_NAME_SIZE]) { return {field, strnlen(field, sizeof field)}; }

Status set_field(char (&field)[TKV_NAME_SIZE], const char* what, const std::string& name) {
  if (name.size() > sizeof field) {
    return {PRTKV_INVALID_ARGUMENT,
            std::string(what) + " name of " + std::to_string(name.size()) + " bytes, more than 64"};
  }
  std::memset(field, 0, sizeof field);
  std::memcpy(field, name.data(), name.size());
  return {};
}

bool is_outside(std::int32_t mask) { return (mask & ~TKV_RIGHT_ALL) != 0; }

// Whether a field holds a name. No field holds the empty one.
bool holds(const char (&field)[TKV_NAME_SIZE], std::string_view name) {
  if (name.empty() || name.size() > sizeof field) return false;
  return std::memcmp(field, name.data(), name.size()) == 0 &&
         (name.size() == sizeof field || field[name.size()] == '\0');
}

}  // namespace

AccessReason explain_access(const Identity& identity, const sec_attr& security) {
  AccessReason reason;
  reason.superuser = identity.superuser;
  reason.owner = holds(security.user_name, identity.user);
  reason.group = std::any_of(identity.groups.begin(), identity.groups.end(),
                             [&](const std::string& group) { return holds(security.group_name, group); });
  reason.owner_grants = reason.owner ? security.user_perm : 0;
  reason.group_grants = reason.group ? security.group_perm : 0;
  reason.other_grants = security.other_perm;
  reason.granted = (reason.owner_grants | reason.group_grants | reason.other_grants) & TKV_RIGHT_ALL;
  if (reason.superuser) reason.granted = TKV_RIGHT_ALL;
  return reason;
}

Rights rights_of(const Identity& identity, const sec_attr& security) {
  return explain_access(identity, security).granted;
}

const char* right_name(Rights right) {
  switch (right) {
    case TKV_RIGHT_READ:
      return "read";
    case TKV_RIGHT_LIST:
      return "list";
    case TKV_RIGHT_WRITE:
      return "write";
    case TKV_RIGHT_SECURITY:
      return "security";
    case TKV_RIGHT_CREATE:
      return "create";
    case TKV_RIGHT_DELETE:
      return "delete";
    default:
      return "unknown";
  }
}

std::string_view user_of(const sec_attr& security) { return field_text(security.user_name); }

std::string_view group_of(const sec_attr& security) { return field_text(security.group_name); }

Status set_user(sec_attr* security, const std::string& name) { return set_field(security->user_name, "user", name); }

Status set_group(sec_attr* security, const std::string& name) { return set_field(security->group_name, "group", name); }

sec_attr default_security(const Identity& identity) {
  sec_attr security{};
  security.user_perm = TKV_RIGHT_ALL;
  security.group_perm = TKV_RIGHT_WRITE | TKV_RIGHT_CREATE | TKV_RIGHT_DELETE;
  security.other_perm = TKV_RIGHT_READ | TKV_RIGHT_LIST;
  // A name that no record can hold stays empty and matches nobody.
  (void)set_user(&security, identity.user);
  (void)set_group(&security, identity.group());
  return security;
}

bool same_security(const sec_attr& left, const sec_attr& right) {
  return left.user_perm == right.user_perm && left.group_perm == right.group_perm &&
         left.other_perm == right.other_perm && user_of(left) == user_of(right) && group_of(left) == group_of(right);
}

Status check_security(const sec_attr& security) {
  if (is_outside(security.user_perm) || is_outside(security.group_perm) || is_outside(security.other_perm)) {
    return {PRTKV_INVALID_ARGUMENT, "a permission mask has bits outside 0x3f"};
  }
  return {};
}

sec_attr normalized(const sec_attr& security) {
  sec_attr clean{};
  clean.user_perm = security.user_perm;
  clean.group_perm = security.group_perm;
  clean.other_perm = security.other_perm;
  user_of(security).copy(clean.user_name, sizeof clean.user_name);
  group_of(security).copy(clean.group_name, sizeof clean.group_name);
  return clean;
}

}  // namespace tkv::registry
