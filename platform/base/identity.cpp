#include "base/identity.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "base/name_service.h"

namespace tkv::registry {
namespace {

// What the name service answers for "no such entry", besides success with nothing found.
bool means_absent(int error) {
  return error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM;
}

Status name_service_failed(const char* what, unsigned id, int error) {
  if (error == ENOMEM) return PRTKV_OUT_OF_MEMORY;
  return {PRTKV_UNKNOWN, std::string("the name of ") + what + " " + std::to_string(id) +
                             " cannot be read: " + std::generic_category().message(error)};
}

// The name that an entry has, its number when there is no such entry.
template <typename Record, typename Ask>
Status read_name(const char* what, unsigned id, Ask ask, char* Record::*field, std::string* name) {
  *name = std::to_string(id);
  bool is_found = false;
  const int error = ask_name_service<Record>(ask, [&](const Record* found) {
    is_found = found != nullptr;
    if (is_found && found->*field != nullptr) *name = found->*field;
  });
  return is_found || means_absent(error) ? Status() : name_service_failed(what, id, error);
}

Status user_name(const IdentityCalls& calls, uid_t id, std::string* name) {
  const auto ask = [&](passwd* record, char* buffer, std::size_t size, passwd** found) {
    return calls.user_by_id(id, record, buffer, size, found);
  };
  return read_name<passwd>("user", id, ask, &passwd::pw_name, name);
}

Status group_name(const IdentityCalls& calls, gid_t id, std::string* name) {
  const auto ask = [&](group* record, char* buffer, std::size_t size, group** found) {
    return calls.group_by_id(id, record, buffer, size, found);
  };
  return read_name<group>("group", id, ask, &group::gr_name, name);
}

// The effective group first, then the others; the effective one may be among them.
Status group_ids(const IdentityCalls& calls, std::vector<gid_t>* ids) {
  while (true) {
    const int count = calls.groups(0, nullptr);
    int error = errno;
    if (count >= 0) {
      ids->assign(1 + static_cast<std::size_t>(count), calls.effective_group());
      if (count == 0) return {};
      const int read = calls.groups(count, ids->data() + 1);
      error = errno;
      if (read >= 0) {
        ids->resize(1 + static_cast<std::size_t>(std::min(read, count)));
        return {};
      }
      if (error == EINVAL) continue;  // the list grew between the two calls
    }
    return {PRTKV_UNKNOWN, "the groups of the process cannot be read: " + std::generic_category().message(error)};
  }
}

Status set_field(char (&field)[TKV_NAME_SIZE], const char* what, const std::string& name) {
  if (name.size() > sizeof field) {
    return {PRTKV_INVALID_ARGUMENT,
            std::string(what) + " name of " + std::to_string(name.size()) + " bytes, more than 64"};
  }
  std::memset(field, 0, sizeof field);
  std::memcpy(field, name.data(), name.size());
  return {};
}

}  // namespace

const std::string& Identity::group() const {
  static const std::string none;
  return groups.empty() ? none : groups.front();
}

const IdentityCalls& IdentityCalls::system() {
  static const IdentityCalls calls{::geteuid, ::getegid, ::getgroups, ::getpwuid_r, ::getgrgid_r};
  return calls;
}

Status identity_of_process(Identity* identity, const IdentityCalls& calls) {
  Identity found;
  const uid_t user = calls.effective_user();
  found.superuser = user == 0;
  if (Status status = user_name(calls, user, &found.user); !status.ok()) return status;
  std::vector<gid_t> ids;
  if (Status status = group_ids(calls, &ids); !status.ok()) return status;
  for (std::size_t at = 0; at < ids.size(); ++at) {
    if (at > 0 && ids[at] == ids[0]) continue;
    std::string name;
    if (Status status = group_name(calls, ids[at], &name); !status.ok()) return status;
    found.groups.push_back(std::move(name));
  }
  *identity = std::move(found);
  return {};
}

sec_attr default_security(const Identity& identity) {
  sec_attr security{};
  security.user_perm = 0x3f;
  security.group_perm = 0x34;
  security.other_perm = 0x3;
  // A name that no record can hold stays empty: nobody's.
  (void)set_user(&security, identity.user);
  (void)set_group(&security, identity.group());
  return security;
}

Status set_user(sec_attr* security, const std::string& name) { return set_field(security->user_name, "user", name); }

Status set_group(sec_attr* security, const std::string& name) { return set_field(security->group_name, "group", name); }

}  // namespace tkv::registry
