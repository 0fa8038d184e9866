// JavaVm: one JVM in this process, checking every JNI call.
#ifndef TKV_TESTS_PLATFORM_JAVA_VM_H
#define TKV_TESTS_PLATFORM_JAVA_VM_H

#include <jni.h>

#include <string>

namespace tkv::test {

class JavaVm {
 public:
  // Starts the JVM on the first call, from the thread that will use it.
  static JavaVm& instance();

  JavaVM* vm() const { return vm_; }
  JNIEnv* env() const { return env_; }

  // What the JVM has written since the last call: warnings of its checks above all.
  static std::string take_output();

 private:
  JavaVm();

  JavaVM* vm_ = nullptr;
  JNIEnv* env_ = nullptr;
};

}  // namespace tkv::test

#endif
