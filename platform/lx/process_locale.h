// The character set of the process's locale, as its environment names it.
#ifndef TKV_PLATFORM_LX_PROCESS_LOCALE_H
#define TKV_PLATFORM_LX_PROCESS_LOCALE_H

#include <string_view>

#include "lx/charset.h"

namespace tkv::lx {

// Returns the character set of a locale's name, "language_territory.charset@modifier". Returns null if the name
// includes a character set that the system does not have.
//
// A name without a character set has the one that the system's locale of that name uses. If the system has no such
// locale, "@euro" means ISO-8859-15 and any other name UTF-8, as "C" and "POSIX" do; the C library falls back to "C"
// there, too.
const Charset* charset_of_locale(std::string_view locale);

// Returns the character set of the process, which is determined as lx.h describes. Returns null if the system does not
// have it. The global locale is neither read nor changed. Any thread may call, as long as none changes the environment.
const Charset* charset_of_process();

}  // namespace tkv::lx

#endif
