// What else happens when a JVM loads the library.
#ifndef TKV_PLATFORM_PRSRVUT_LOADING_H
#define TKV_PLATFORM_PRSRVUT_LOADING_H

#include <jni.h>

namespace tkv::prsrvut {

// Called at the end of JNI_OnLoad unless null. Set before the library is loaded, by a static initializer.
extern void (*on_load)(JNIEnv* env);

}  // namespace tkv::prsrvut

#endif
