// Keeps the descriptors 0 to 2 for the standard files, even in a process that was started without them.
#ifndef TKV_PLATFORM_BASE_STANDARD_FILES_H
#define TKV_PLATFORM_BASE_STANDARD_FILES_H

namespace tkv {

// Opens /dev/null, for reading only, on each of the three that is closed. Otherwise the next file opened, the
// registry's data file for instance, would get that number, and whatever the process prints would be written into it.
void occupy_standard_files();

}  // namespace tkv

#endif
