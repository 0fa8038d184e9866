#include "call.h"

#include <array>
#include <cstdint>

namespace tkv::java {
namespace {

constexpr std::size_t kCodeSize = 4;

const jbyte* as_jbytes(const char* bytes) { return reinterpret_cast<const jbyte*>(bytes); }

jbyteArray reply(JNIEnv* env, prtkv_result code, std::string_view rest) noexcept {
  const auto size = static_cast<jsize>(rest.size());
  jbyteArray bytes = env->NewByteArray(static_cast<jsize>(kCodeSize) + size);
  if (bytes == nullptr) return nullptr;
  const auto number = static_cast<std::uint32_t>(code);
  const std::array<jbyte, kCodeSize> word = {static_cast<jbyte>(number >> 24), static_cast<jbyte>(number >> 16),
                                             static_cast<jbyte>(number >> 8), static_cast<jbyte>(number)};
  env->SetByteArrayRegion(bytes, 0, static_cast<jsize>(kCodeSize), word.data());
  if (size != 0) env->SetByteArrayRegion(bytes, static_cast<jsize>(kCodeSize), size, as_jbytes(rest.data()));
  return bytes;
}

}  // namespace

StringArgument::StringArgument(JNIEnv* env, jstring string) {
  near_[0] = '\0';
  view_ = {near_, 0};
  if (string == nullptr) return;
  const jsize units = env->GetStringLength(string);
  const auto size = static_cast<std::size_t>(env->GetStringUTFLength(string));
  char* to = near_;
  if (size > kLongest) {
    far_.resize(size);  // which has room for the NUL that is written behind the characters
    to = far_.data();
  }
  env->GetStringUTFRegion(string, 0, units, to);
  view_ = {to, size};
}

std::string bytes_of(JNIEnv* env, jbyteArray array) {
  if (array == nullptr) return {};
  const jsize size = env->GetArrayLength(array);
  std::string bytes(static_cast<std::size_t>(size), '\0');
  env->GetByteArrayRegion(array, 0, size, reinterpret_cast<jbyte*>(bytes.data()));
  return bytes;
}

jbyteArray success(JNIEnv* env, std::string_view result) { return reply(env, PRTKV_DONE, result); }

jbyteArray failure(JNIEnv* env, const Status& status) noexcept {
  try {
    return reply(env, status.code(), status.text());
  } catch (const std::bad_alloc&) {
    return reply(env, status.code(), {});
  }
}

}  // namespace tkv::java
