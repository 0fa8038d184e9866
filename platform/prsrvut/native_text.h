// Texts in the native character set, in buffers of the caller's.
#ifndef TKV_PLATFORM_PRSRVUT_NATIVE_TEXT_H
#define TKV_PLATFORM_PRSRVUT_NATIVE_TEXT_H

#include <string_view>

namespace tkv::prsrvut {

// What a conversion gives back; the failures are negative.
inline constexpr int kWhole = 0;
inline constexpr int kCut = 1;
inline constexpr int kNullArgument = -1;
inline constexpr int kNotConvertible = -2;
inline constexpr int kOutOfMemory = -3;

// Converts UTF-16 to the character set of the process: the conversion of prsrvut_getNativeString, which says what comes
// out. On failure the buffer is left as it was.
int write_native_text(std::u16string_view text, char* buffer, int* size);

}  // namespace tkv::prsrvut

#endif
