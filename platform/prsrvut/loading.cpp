#include "prsrvut/loading.h"

#include <jni.h>

#include <cstdint>

#include "prsrvut/ascii_string.h"
#include "prsrvut/method_cache.h"
#include "prsrvut/own_setters.h"
#include "prsrvut/trace_switch.h"

namespace tkv::prsrvut {
namespace {

constexpr jint kJniVersion = JNI_VERSION_1_8;
constexpr const char* kSwitchClass = "velmar/qen/mgmt/nativesystem/TKVResult";
constexpr const char* kSwitchField = "TRACE_SWITCH";
constexpr const char* kSwitchSignature = "Ljava/nio/ByteBuffer;";

const int always_off = 0;

// Keeps the buffer and its memory for as long as the library is loaded.
jobject switch_buffer = nullptr;

// Returns the buffer, or null if the Java side has no such class or field.
jobject find_switch_buffer(JNIEnv* env) {
  jclass owner = env->FindClass(kSwitchClass);
  if (owner == nullptr) return nullptr;
  jfieldID field = env->GetStaticFieldID(owner, kSwitchField, kSwitchSignature);
  jobject buffer = field == nullptr ? nullptr : env->GetStaticObjectField(owner, field);
  env->DeleteLocalRef(owner);
  return buffer;
}

// Returns the int at the start of the buffer, or null if the buffer cannot hold one.
const int* switch_in(JNIEnv* env, jobject buffer) {
  void* address = env->GetDirectBufferAddress(buffer);
  if (address == nullptr || reinterpret_cast<std::uintptr_t>(address) % alignof(int) != 0) return nullptr;
  const jlong capacity = env->GetDirectBufferCapacity(buffer);
  return capacity >= static_cast<jlong>(sizeof(int)) ? static_cast<const int*>(address) : nullptr;
}

void connect_trace_switch(JNIEnv* env) {
  jobject buffer = find_switch_buffer(env);
  if (buffer != nullptr) {
    const int* address = switch_in(env, buffer);
    if (address != nullptr) switch_buffer = env->NewGlobalRef(buffer);
    if (switch_buffer != nullptr) trace_switch.store(address, std::memory_order_relaxed);
    env->DeleteLocalRef(buffer);
  }
  // Without the switch, the library works and does not trace.
  if (env->ExceptionCheck() == JNI_TRUE) env->ExceptionClear();
}

void disconnect_trace_switch(JNIEnv* env) {
  trace_switch.store(&always_off, std::memory_order_relaxed);
  if (switch_buffer != nullptr) env->DeleteGlobalRef(switch_buffer);
  switch_buffer = nullptr;
}

JNIEnv* environment(JavaVM* vm) {
  void* env = nullptr;
  return vm->GetEnv(&env, kJniVersion) == JNI_OK ? static_cast<JNIEnv*>(env) : nullptr;
}

}  // namespace

std::atomic<const int*> trace_switch{&always_off};

void (*on_load)(JNIEnv* env) = nullptr;

}  // namespace tkv::prsrvut

extern "C" JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM* vm, void* /*reserved*/) {
  JNIEnv* env = tkv::prsrvut::environment(vm);
  if (env == nullptr) return JNI_ERR;
  tkv::prsrvut::disconnect_trace_switch(env);
  tkv::prsrvut::connect_trace_switch(env);
  tkv::prsrvut::disconnect_own_setters(env);
  tkv::prsrvut::connect_own_setters(env);
  tkv::prsrvut::disconnect_ascii_strings(env);
  tkv::prsrvut::connect_ascii_strings(env);
  if (tkv::prsrvut::on_load != nullptr) tkv::prsrvut::on_load(env);
  return tkv::prsrvut::kJniVersion;
}

extern "C" JNIEXPORT void JNICALL JNI_OnUnload(JavaVM* vm, void* /*reserved*/) {
  JNIEnv* env = tkv::prsrvut::environment(vm);
  if (env == nullptr) return;
  tkv::prsrvut::disconnect_trace_switch(env);
  tkv::prsrvut::disconnect_own_setters(env);
  tkv::prsrvut::disconnect_ascii_strings(env);
  tkv::prsrvut::forget_methods(env);
}
