#include "store/lmdb/file_watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <utility>

namespace tkv::store {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kWithoutKernel{100};
// A file system may pass on some writes and not others: those of another machine, say.
constexpr milliseconds kWithKernel{1000};

Descriptor watch(int file) {
  Descriptor events(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  const bool watched = events.is_open() && inotify_add_watch(events.number(), path.c_str(), IN_MODIFY) >= 0;
  return watched ? std::move(events) : Descriptor(-1);
}

}  // namespace

FileWatch::FileWatch(int file, std::stop_token stop)
    : stop_(std::move(stop)), events_(watch(file)), stopped_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (stopped_.is_open()) on_stop_.emplace(stop_, Wake{stopped_.number()});
}

void FileWatch::Wake::operator()() const {
  const std::uint64_t one = 1;
  static_cast<void>(!::write(descriptor, &one, sizeof one));
}

milliseconds FileWatch::longest_pause() const {
  return events_.is_open() && stopped_.is_open() ? kWithKernel : kWithoutKernel;
}

// What happened is all the same: the caller looks at the file.
void FileWatch::take_events() const {
  std::array<char, 4096> events;
  while (events_.is_open() && ::read(events_.number(), events.data(), events.size()) > 0) continue;
}

bool FileWatch::wait(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
  if (left.count() <= 0 || stop_.stop_requested()) return false;
  std::array<pollfd, 2> wanted{pollfd{events_.number(), POLLIN, 0}, pollfd{stopped_.number(), POLLIN, 0}};
  static_cast<void>(::poll(wanted.data(), wanted.size(), static_cast<int>(std::min(left, longest_pause()).count())));
  take_events();
  return !stop_.stop_requested();
}

FileWatch::Clock::time_point FileWatch::deadline_after(milliseconds timeout) {
  const auto now = Clock::now();
  const auto longest = Clock::time_point::max() - now;
  return timeout < std::chrono::duration_cast<milliseconds>(longest) ? now + timeout : Clock::time_point::max();
}

}  // namespace tkv::store
