// What is registered when a JVM loads the library: the native methods of the Java API, and those of TKVNative.
//
// The latter are registered so that an exception thrown by a result object is raised when the method returns, and no
// JNI call is made while it is pending. A method that cannot be registered is still found by its exported name.
#include <jni.h>

#include <new>
#include <string>
#include <type_traits>

#include "prsrvut/loading.h"
#include "prsrvut/native_call.h"
#include "registry_natives.h"
#include "tkv.h"

namespace tkv {
namespace {

template <typename Type>
constexpr const char* descriptor() {
  if constexpr (std::is_same_v<Type, void>) return "V";
  if constexpr (std::is_same_v<Type, jint>) return "I";
  if constexpr (std::is_same_v<Type, jboolean>) return "Z";
  if constexpr (std::is_same_v<Type, jstring>) return "Ljava/lang/String;";
  if constexpr (std::is_same_v<Type, jobjectArray>) return "[Ljava/lang/String;";
  if constexpr (std::is_same_v<Type, jobject>) return "Ljava/lang/Object;";
}

template <auto kMethod>
struct Deferring;

// A native method within a NativeCall.
template <typename Result, typename... Arguments, Result (*kMethod)(JNIEnv*, jobject, Arguments...)>
struct Deferring<kMethod> {
  static Result JNICALL call(JNIEnv* env, jobject self, Arguments... arguments) {
    const prsrvut::NativeCall scope(env);
    return kMethod(env, self, arguments...);
  }

  static std::string signature() {
    return (std::string("(") + ... + descriptor<Arguments>()) + ")" + descriptor<Result>();
  }
};

template <auto kMethod>
void register_method(JNIEnv* env, jclass owner, const char* name) {
  const std::string signature = Deferring<kMethod>::signature();
  JNINativeMethod method{};
  method.name = const_cast<char*>(name);  // the JVM only reads them
  method.signature = const_cast<char*>(signature.c_str());
  method.fnPtr = reinterpret_cast<void*>(&Deferring<kMethod>::call);
  if (env->RegisterNatives(owner, &method, 1) != JNI_OK) env->ExceptionClear();
}

void register_methods(JNIEnv* env, jclass owner) {
#define TKV_REGISTER(method) register_method<&Java_velmar_qen_mgmt_nativesystem_TKVNative_##method>(env, owner, #method)
  TKV_REGISTER(initializeTKVLevel);
  TKV_REGISTER(terminateTKV);
  TKV_REGISTER(openKey);
  TKV_REGISTER(closeKey);
  TKV_REGISTER(keyExists);
  TKV_REGISTER(deleteKey);
  TKV_REGISTER(listSubKeys);
  TKV_REGISTER(moveKey);
  TKV_REGISTER(createKey);
  TKV_REGISTER(getKeyValue);
  TKV_REGISTER(getKeyValues);
  TKV_REGISTER(setKeyValue);
  TKV_REGISTER(setTypeKeyValue);
  TKV_REGISTER(setKeyValues);
  TKV_REGISTER(createAndSetKeyValue);
  TKV_REGISTER(getUserName);
  TKV_REGISTER(getGroupName);
  TKV_REGISTER(copyRecurse);
  TKV_REGISTER(isCluster);
  TKV_REGISTER(getTKVLocations);
  TKV_REGISTER(checkTKVStorageType);
  TKV_REGISTER(getTKVBackupLocation);
  TKV_REGISTER(getPatchLevel);
  TKV_REGISTER(setZUVEDDependencies);
#undef TKV_REGISTER
}

void register_bridge(JNIEnv* env) {
  jclass owner = env->FindClass("velmar/qen/mgmt/nativesystem/TKVNative");
  if (owner == nullptr) {
    env->ExceptionClear();
    return;
  }
  try {
    register_methods(env, owner);
  } catch (const std::bad_alloc&) {
    // The methods that are not registered work all the same.
  }
  env->DeleteLocalRef(owner);
}

void register_natives(JNIEnv* env) {
  register_bridge(env);
  java::register_registry_natives(env);
}

[[maybe_unused]] const bool is_installed = (prsrvut::on_load = &register_natives, true);

}  // namespace
}  // namespace tkv
