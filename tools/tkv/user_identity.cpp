#include "user_identity.h"

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>

#include <charconv>
#include <cstring>
#include <vector>

namespace tkv::command {
namespace {

constexpr std::size_t kRecordBytes = 16384;
constexpr std::size_t kLargestRecord = 1024 * 1024;

// Calls the system's look-up with a buffer that is large enough.
template <typename Call>
int look_up(std::vector<char>* buffer, Call call) {
  buffer->resize(kRecordBytes);
  int error = call();
  while (error == ERANGE && buffer->size() < kLargestRecord) {
    buffer->resize(buffer->size() * 2);
    error = call();
  }
  return error;
}

std::string group_name(gid_t id) {
  std::vector<char> buffer;
  ::group record{};
  ::group* found = nullptr;
  const int error = look_up(&buffer, [&] { return getgrgid_r(id, &record, buffer.data(), buffer.size(), &found); });
  return error == 0 && found != nullptr ? found->gr_name : std::to_string(id);
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

}  // namespace

Outcome identity_of_user(const std::string& user, registry::Identity* identity) {
  std::vector<char> buffer;
  passwd record{};
  passwd* found = nullptr;
  uid_t id = 0;
  int error = look_up(&buffer, [&] { return getpwnam_r(user.c_str(), &record, buffer.data(), buffer.size(), &found); });
  if (found == nullptr && is_number(user, &id)) {
    error = look_up(&buffer, [&] { return getpwuid_r(id, &record, buffer.data(), buffer.size(), &found); });
  }
  if (found == nullptr) {
    if (error == 0 || error == ENOENT) return {Exit::kNotFound, "there is no user '" + user + "' on this machine"};
    return {Exit::kOther, "cannot look up the user '" + user + "': " + std::strerror(error)};
  }
  identity->user = found->pw_name;
  identity->superuser = found->pw_uid == 0;
  identity->groups.clear();
  const gid_t primary = found->pw_gid;
  for (const gid_t group : groups_of(found->pw_name, primary)) identity->groups.push_back(group_name(group));
  return {};
}

}  // namespace tkv::command
