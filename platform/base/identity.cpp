#include "base/identity.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>
#include <utility>

namespace tkv {
namespace {

Status name_service_failed(const std::string& what, int error) {
  if (error == ENOMEM) return PRTKV_OUT_OF_MEMORY;
  return {PRTKV_UNKNOWN, what + " cannot be read: " + std::generic_category().message(error)};
}

// Appends the names of `ids`, leaving out repetitions of the first.
Status append_group_names(const NameService& service, const std::vector<gid_t>& ids, std::vector<std::string>* names) {
  for (std::size_t at = 0; at < ids.size(); ++at) {
    if (at > 0 && ids[at] == ids[0]) continue;
    std::string name;
    if (const int error = find_group_name(service, ids[at], &name); error != 0) {
      return name_service_failed("the name of group " + std::to_string(ids[at]), error);
    }
    names->push_back(std::move(name));
  }
  return {};
}

std::optional<uid_t> number_in(const std::string& text) {
  constexpr uid_t kNobody = static_cast<uid_t>(-1);  // stands for "no user" in system calls
  uid_t id = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
  if (error != std::errc() || end != text.data() + text.size() || id == kNobody) return std::nullopt;
  return id;
}

// Looks up a user by name, then by number.
int find_named_or_numbered(const NameService& service, const std::string& text, std::optional<UserRecord>* user) {
  const int error = find_user(service, text, user);
  const std::optional<uid_t> id = number_in(text);
  return error != 0 || *user || !id ? error : find_user(service, *id, user);
}

}  // namespace

const std::string& Identity::group() const {
  static const std::string none;
  return groups.empty() ? none : groups.front();
}

Status identity_of_process(Identity* identity, const NameService& service) {
  Identity found;
  const uid_t user = service.effective_user();
  found.superuser = user == 0;
  if (const int error = find_user_name(service, user, &found.user); error != 0) {
    return name_service_failed("the name of user " + std::to_string(user), error);
  }
  std::vector<gid_t> groups;
  if (const int error = find_process_groups(service, &groups); error != 0) {
    return name_service_failed("the groups of the process", error);
  }
  if (Status status = append_group_names(service, groups, &found.groups); !status.ok()) return status;
  *identity = std::move(found);
  return {};
}

Status identity_of_user(const std::string& user, std::optional<Identity>* identity, const NameService& service) {
  std::optional<UserRecord> record;
  if (const int error = find_named_or_numbered(service, user, &record); error != 0) {
    return name_service_failed("the record of user '" + user + "'", error);
  }
  std::optional<Identity> result;
  if (record) {
    result = Identity{record->name, {}, record->id == 0};
    std::vector<gid_t> groups;
    if (const int error = find_groups_of_user(service, *record, &groups); error != 0) {
      return name_service_failed("the groups of user '" + user + "'", error);
    }
    if (Status status = append_group_names(service, groups, &result->groups); !status.ok()) return status;
  } else if (const std::optional<uid_t> id = number_in(user)) {
    result = Identity{std::to_string(*id), {}, *id == 0};
  }
  *identity = std::move(result);
  return {};
}

}  // namespace tkv
