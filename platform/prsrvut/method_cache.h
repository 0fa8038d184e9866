// A cache of the ids of the methods that are called on result objects.
#ifndef TKV_PLATFORM_PRSRVUT_METHOD_CACHE_H
#define TKV_PLATFORM_PRSRVUT_METHOD_CACHE_H

#include <jni.h>

namespace tkv::prsrvut {

// Returns the id of an object's method, null if its class has no method of that name and signature; no exception is
// left pending. The id is valid as long as the object is referenced. No exception may be pending at the call. Never
// throws. Any attached thread may call.
//
// The cache holds weak references to classes, so they can still be unloaded.
jmethodID find_method(JNIEnv* env, jobject object, const char* name, const char* signature);

// Empties the cache and releases its references.
void forget_methods(JNIEnv* env);

}  // namespace tkv::prsrvut

#endif
