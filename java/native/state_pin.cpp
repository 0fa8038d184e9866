#include "state_pin.h"

#include <atomic>
#include <cstddef>
#include <utility>

#include "handle_table.h"

namespace tkv::java {
namespace {

constexpr std::size_t kMostPins = 10'000;  // Linux grants 65,530 areas

// Never destroyed: while the process exits, other threads may still be calling.
HandleTable<const StateMemory>& pins() {
  alignas(HandleTable<const StateMemory>) static unsigned char place[sizeof(HandleTable<const StateMemory>)];
  static auto* const table = new (place) HandleTable<const StateMemory>();
  return *table;
}

std::atomic<std::size_t> pin_count{0};

}  // namespace

jlong pin_state(std::shared_ptr<const StateMemory> memory) {
  if (memory == nullptr || pin_count >= kMostPins) return 0;
  const jlong pin = pins().add(std::move(memory));
  ++pin_count;
  return pin;
}

std::shared_ptr<const StateMemory> pinned_state(jlong pin) { return pins().find(pin); }

void unpin_state(jlong pin) {
  if (pins().remove(pin) != nullptr) --pin_count;
}

}  // namespace tkv::java
