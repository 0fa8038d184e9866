// What the registry refuses as too large, the same everywhere. The numbers are part of the C interface.
#ifndef TKV_PLATFORM_BASE_LIMITS_H
#define TKV_PLATFORM_BASE_LIMITS_H

#include <cstddef>
#include <string>

#include "base/status.h"
#include "prtkv.h"

namespace tkv {

constexpr std::size_t kMaxValueSize = PRTKV_MAX_VALUE_SIZE;        // bytes of one value
constexpr std::size_t kMaxLevelSize = PRTKV_SUBKEY_NAME_SIZE - 1;  // bytes of one level of a name
constexpr std::size_t kMaxNameSize = PRTKV_FULL_NAME_SIZE - 1;     // bytes of a full name
constexpr std::size_t kMaxLevels = PRTKV_MAX_LEVELS;               // of a full name

static_assert(kMaxValueSize == std::size_t{1} << 20, "as check_value_size says");

inline Status check_value_size(std::size_t size) {
  if (size <= kMaxValueSize) return {};
  return {PRTKV_VALUE_TOO_LARGE, "value too large: " + std::to_string(size) + " bytes, more than 1 MiB"};
}

}  // namespace tkv

#endif
