#include "base/account_names.h"

#include <utility>

namespace tkv {
namespace {

bool is_same(const struct timespec& one, const struct timespec& other) {
  return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

}  // namespace

AccountNames::Version AccountNames::Version::of(const char* path) {
  struct stat found {};
  if (::stat(path, &found) != 0) return {};
  return {found.st_dev, found.st_ino, found.st_size, found.st_mtim, found.st_ctim};
}

bool AccountNames::Version::operator==(const Version& other) const {
  return device == other.device && inode == other.inode && size == other.size && is_same(modified, other.modified) &&
         is_same(changed, other.changed);
}

// What is looked at before the name service is asked can only be older than its answer: a change in between makes the
// name outdated.
int AccountNames::find(id_t id, FunctionRef<int(std::string* name)> ask, std::string* name) {
  const Version version = Version::of(source_.accounts);
  const Clock::time_point now = source_.now();
  if (find_kept(id, version, now, name)) return 0;
  std::string found;
  if (const int error = ask(&found); error != 0) return error;
  keep({id, found, version, now});
  *name = std::move(found);
  return 0;
}

bool AccountNames::find_kept(id_t id, const Version& version, Clock::time_point now, std::string* name) {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock.owns_lock()) return false;
  const Entry& entry = entries_[id % kEntries];
  const bool is_kept = entry.id == id && !entry.name.empty() && entry.version == version && now - entry.asked < kAge;
  if (is_kept) *name = entry.name;
  return is_kept;
}

void AccountNames::keep(Entry entry) {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (lock.owns_lock()) entries_[entry.id % kEntries] = std::move(entry);
}

}  // namespace tkv
