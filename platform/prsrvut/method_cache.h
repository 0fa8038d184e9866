// The ids of the methods that are called on result objects, looked up once for each class.
#ifndef TKV_PLATFORM_PRSRVUT_METHOD_CACHE_H
#define TKV_PLATFORM_PRSRVUT_METHOD_CACHE_H

#include <jni.h>

namespace tkv::prsrvut {

// Gives the id of an object's method, null when its class has none of that name and signature; no exception is left
// over. The id is good for as long as the object is held. No exception may be pending. Never throws. Any attached
// thread may call.
//
// Classes are remembered by weak references, so that they can still be unloaded.
jmethodID find_method(JNIEnv* env, jobject object, const char* name, const char* signature);

// Forgets every class and gives back the references.
void forget_methods(JNIEnv* env);

}  // namespace tkv::prsrvut

#endif
