#include "store/lmdb/commit_times.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>

namespace tkv::store {
namespace {

struct Slot {
  std::int64_t seconds = 0;
  std::uint64_t transaction = 0;
};
static_assert(sizeof(Slot) == 16 && std::endian::native == std::endian::little);

off_t offset_of(std::int64_t interval) {
  const auto slot = static_cast<std::uint64_t>(interval) % CommitTimes::kSlots;
  return CommitTimes::kRingOffset + static_cast<off_t>(slot * sizeof(Slot));
}

}  // namespace

void CommitTimes::note(std::uint64_t transaction, std::int64_t now) const {
  Slot slot;
  const off_t at = offset_of(now / kInterval);
  const bool is_read = pread(file_, &slot, sizeof slot, at) == sizeof slot;
  if (is_read && slot.seconds / kInterval == now / kInterval) return;
  slot = {now, transaction};
  (void)!pwrite(file_, &slot, sizeof slot, at);
}

std::int64_t CommitTimes::held_for(std::uint64_t transaction, std::int64_t now) const {
  std::array<Slot, kSlots> slots{};
  const ssize_t size = pread(file_, slots.data(), sizeof slots, kRingOffset);
  const std::size_t count = size < 0 ? 0 : static_cast<std::size_t>(size) / sizeof(Slot);
  std::int64_t first = now;
  for (std::size_t i = 0; i < count; ++i) {
    const Slot& slot = slots[i];
    const bool is_recent = slot.seconds <= now && now - slot.seconds <= kInterval * static_cast<std::int64_t>(kSlots);
    if (is_recent && slot.transaction > transaction) first = std::min(first, slot.seconds);
  }
  return now - first;
}

}  // namespace tkv::store
