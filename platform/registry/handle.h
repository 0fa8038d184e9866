// Handles: 64-bit values that stand for slots of a table without being addresses. A handle consists of the table's
// kind, the slot's index and a serial number that the process repeats only after 2^31 others. The slot keeps the serial
// of the last handle that was given out for it, so a closed, foreign or forged handle is recognized.
#ifndef TKV_PLATFORM_REGISTRY_HANDLE_H
#define TKV_PLATFORM_REGISTRY_HANDLE_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tkv::registry {

enum class HandleKind : std::uint64_t { kContext = 1, kKey = 2 };

constexpr unsigned kIndexBits = 30;
constexpr unsigned kSerialBits = 31;
constexpr std::size_t kMaxSlots = 1UL << kIndexBits;

struct Handle {
  std::uint64_t serial;  // never 0
  std::size_t index;     // below kMaxSlots
};

constexpr std::uint64_t encode_handle(HandleKind kind, Handle handle) {
  return static_cast<std::uint64_t>(kind) << (kIndexBits + kSerialBits) | handle.serial << kIndexBits | handle.index;
}

// The index in a handle of any kind.
constexpr std::size_t index_of(std::uint64_t handle) { return handle & (kMaxSlots - 1); }

// Returns false if the value is no handle of this kind.
constexpr bool decode_handle(HandleKind kind, std::uint64_t value, Handle* handle) {
  handle->index = index_of(value);
  handle->serial = value >> kIndexBits & ((1ULL << kSerialBits) - 1);
  return value >> (kIndexBits + kSerialBits) == static_cast<std::uint64_t>(kind) && handle->serial != 0;
}

// Serial numbers for one table, which takes kAtOnce of the process's at a time. One thread at a time.
class Serials {
 public:
  std::uint64_t next() {
    static std::atomic<std::uint64_t> given{0};
    if (next_ % kAtOnce == 0) next_ = given.fetch_add(kAtOnce, std::memory_order_relaxed);
    const std::uint64_t serial = ++next_ & ((1ULL << kSerialBits) - 1);
    return serial != 0 ? serial : next();
  }

 private:
  static constexpr std::uint64_t kAtOnce = 64;

  std::uint64_t next_ = 0;
};

}  // namespace tkv::registry

#endif
