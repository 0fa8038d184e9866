// StateMemory: memory that shows the number of a registry's latest state, to readers that know nothing but the memory.
//
// The number is the larger of two 64-bit words, the first and the last of the memory; both are aligned, and written by
// other processes at any time. Load each of them with acquire semantics. Zero: the number is not known, and never will
// be again, because the registry was closed or cannot be used any longer, or because this process was forked.
//
// The memory stays readable as long as this object lives, also after the registry was closed. Reading it raises SIGBUS
// if the registry's file has been truncated to nothing and nobody has noticed yet.
#ifndef TKV_PLATFORM_BASE_STATE_MEMORY_H
#define TKV_PLATFORM_BASE_STATE_MEMORY_H

#include <cstddef>
#include <span>

namespace tkv {

class StateMemory {
 public:
  virtual ~StateMemory() = default;
  StateMemory(const StateMemory&) = delete;
  StateMemory& operator=(const StateMemory&) = delete;

  // Any thread may call this, and read the bytes.
  virtual std::span<const std::byte> bytes() const = 0;

 protected:
  StateMemory() = default;
};

}  // namespace tkv

#endif
