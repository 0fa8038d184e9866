// The setters of the Java class TKVResult, each of which only stores its argument in a field.
#ifndef TKV_PLATFORM_PRSRVUT_OWN_SETTERS_H
#define TKV_PLATFORM_PRSRVUT_OWN_SETTERS_H

#include <jni.h>

namespace tkv::prsrvut {

// Looks up the setters and their fields. Called while the library is being loaded, before any other thread can call it.
// No exception may be pending at the call, and none is left pending. Without the class, or without one of its setters
// or fields, field_set_by() returns null and every setter is called as a method.
//
// The ids stay valid for as long as the library is loaded, without a reference to the class: the class loader that
// loaded the library has also loaded TKVResult or asked another loader for it, and keeps it.
void connect_own_setters(JNIEnv* env);

void disconnect_own_setters(JNIEnv* env);

// Looks up a setter of TKVResult itself. Returns null if `type` is another class, even one that inherits the setter, or
// if it has no such setter. Any attached thread may call.
jfieldID field_of_own_setter(JNIEnv* env, jclass type, const char* name, const char* signature);

// Returns the field in which `method` stores its argument, doing nothing else. Returns null for any other method: one
// that overrides a setter, or that of a class of the same name from another class loader. `method` must belong to a
// class that is still loaded. Any thread may call.
jfieldID field_set_by(jmethodID method);

}  // namespace tkv::prsrvut

#endif
