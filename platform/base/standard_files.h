// The numbers 0 to 2 are the standard files', whether the process was started with all of them or not.
#ifndef TKV_PLATFORM_BASE_STANDARD_FILES_H
#define TKV_PLATFORM_BASE_STANDARD_FILES_H

namespace tkv::store {

// Gives each of the three that is closed to something from which nothing is read and to which nothing can be written.
// Else the next file that is opened becomes the standard output or error, and what anybody prints is written into it.
void occupy_standard_files();

}  // namespace tkv::store

#endif
