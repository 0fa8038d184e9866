#include "prsrvut/method_cache.h"

#include <algorithm>
#include <cstddef>
#include <list>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace tkv::prsrvut {
namespace {

// Enough for the result classes of any program and their methods. Beyond that, the oldest entry is dropped.
constexpr std::size_t kMaxClasses = 32;
constexpr std::size_t kMaxMethods = 16;

struct Method {
  std::string name;
  std::string signature;
  jmethodID id;  // null if the class has no such method
};

struct Class {
  jweak reference;
  std::vector<Method> methods;
};

class Classes {
 public:
  static Classes& instance() {
    // Never destroyed: other threads may still report while the process exits. Needs no allocation, which could fail.
    alignas(Classes) static std::byte place[sizeof(Classes)];
    static Classes& classes = *new (place) Classes;
    return classes;
  }

  // Returns whether the method was looked up before. `*id` receives it, null if the class has no such method.
  bool recall(JNIEnv* env, jclass type, const char* name, const char* signature, jmethodID* id) {
    const std::lock_guard lock(mutex_);
    const Class* known = find(env, type);
    if (known == nullptr) return false;
    for (const Method& method : known->methods) {
      if (method.name == name && method.signature == signature) {
        *id = method.id;
        return true;
      }
    }
    return false;
  }

  // Does nothing if out of memory; the method is then looked up again the next time.
  void remember(JNIEnv* env, jclass type, const char* name, const char* signature, jmethodID id) noexcept {
    try {
      keep(env, type, name, signature, id);
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
  void keep(JNIEnv* env, jclass type, const char* name, const char* signature, jmethodID id) {
    Method method{name, signature, id};
    const std::lock_guard lock(mutex_);
    Class* known = find(env, type);
    if (known == nullptr) known = add(env, type);
    if (known == nullptr) return;
    if (known->methods.size() == kMaxMethods) known->methods.erase(known->methods.begin());
    known->methods.push_back(std::move(method));
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

  std::mutex mutex_;
  std::list<Class> classes_;  // oldest first
};

}  // namespace

jmethodID find_method(JNIEnv* env, jobject object, const char* name, const char* signature) {
  jclass type = env->GetObjectClass(object);
  if (type == nullptr) return nullptr;
  jmethodID id = nullptr;
  if (!Classes::instance().recall(env, type, name, signature, &id)) {
    // Not under the lock: the lookup may initialise the class, which may call back into this function.
    id = env->GetMethodID(type, name, signature);
    if (id == nullptr) env->ExceptionClear();
    Classes::instance().remember(env, type, name, signature, id);
  }
  env->DeleteLocalRef(type);
  return id;
}

void forget_methods(JNIEnv* env) { Classes::instance().forget(env); }

}  // namespace tkv::prsrvut
