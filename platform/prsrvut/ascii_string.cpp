#include "prsrvut/ascii_string.h"

#include <climits>

namespace tkv::prsrvut {
namespace {

// The JVM converts modified UTF-8 byte by byte. A constructor of String that is given bytes of ISO 8859-1 copies them
// as they are, four times as fast, but calling it takes as long as the conversion of some 200 bytes.
constexpr std::size_t kLong = 256;

jclass string_class = nullptr;
jmethodID constructor = nullptr;
jobject iso_8859_1 = nullptr;

// Returns null, with an exception pending, if there is no such class or field.
jobject find_iso_8859_1(JNIEnv* env) {
  jclass owner = env->FindClass("java/nio/charset/StandardCharsets");
  if (owner == nullptr) return nullptr;
  jfieldID field = env->GetStaticFieldID(owner, "ISO_8859_1", "Ljava/nio/charset/Charset;");
  jobject found = field == nullptr ? nullptr : env->GetStaticObjectField(owner, field);
  env->DeleteLocalRef(owner);
  return found;
}

template <typename Reference>
Reference global(JNIEnv* env, Reference local) {
  if (local == nullptr) return nullptr;
  auto reference = static_cast<Reference>(env->NewGlobalRef(local));
  env->DeleteLocalRef(local);
  return reference;
}

bool look_up_all(JNIEnv* env) {
  string_class = global(env, env->FindClass("java/lang/String"));
  if (string_class == nullptr) return false;
  constructor = env->GetMethodID(string_class, "<init>", "([BLjava/nio/charset/Charset;)V");
  if (constructor == nullptr) return false;
  iso_8859_1 = global(env, find_iso_8859_1(env));
  return iso_8859_1 != nullptr;
}

}  // namespace

void connect_ascii_strings(JNIEnv* env) {
  if (look_up_all(env)) return;
  if (env->ExceptionCheck() == JNI_TRUE) env->ExceptionClear();
  disconnect_ascii_strings(env);
}

void disconnect_ascii_strings(JNIEnv* env) {
  if (iso_8859_1 != nullptr) env->DeleteGlobalRef(iso_8859_1);
  if (string_class != nullptr) env->DeleteGlobalRef(string_class);
  iso_8859_1 = nullptr;
  constructor = nullptr;
  string_class = nullptr;
}

jstring new_ascii_string(JNIEnv* env, std::string_view text) {
  if (text.size() < kLong || iso_8859_1 == nullptr || text.size() > INT_MAX) return env->NewStringUTF(text.data());
  const auto size = static_cast<jsize>(text.size());
  jbyteArray bytes = env->NewByteArray(size);
  if (bytes == nullptr) return nullptr;
  env->SetByteArrayRegion(bytes, 0, size, reinterpret_cast<const jbyte*>(text.data()));
  jvalue arguments[2] = {};
  arguments[0].l = bytes;
  arguments[1].l = iso_8859_1;
  jobject string = env->NewObjectA(string_class, constructor, arguments);
  env->DeleteLocalRef(bytes);
  return static_cast<jstring>(string);
}

}  // namespace tkv::prsrvut
