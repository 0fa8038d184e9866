// Error texts for callers of the C functions: "TKV-0004: key 'a.b' does not exist".
#ifndef TKV_PLATFORM_REGISTRY_ERROR_TEXT_H
#define TKV_PLATFORM_REGISTRY_ERROR_TEXT_H

#include <cstddef>

#include "base/status.h"

namespace tkv::registry {

// Writes the text of a failure, NUL-terminated, to a buffer of `capacity` bytes (at least 1), and returns its length
// without the NUL. "%" and control characters become "?", because callers may use a text as a format string. A text
// that is too long is truncated after a whole character. Never throws: without memory, the result's general text is
// used.
std::size_t write_error_text(const Status& status, char* buffer, std::size_t capacity) noexcept;

}  // namespace tkv::registry

#endif
