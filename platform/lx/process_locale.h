// The character set of the process's locale, from its environment alone.
#ifndef TKV_PLATFORM_LX_PROCESS_LOCALE_H
#define TKV_PLATFORM_LX_PROCESS_LOCALE_H

#include <string_view>

#include "lx/charset.h"

namespace tkv::lx {

// Gives the character set of a locale's name, "language_territory.charset@modifier". Null when the name has a character
// set that the system does not.
//
// A name without one has the set that the system's locale of that name uses. Where the system has no such locale,
// "@euro" means ISO-8859-15 and any other UTF-8, as "C" and "POSIX" do: the C library falls back to "C" there, too.
const Charset* charset_of_locale(std::string_view locale);

// Gives the character set of the process: TKV_CHARSET names it, else LC_ALL, LC_CTYPE or LANG name the locale, the
// first that is set and not empty; UTF-8 when none is. Null when the system does not have it. The global locale is
// neither read nor changed. Any thread may call while none changes the environment.
const Charset* charset_of_process();

}  // namespace tkv::lx

#endif
