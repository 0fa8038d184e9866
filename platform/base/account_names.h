// AccountNames: names of users, or of groups, that the name service gave a moment ago.
//
// The name service reads a whole file of accounts for each name, or asks a daemon. A name is kept for one second, and
// only as long as the file of accounts stays as it is. A change of that file therefore counts at once, and any other
// change, such as one in a directory service, within a second.
//
// Any thread may call. A child forked while another thread was calling asks the name service each time.
#ifndef TKV_PLATFORM_BASE_ACCOUNT_NAMES_H
#define TKV_PLATFORM_BASE_ACCOUNT_NAMES_H

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>

#include "base/function_ref.h"

namespace tkv {

class AccountNames {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kAge{1};

  struct Source {
    const char* accounts = nullptr;  // "/etc/passwd" or "/etc/group"
    Clock::time_point (*now)() = Clock::now;
  };

  explicit AccountNames(const Source& source) : source_(source) {}

  // Reads the name of a user or group: the one that is kept, or else what `ask(&name)` finds. Returns 0, or the errno
  // value that `ask` returned; nothing is kept of a failure.
  int find(id_t id, FunctionRef<int(std::string* name)> ask, std::string* name);

 private:
  // What changes with the contents of a file. Zeroes if there is no such file.
  struct Version {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    struct timespec modified {};
    struct timespec changed {};

    static Version of(const char* path);
    bool operator==(const Version& other) const;
  };

  struct Entry {
    id_t id = 0;
    std::string name;  // "" for an entry that is free
    Version version;
    Clock::time_point asked;
  };

  static constexpr std::size_t kEntries = 64;

  bool find_kept(id_t id, const Version& version, Clock::time_point now, std::string* name);
  void keep(Entry entry);

  const Source source_;
  std::mutex mutex_;
  std::array<Entry, kEntries> entries_;  // each in the place of its id
};

}  // namespace tkv

#endif
