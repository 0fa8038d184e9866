#include "prsrvut/method_cache.h"

#include <algorithm>
#include <cstddef>
#include <list>
#include <mutex>
#include <new>
#include <optional>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "prsrvut/own_setters.h"

namespace tkv::prsrvut {
namespace {

// Enough for the result classes of any program and their methods. Beyond that, the oldest entry is dropped.
constexpr std::size_t kMaxClasses = 32;
constexpr std::size_t kMaxMethods = 16;

struct NamedMethod {
  std::string name;
  std::string signature;
  Method method;
};

struct Class {
  jweak reference;
  std::vector<NamedMethod> methods;
};

class Classes {
 public:
  static Classes& instance() {
    // Never destroyed: other threads may still report while the process exits. Needs no allocation, which could fail.
    alignas(Classes) static std::byte place[sizeof(Classes)];
    static Classes& classes = *new (place) Classes;
    return classes;
  }

  // Returns the method if it was looked up before.
  std::optional<Method> recall(JNIEnv* env, jclass type, const char* name, const char* signature) {
    const std::shared_lock lock(mutex_);
    const Class* known = find(env, type);
    if (known == nullptr) return std::nullopt;
    for (const NamedMethod& candidate : known->methods) {
      if (candidate.name == name && candidate.signature == signature) return candidate.method;
    }
    return std::nullopt;
  }

  // Does nothing if out of memory or if other threads are using the cache, which might keep this one waiting for long.
  // The method is then looked up again the next time.
  void remember(JNIEnv* env, jclass type, const char* name, const char* signature, Method method) noexcept {
    try {
      keep(env, type, name, signature, method);
    } catch (const std::bad_alloc&) {
      return;
    }
  }

  void forget(JNIEnv* env) {
    const std::lock_guard lock(mutex_);
    for (const Class& known : classes_) env->DeleteWeakGlobalRef(known.reference);
    classes_.clear();
  }

 private:
  void keep(JNIEnv* env, jclass type, const char* name, const char* signature, Method method) {
    NamedMethod named{name, signature, method};
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock) return;
    Class* known = find(env, type);
    if (known == nullptr) known = add(env, type);
    if (known == nullptr) return;
    if (known->methods.size() == kMaxMethods) known->methods.erase(known->methods.begin());
    known->methods.push_back(std::move(named));
  }

  Class* find(JNIEnv* env, jclass type) {
    const auto found = std::find_if(classes_.begin(), classes_.end(), [env, type](const Class& known) {
      return env->IsSameObject(known.reference, type) == JNI_TRUE;
    });
    return found == classes_.end() ? nullptr : &*found;
  }

  Class* add(JNIEnv* env, jclass type) {
    // The reference to an unloaded class has become null.
    classes_.remove_if([env](const Class& known) {
      const bool is_unloaded = env->IsSameObject(known.reference, nullptr) == JNI_TRUE;
      if (is_unloaded) env->DeleteWeakGlobalRef(known.reference);
      return is_unloaded;
    });
    if (classes_.size() == kMaxClasses) {
      env->DeleteWeakGlobalRef(classes_.front().reference);
      classes_.pop_front();
    }
    Class& fresh = classes_.emplace_back(Class{nullptr, {}});
    fresh.reference = env->NewWeakGlobalRef(type);
    if (fresh.reference != nullptr) return &fresh;
    env->ExceptionClear();
    classes_.pop_back();
    return nullptr;
  }

  std::shared_mutex mutex_;
  std::list<Class> classes_;  // oldest first
};

}  // namespace

Method find_method(JNIEnv* env, jobject object, const char* name, const char* signature) {
  jclass type = env->GetObjectClass(object);
  if (type == nullptr) return {};
  if (jfieldID field = field_of_own_setter(env, type, name, signature)) {
    env->DeleteLocalRef(type);
    return {field};
  }
  std::optional<Method> method = Classes::instance().recall(env, type, name, signature);
  if (!method) {
    // Not under the lock: the lookup may initialise the class, which may call back into this function.
    jmethodID id = env->GetMethodID(type, name, signature);
    if (id == nullptr) env->ExceptionClear();
    method = Method{field_set_by(id), id};
    Classes::instance().remember(env, type, name, signature, *method);
  }
  env->DeleteLocalRef(type);
  return *method;
}

void forget_methods(JNIEnv* env) { Classes::instance().forget(env); }

}  // namespace tkv::prsrvut
