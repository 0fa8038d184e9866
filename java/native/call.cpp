#include "call.h"

#include <cstring>

namespace tkv::java {

StringArgument::StringArgument(JNIEnv* env, jstring string) {
  if (string == nullptr) return;
  const jsize units = env->GetStringLength(string);
  if (static_cast<std::size_t>(units) <= kMaxNameSize) {
    // The characters need not be followed by a NUL, and hold none.
    std::memset(near_, 0, kMostBytes * static_cast<std::size_t>(units) + 1);
    env->GetStringUTFRegion(string, 0, units, near_);
    view_ = near_;
    return;
  }
  const auto size = static_cast<std::size_t>(env->GetStringUTFLength(string));
  far_.resize(size);  // which has room for the NUL that is written behind the characters
  env->GetStringUTFRegion(string, 0, units, far_.data());
  view_ = far_;
}

std::string bytes_of(JNIEnv* env, jbyteArray array) {
  if (array == nullptr) return {};
  const jsize size = env->GetArrayLength(array);
  std::string bytes(static_cast<std::size_t>(size), '\0');
  env->GetByteArrayRegion(array, 0, size, reinterpret_cast<jbyte*>(bytes.data()));
  return bytes;
}

jbyteArray array_of(JNIEnv* env, std::string_view bytes) noexcept {
  const auto size = static_cast<jsize>(bytes.size());
  jbyteArray array = env->NewByteArray(size);
  if (array != nullptr) env->SetByteArrayRegion(array, 0, size, reinterpret_cast<const jbyte*>(bytes.data()));
  return array;
}

jbyteArray failure(JNIEnv* env, const Status& status) noexcept {
  std::string reply;
  DataWriter result(&reply);
  result.word32(status.code());
  try {
    result.raw(status.text());
  } catch (const std::bad_alloc&) {
    // The code alone, for which a string needs no memory.
  }
  return array_of(env, reply);
}

}  // namespace tkv::java
