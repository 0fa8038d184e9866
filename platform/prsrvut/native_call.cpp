#include "prsrvut/native_call.h"

#include "base/thread_variable.h"

namespace tkv::prsrvut {
namespace {

TKV_THREAD_LOCAL NativeCall* current_call = nullptr;

}  // namespace

NativeCall* NativeCall::current() { return current_call; }

NativeCall::NativeCall(JNIEnv* env) : env_(env), outer_(current_call) { current_call = this; }

NativeCall::~NativeCall() {
  current_call = outer_;
  if (first_ == nullptr) return;
  env_->ExceptionClear();
  env_->Throw(first_);
  env_->DeleteLocalRef(first_);
}

void NativeCall::defer(jthrowable exception) {
  if (first_ == nullptr) {
    first_ = exception;
  } else {
    env_->DeleteLocalRef(exception);
  }
}

}  // namespace tkv::prsrvut
