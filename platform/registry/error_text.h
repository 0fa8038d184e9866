// Error texts as callers of the C functions see them: "TKV-0004: key 'a.b' does not exist".
#ifndef TKV_PLATFORM_REGISTRY_ERROR_TEXT_H
#define TKV_PLATFORM_REGISTRY_ERROR_TEXT_H

#include <cstddef>

#include "base/status.h"

namespace tkv::registry {

// Writes the text of a failure, NUL-terminated within `capacity` bytes (at least 1), and returns its length without
// the NUL. "%" and control characters show as "?", since callers may use a text as a format; what does not fit is cut
// after a whole character. Never throws: without memory the table's text stands for the reason.
std::size_t write_error_text(const Status& status, char* buffer, std::size_t capacity) noexcept;

}  // namespace tkv::registry

#endif
