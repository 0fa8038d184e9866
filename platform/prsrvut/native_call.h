// NativeCall: the span of one native method, during which no exception of the result object is left pending.
#ifndef TKV_PLATFORM_PRSRVUT_NATIVE_CALL_H
#define TKV_PLATFORM_PRSRVUT_NATIVE_CALL_H

#include <jni.h>

namespace tkv::prsrvut {

// While a NativeCall exists, the prsrvut functions of its thread defer exceptions: they clear any that is pending when
// they are called, and any that they cause, so that the native method can go on making JNI calls. The destructor raises
// the first of them. Native calls nest, since a method of a result object may call a native method itself.
class NativeCall {
 public:
  explicit NativeCall(JNIEnv* env);
  ~NativeCall();
  NativeCall(const NativeCall&) = delete;
  NativeCall& operator=(const NativeCall&) = delete;

  // The innermost native call of this thread, null if there is none.
  static NativeCall* current();

  // Takes over a local reference to an exception, which must not be pending.
  void defer(jthrowable exception);

 private:
  JNIEnv* env_;
  NativeCall* outer_;
  jthrowable first_ = nullptr;
};

}  // namespace tkv::prsrvut

#endif
