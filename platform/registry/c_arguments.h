// The arguments of the C functions.
#ifndef TKV_PLATFORM_REGISTRY_C_ARGUMENTS_H
#define TKV_PLATFORM_REGISTRY_C_ARGUMENTS_H

#include <string.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

#include "base/limits.h"
#include "base/status.h"
#include "prtkv.h"

namespace tkv::registry {

struct Argument {
  const void* pointer;
  const char* name;
};

Status null_argument(const char* name);

// Returns PRTKV_NULL_ARGUMENT for the first pointer that is null. Inlined, it is one test for each pointer.
template <std::size_t count>
[[gnu::always_inline]] inline Status demand(const Argument (&arguments)[count]) {
  const char* missing = nullptr;
  [&]<std::size_t... index>(std::index_sequence<index...>) {
    (void)((arguments[index].pointer == nullptr && (missing = arguments[index].name) != nullptr) || ...);
  }
  (std::make_index_sequence<count>());
  return missing == nullptr ? Status() : null_argument(missing);
}

inline Status check_value(const void* value, std::uint32_t size) {
  if (value == nullptr && size > 0) return {PRTKV_NULL_ARGUMENT, "null argument: value"};
  return check_value_size(size);
}

// A caller's name. Reads no further than the first byte beyond the limit.
inline std::string_view text(const char* name) { return {name, ::strnlen(name, PRTKV_FULL_NAME_SIZE)}; }

inline std::span<const std::byte> bytes(const void* value, std::uint32_t size) {
  return {static_cast<const std::byte*>(value), size};
}

}  // namespace tkv::registry

#endif
