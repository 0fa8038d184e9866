// A library to preload: each look at the monotonic clock finds it 200 ms further on. A command that shows its progress
// every so often shows every step then, however fast or slow the machine is.
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static std::atomic<long> looks{0};
  constexpr long kMillisecondsPerLook = 200;
  const long result = ::syscall(SYS_clock_gettime, clock, time);
  if (result != 0 || clock != CLOCK_MONOTONIC) return static_cast<int>(result);
  const long milliseconds = ++looks * kMillisecondsPerLook + time->tv_nsec / 1'000'000;
  time->tv_sec += milliseconds / 1000;
  time->tv_nsec = milliseconds % 1000 * 1'000'000 + time->tv_nsec % 1'000'000;
  return 0;
}
