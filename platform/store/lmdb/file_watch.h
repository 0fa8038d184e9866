// FileWatch: waiting until a file is written to, by any process that shares it, or until somebody asks to stop.
//
// The kernel tells (inotify). Where it cannot be asked, or has no watch left for this user, the caller has to look at
// the file every 100 ms; wait() returns that often then.
#ifndef TKV_PLATFORM_STORE_LMDB_FILE_WATCH_H
#define TKV_PLATFORM_STORE_LMDB_FILE_WATCH_H

#include <chrono>
#include <optional>
#include <stop_token>

#include "base/descriptor.h"

namespace tkv::store {

// Used by one thread.
class FileWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // `file` may be open for anything, also with O_PATH; it need not stay open. What is written from now on ends a wait.
  FileWatch(int file, std::stop_token stop);
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

  // Waits for a write, and returns true after one; it may do so without one. Returns false once the deadline has passed
  // or a stop was requested.
  bool wait(Clock::time_point deadline);

  // As far in the future as a clock can tell if the timeout is longer than that.
  static Clock::time_point deadline_after(std::chrono::milliseconds timeout);

 private:
  struct Wake {
    int descriptor;
    void operator()() const;
  };

  std::chrono::milliseconds longest_pause() const;
  void take_events() const;

  const std::stop_token stop_;
  Descriptor events_{-1};  // of inotify; without it, -1
  Descriptor stopped_{-1};
  std::optional<std::stop_callback<Wake>> on_stop_;
};

}  // namespace tkv::store

#endif
