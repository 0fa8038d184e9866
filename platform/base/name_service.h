// The system's name service: the users and groups of this machine, by number and by name.
#ifndef TKV_PLATFORM_BASE_NAME_SERVICE_H
#define TKV_PLATFORM_BASE_NAME_SERVICE_H

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "base/account_names.h"

namespace tkv {

// The C library's functions that identify processes and users, each as its manual page describes it. Tests supply
// their own.
struct NameService {
  uid_t (*effective_user)() = nullptr;
  gid_t (*effective_group)() = nullptr;
  int (*groups)(int size, gid_t list[]) = nullptr;
  int (*user_by_id)(uid_t id, passwd* record, char* buffer, std::size_t size, passwd** found) = nullptr;
  int (*user_by_name)(const char* name, passwd* record, char* buffer, std::size_t size, passwd** found) = nullptr;
  int (*group_by_id)(gid_t id, group* record, char* buffer, std::size_t size, group** found) = nullptr;
  int (*groups_of_user)(const char* user, gid_t primary, gid_t list[], int* count) = nullptr;

  // Names that were found a moment ago; null if each is to be asked for.
  AccountNames* user_names = nullptr;
  AccountNames* group_names = nullptr;

  // The C library's own functions, with names that are kept for a second.
  static const NameService& system();
};

struct UserRecord {
  std::string name;
  uid_t id = 0;
  gid_t primary_group = 0;
};

// Each of the functions below returns 0 or an errno value; an output parameter is set only on success. They may throw
// std::bad_alloc. Any thread may call them.

// Reads the name of a user or group. One that has no name, or an empty one, is named by its number: "54321".
int find_user_name(const NameService& service, uid_t id, std::string* name);
int find_group_name(const NameService& service, gid_t id, std::string* name);

// Looks up a user by name or by number. Succeeds with an empty `*user` if there is none.
int find_user(const NameService& service, const std::string& name, std::optional<UserRecord>* user);
int find_user(const NameService& service, uid_t id, std::optional<UserRecord>* user);

// Reads the groups of this process, the effective one first. The effective group may appear a second time.
int find_process_groups(const NameService& service, std::vector<gid_t>* groups);

// Reads the groups that the system's records give a user, the primary one included.
int find_groups_of_user(const NameService& service, const UserRecord& user, std::vector<gid_t>* groups);

// Calls `ask(&record, buffer, size, &found)`, one of the C library's functions getpw..._r and getgr..._r, with a buffer
// that grows as required, and then `take` with the result: a const Record*, null if nothing was found, which is valid
// during that call only. Returns the errno value that `ask` ended with. If there is no error and nothing was found,
// there is no such entry.
template <typename Record, typename Ask, typename Take>
int ask_name_service(Ask ask, Take take) {
  constexpr std::size_t kLargestBuffer = std::size_t{16} << 20;
  std::vector<char> buffer(1024);
  for (;;) {
    Record record{};
    Record* found = nullptr;
    const int error = ask(&record, buffer.data(), buffer.size(), &found);
    if (error == EINTR) continue;
    if (error == ERANGE && buffer.size() < kLargestBuffer) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    take(static_cast<const Record*>(found));
    return error;
  }
}

}  // namespace tkv

#endif
