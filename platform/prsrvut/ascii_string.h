// Java strings of ASCII characters, which is what nearly all texts of a registry are.
#ifndef TKV_PLATFORM_PRSRVUT_ASCII_STRING_H
#define TKV_PLATFORM_PRSRVUT_ASCII_STRING_H

#include <jni.h>

#include <string_view>

namespace tkv::prsrvut {

// Looks up what long strings are made with. Called while the library is being loaded, before any other thread can call
// it. No exception may be pending at the call, and none is left pending. Without it, every string is made by the JVM's
// own conversion.
void connect_ascii_strings(JNIEnv* env);

void disconnect_ascii_strings(JNIEnv* env);

// Creates a string of `text`, whose bytes are all less than 0x80, none of them NUL, and which a NUL follows. Returns
// null with an exception pending if memory runs out. Any attached thread may call.
jstring new_ascii_string(JNIEnv* env, std::string_view text);

}  // namespace tkv::prsrvut

#endif
