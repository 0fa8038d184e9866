// A cache of the methods that are called on result objects.
#ifndef TKV_PLATFORM_PRSRVUT_METHOD_CACHE_H
#define TKV_PLATFORM_PRSRVUT_METHOD_CACHE_H

#include <jni.h>

namespace tkv::prsrvut {

// A method of a class.
struct Method {
  jfieldID only_sets = nullptr;  // the field in which it stores its argument, null if it may do anything else
  jmethodID id = nullptr;        // otherwise; null if the class has no such method
};

// Looks up an object's method by name and signature; no exception is left pending. The ids are valid as long as the
// object is referenced. No exception may be pending at the call. Never throws. Any attached thread may call; threads
// that look up what is in the cache do not exclude each other.
//
// The cache holds weak references to classes, so they can still be unloaded.
Method find_method(JNIEnv* env, jobject object, const char* name, const char* signature);

// Empties the cache and releases its references.
void forget_methods(JNIEnv* env);

}  // namespace tkv::prsrvut

#endif
