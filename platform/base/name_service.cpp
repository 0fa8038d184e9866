#include "base/name_service.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tkv {
namespace {

// The ways in which getpwuid_r(3) and its relatives report that there is no such entry.
bool means_absent(int error) {
  return error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM;
}

// As ask_name_service, but an absent entry is a success, and `take` is called only with an entry.
template <typename Record, typename Ask, typename Take>
int look_up(Ask ask, Take take) {
  bool is_found = false;
  const int error = ask_name_service<Record>(ask, [&](const Record* found) {
    is_found = found != nullptr;
    if (is_found) take(*found);
  });
  return is_found || means_absent(error) ? 0 : error;
}

void name_by(const char* found, std::string* name) {
  if (found != nullptr && *found != '\0') *name = found;
}

template <typename Ask>
int find_user_with(Ask ask, std::optional<UserRecord>* user) {
  std::optional<UserRecord> result;
  const int error = look_up<passwd>(ask, [&](const passwd& found) {
    result = UserRecord{std::to_string(found.pw_uid), found.pw_uid, found.pw_gid};
    name_by(found.pw_name, &result->name);
  });
  if (error == 0) *user = std::move(result);
  return error;
}

int ask_for_user_name(const NameService& service, uid_t id, std::string* name) {
  std::optional<UserRecord> user;
  if (const int error = find_user(service, id, &user); error != 0) return error;
  *name = user ? std::move(user->name) : std::to_string(id);
  return 0;
}

int ask_for_group_name(const NameService& service, gid_t id, std::string* name) {
  std::string result = std::to_string(id);
  const auto ask = [&](group* record, char* buffer, std::size_t size, group** found) {
    return service.group_by_id(id, record, buffer, size, found);
  };
  const int error = look_up<group>(ask, [&](const group& found) { name_by(found.gr_name, &result); });
  if (error == 0) *name = std::move(result);
  return error;
}

// Never destroyed, since threads may still open registries while the process ends.
AccountNames* kept_names_of(const char* accounts) { return new AccountNames({accounts}); }

}  // namespace

const NameService& NameService::system() {
  static const NameService service{::geteuid,
                                   ::getegid,
                                   ::getgroups,
                                   ::getpwuid_r,
                                   ::getpwnam_r,
                                   ::getgrgid_r,
                                   ::getgrouplist,
                                   kept_names_of("/etc/passwd"),
                                   kept_names_of("/etc/group")};
  return service;
}

int find_user_name(const NameService& service, uid_t id, std::string* name) {
  const auto ask = [&](std::string* found) { return ask_for_user_name(service, id, found); };
  return service.user_names == nullptr ? ask(name) : service.user_names->find(id, ask, name);
}

int find_group_name(const NameService& service, gid_t id, std::string* name) {
  const auto ask = [&](std::string* found) { return ask_for_group_name(service, id, found); };
  return service.group_names == nullptr ? ask(name) : service.group_names->find(id, ask, name);
}

int find_user(const NameService& service, const std::string& name, std::optional<UserRecord>* user) {
  return find_user_with([&](passwd* record, char* buffer, std::size_t size,
                            passwd** found) { return service.user_by_name(name.c_str(), record, buffer, size, found); },
                        user);
}

int find_user(const NameService& service, uid_t id, std::optional<UserRecord>* user) {
  return find_user_with([&](passwd* record, char* buffer, std::size_t size,
                            passwd** found) { return service.user_by_id(id, record, buffer, size, found); },
                        user);
}

int find_process_groups(const NameService& service, std::vector<gid_t>* groups) {
  for (;;) {
    const int count = service.groups(0, nullptr);
    if (count < 0) return errno;
    std::vector<gid_t> result(1 + static_cast<std::size_t>(count), service.effective_group());
    const int read = count == 0 ? 0 : service.groups(count, result.data() + 1);
    if (read < 0 && errno == EINVAL) continue;  // the list grew between the two calls
    if (read < 0) return errno;
    result.resize(1 + static_cast<std::size_t>(std::min(read, count)));
    *groups = std::move(result);
    return 0;
  }
}

int find_groups_of_user(const NameService& service, const UserRecord& user, std::vector<gid_t>* groups) {
  std::vector<gid_t> result(64);
  for (;;) {
    int count = static_cast<int>(result.size());
    if (service.groups_of_user(user.name.c_str(), user.primary_group, result.data(), &count) >= 0) {
      result.resize(static_cast<std::size_t>(count));
      *groups = std::move(result);
      return 0;
    }
    const auto required = static_cast<std::size_t>(std::max(count, 0));
    result.resize(std::max(required, result.size() * 2));
  }
}

}  // namespace tkv
