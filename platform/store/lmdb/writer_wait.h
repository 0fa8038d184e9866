// How long a writer waits for others, and what it is told meanwhile.
#ifndef TKV_PLATFORM_STORE_LMDB_WRITER_WAIT_H
#define TKV_PLATFORM_STORE_LMDB_WRITER_WAIT_H

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>

#include "base/function_ref.h"
#include "base/status.h"

namespace tkv::store {

struct WriterWait {
  std::chrono::milliseconds timeout{0};
  // Called once, after a second of waiting, with a message for people: "waiting for process 4711 (tkv), ...".
  std::function<void(const std::string& message)> on_wait;
};

// When the wait of one write ends, whomever it waits for, and when it is reported.
class WriterDeadline {
 public:
  using Clock = std::chrono::steady_clock;

  // `directory` is that of the registry. Both must outlive this object.
  WriterDeadline(const WriterWait& wait, const std::string& directory) : wait_(wait), directory_(directory) {}
  WriterDeadline(const WriterDeadline&) = delete;
  WriterDeadline& operator=(const WriterDeadline&) = delete;

  Clock::time_point next_event() const { return told_ ? end() : std::min(begin_ + kSilentWait, end()); }
  bool has_passed() const { return Clock::now() >= end(); }

  // Reports the wait if it is time to. `holder` is only called then.
  void tell(FunctionRef<std::string()> holder) {
    if (told_ || Clock::now() < begin_ + kSilentWait) return;
    told_ = true;
    if (wait_.on_wait) {
      wait_.on_wait("waiting for " + holder() + ", which is writing to the registry in '" + directory_ + "'");
    }
  }

  // PRTKV_BUSY: the wait was in vain.
  Status gave_up(const std::string& holder) const {
    return {PRTKV_BUSY, holder + " is writing to the registry in '" + directory_ + "'; gave up after " +
                            std::to_string(wait_.timeout.count()) + " ms"};
  }

 private:
  static constexpr std::chrono::seconds kSilentWait{1};

  Clock::time_point end() const { return begin_ + wait_.timeout; }

  const WriterWait& wait_;
  const std::string& directory_;
  const Clock::time_point begin_ = Clock::now();
  bool told_ = false;
};

}  // namespace tkv::store

#endif
