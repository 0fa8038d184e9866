// Asking the system's name service for users and groups.
#ifndef TKV_PLATFORM_BASE_NAME_SERVICE_H
#define TKV_PLATFORM_BASE_NAME_SERVICE_H

#include <cerrno>
#include <cstddef>
#include <vector>

namespace tkv {

// Calls `ask(&record, buffer, size, &found)`, one of the C library's functions getpw..._r and getgr..._r, with a buffer
// that grows as it wants, and then `take` with what was found: a const Record*, null for nothing, which stands during
// that call. Gives what `ask` gave at last, 0 or a number of errno's; with 0 and nothing found there is no such entry.
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
