#include "user_identity.h"

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <system_error>
#include <vector>

#include "base/name_service.h"

namespace tkv::command {
namespace {

std::string group_name(gid_t id) {
  std::string name = std::to_string(id);
  const auto ask = [id](::group* record, char* buffer, std::size_t size, ::group** found) {
    return getgrgid_r(id, record, buffer, size, found);
  };
  static_cast<void>(ask_name_service<::group>(ask, [&](const ::group* found) {
    if (found != nullptr) name = found->gr_name;
  }));
  return name;
}

std::vector<gid_t> groups_of(const char* user, gid_t primary) {
  int count = 64;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  while (getgrouplist(user, primary, groups.data(), &count) < 0) {
    const std::size_t wanted = std::max(static_cast<std::size_t>(count), groups.size() * 2);
    groups.resize(wanted);
    count = static_cast<int>(wanted);
  }
  groups.resize(static_cast<std::size_t>(count));
  return groups;
}

bool is_number(const std::string& text, uid_t* id) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *id);
  return error == std::errc() && end == text.data() + text.size();
}

struct User {
  std::string name;
  uid_t id = 0;
  gid_t group = 0;
};

// Looks a user up by name or, with `id`, by number. `*user` stays as it is when there is none.
int look_up(const std::string& name, const uid_t* id, std::optional<User>* user) {
  const auto ask = [&](passwd* record, char* buffer, std::size_t size, passwd** found) {
    return id == nullptr ? getpwnam_r(name.c_str(), record, buffer, size, found)
                         : getpwuid_r(*id, record, buffer, size, found);
  };
  return ask_name_service<passwd>(ask, [&](const passwd* found) {
    if (found != nullptr) *user = User{found->pw_name, found->pw_uid, found->pw_gid};
  });
}

}  // namespace

Outcome identity_of_user(const std::string& user, registry::Identity* identity) {
  std::optional<User> found;
  uid_t id = 0;
  int error = look_up(user, nullptr, &found);
  if (!found && is_number(user, &id)) error = look_up(user, &id, &found);
  if (!found) {
    if (error == 0 || error == ENOENT) return {Exit::kNotFound, "there is no user '" + user + "' on this machine"};
    return {Exit::kOther, "cannot look up the user '" + user + "': " + std::generic_category().message(error)};
  }
  identity->user = found->name;
  identity->superuser = found->id == 0;
  identity->groups.clear();
  for (const gid_t group : groups_of(found->name.c_str(), found->group)) identity->groups.push_back(group_name(group));
  return {};
}

}  // namespace tkv::command
