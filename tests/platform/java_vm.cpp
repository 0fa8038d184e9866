#include "java_vm.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

// The JVM uses SIGSEGV itself, and what it keeps until the process ends is not a leak.
extern "C" __attribute__((visibility("default"), used)) const char* __asan_default_options() {
  return "handle_segv=0:allow_user_segv_handler=1:detect_leaks=0";
}

namespace tkv::test {
namespace {

std::mutex output_mutex;
std::string output;

__attribute__((format(printf, 2, 0))) jint collect(FILE* /*stream*/, const char* format, va_list arguments) {
  char* text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  if (length < 0) return length;
  const std::lock_guard lock(output_mutex);
  output += text;
  std::free(text);
  return length;
}

}  // namespace

JavaVm& JavaVm::instance() {
  static JavaVm vm;
  return vm;
}

JavaVm::JavaVm() {
  std::string class_path = "-Djava.class.path=" TKV_TEST_CLASSES;
  std::string check = "-Xcheck:jni";
  std::string heap = "-Xmx64m";
  std::string printer = "vfprintf";
  JavaVMOption options[] = {
      {class_path.data(), nullptr},
      {check.data(), nullptr},
      {heap.data(), nullptr},
      {printer.data(), reinterpret_cast<void*>(collect)},
  };
  JavaVMInitArgs arguments{JNI_VERSION_1_8, std::size(options), options, JNI_FALSE};
  void* env = nullptr;
  if (JNI_CreateJavaVM(&vm_, &env, &arguments) != JNI_OK) {
    std::fprintf(stderr, "no JVM: %s\n", output.c_str());
    std::abort();
  }
  env_ = static_cast<JNIEnv*>(env);
}

std::string JavaVm::take_output() {
  const std::lock_guard lock(output_mutex);
  return std::exchange(output, {});
}

}  // namespace tkv::test
