// The native methods of BareLmdbPeer: the least that JNI allows between Java and LMDB.

#include <jni.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "bare_lmdb.h"

using tkv::bench::BareLmdb;

namespace {

// One for each thread that reads; the first one is the store's owner.
std::vector<std::unique_ptr<BareLmdb>> stores;

class Characters {
 public:
  Characters(JNIEnv* env, jstring string)
      : env_(env), string_(string), characters_(env->GetStringUTFChars(string, nullptr)) {
    if (characters_ == nullptr) throw std::bad_alloc();
  }
  ~Characters() { env_->ReleaseStringUTFChars(string_, characters_); }
  Characters(const Characters&) = delete;
  Characters& operator=(const Characters&) = delete;

  const char* get() const { return characters_; }

 private:
  JNIEnv* env_;
  jstring string_;
  const char* characters_;
};

// Runs `work` and raises its failure as an IOException.
template <typename Work>
auto raising(JNIEnv* env, const Work& work) -> decltype(work()) {
  try {
    return work();
  } catch (const std::exception& failure) {
    if (env->ExceptionCheck() == JNI_FALSE) env->ThrowNew(env->FindClass("java/io/IOException"), failure.what());
  }
  return decltype(work())();
}

jobjectArray array_of(JNIEnv* env, const std::vector<std::string>& names) {
  const auto length = static_cast<jsize>(names.size());
  jobjectArray array = env->NewObjectArray(length, env->FindClass("java/lang/String"), nullptr);
  for (jsize i = 0; array != nullptr && i < length; ++i) {
    jstring name = env->NewStringUTF(names[static_cast<std::size_t>(i)].c_str());
    if (name == nullptr) return nullptr;
    env->SetObjectArrayElement(array, i, name);
    env->DeleteLocalRef(name);
  }
  return array;
}

}  // namespace

#define BENCH_METHOD(type, name) extern "C" JNIEXPORT type JNICALL Java_velmar_qen_mgmt_bench_BareLmdbPeer_##name

BENCH_METHOD(jstring, version)(JNIEnv* env, jclass) {
  int major = 0;
  int minor = 0;
  int patch = 0;
  mdb_version(&major, &minor, &patch);
  return env->NewStringUTF(
      ("LMDB " + std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch)).c_str());
}

BENCH_METHOD(void, openStore)(JNIEnv* env, jclass, jstring directory) {
  raising(env, [&] { stores.push_back(std::make_unique<BareLmdb>(Characters(env, directory).get())); });
}

// Before other threads read.
BENCH_METHOD(jint, addReader)(JNIEnv* env, jclass) {
  return raising(env, [&] {
    stores.push_back(stores[0]->another_reader());
    return static_cast<jint>(stores.size() - 1);
  });
}

BENCH_METHOD(void, closeStore)(JNIEnv*, jclass) {
  while (!stores.empty()) stores.pop_back();
}

BENCH_METHOD(jstring, get)(JNIEnv* env, jclass, jint reader, jstring name) {
  return raising(env, [&] {
    const Characters characters(env, name);
    return stores[static_cast<std::size_t>(reader)]->get(
        characters.get(), [&](const char* text) { return text == nullptr ? nullptr : env->NewStringUTF(text); });
  });
}

BENCH_METHOD(jobjectArray, subkeys)(JNIEnv* env, jclass, jstring name) {
  return raising(env, [&] { return array_of(env, stores[0]->subkeys(Characters(env, name).get())); });
}

BENCH_METHOD(void, put)(JNIEnv* env, jclass, jstring name, jstring value) {
  raising(env, [&] { stores[0]->put(Characters(env, name).get(), Characters(env, value).get()); });
}
