#include "prsrvut/own_setters.h"

#include <array>
#include <cstring>

namespace tkv::prsrvut {
namespace {

constexpr const char* kClass = "velmar/qen/mgmt/nativesystem/TKVResult";

struct Setter {
  const char* name;
  const char* signature;
  const char* field;
  const char* type;
  jmethodID method_id = nullptr;
  jfieldID field_id = nullptr;
};

std::array<Setter, 4> setters = {{
    {"setStatus", "(Z)V", "status", "Z"},
    {"setBooleanResult", "(Z)V", "booleanResult", "Z"},
    {"setTKVErrCode", "(I)V", "errCode", "I"},
    {"setTKVResultString", "(Ljava/lang/String;)V", "resultString", "Ljava/lang/String;"},
}};

// Weak, so that the class can be unloaded with its loader.
jweak own_class = nullptr;

// Returns false, with an exception pending, if the class lacks the method or the field.
bool look_up(JNIEnv* env, jclass owner, Setter* setter) {
  setter->method_id = env->GetMethodID(owner, setter->name, setter->signature);
  if (setter->method_id == nullptr) return false;
  setter->field_id = env->GetFieldID(owner, setter->field, setter->type);
  return setter->field_id != nullptr;
}

bool look_up_all(JNIEnv* env) {
  jclass owner = env->FindClass(kClass);
  if (owner == nullptr) return false;
  bool has_all = true;
  for (Setter& setter : setters) has_all = has_all && look_up(env, owner, &setter);
  if (has_all) own_class = env->NewWeakGlobalRef(owner);
  env->DeleteLocalRef(owner);
  return own_class != nullptr;
}

}  // namespace

void connect_own_setters(JNIEnv* env) {
  if (look_up_all(env)) return;
  env->ExceptionClear();
  disconnect_own_setters(env);
}

void disconnect_own_setters(JNIEnv* env) {
  if (own_class != nullptr) env->DeleteWeakGlobalRef(own_class);
  own_class = nullptr;
  for (Setter& setter : setters) {
    setter.method_id = nullptr;
    setter.field_id = nullptr;
  }
}

namespace {

// Equal texts of this library are mostly the same one: the linker merges them.
bool is_same(const char* left, const char* right) { return left == right || std::strcmp(left, right) == 0; }

}  // namespace

jfieldID field_of_own_setter(JNIEnv* env, jclass type, const char* name, const char* signature) {
  if (own_class == nullptr || env->IsSameObject(own_class, type) != JNI_TRUE) return nullptr;
  for (const Setter& setter : setters) {
    if (is_same(setter.name, name) && is_same(setter.signature, signature)) return setter.field_id;
  }
  return nullptr;
}

jfieldID field_set_by(jmethodID method) {
  if (method == nullptr) return nullptr;
  for (const Setter& setter : setters) {
    if (setter.method_id == method) return setter.field_id;
  }
  return nullptr;
}

}  // namespace tkv::prsrvut
