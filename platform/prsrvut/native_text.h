// Conversion to the native character set.
#ifndef TKV_PLATFORM_PRSRVUT_NATIVE_TEXT_H
#define TKV_PLATFORM_PRSRVUT_NATIVE_TEXT_H

#include <string_view>

namespace tkv::prsrvut {

// The results of a conversion; failures are negative.
inline constexpr int kWhole = 0;
inline constexpr int kCut = 1;
inline constexpr int kNullArgument = -1;
inline constexpr int kNotConvertible = -2;
inline constexpr int kOutOfMemory = -3;

// Converts UTF-16 to the character set of the process, as prsrvut_getNativeString describes. On failure, the buffer is
// unchanged.
int write_native_text(std::u16string_view text, char* buffer, int* size);

}  // namespace tkv::prsrvut

#endif
