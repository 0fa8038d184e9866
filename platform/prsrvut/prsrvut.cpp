#include "prsrvut.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "base/utf8.h"
#include "prsrvut/ascii_string.h"
#include "prsrvut/method_cache.h"
#include "prsrvut/native_call.h"
#include "prsrvut/native_text.h"
#include "prsrvut/trace_switch.h"

namespace tkv::prsrvut {
namespace {

// Sets a pending exception aside and raises it again at the end of the scope, in place of any raised meanwhile. Within
// a NativeCall, either is deferred to the end of that.
class PendingException {
 public:
  explicit PendingException(JNIEnv* env) : env_(env) {
    if (env->ExceptionCheck() != JNI_TRUE) return;
    exception_ = env->ExceptionOccurred();
    env->ExceptionClear();
  }

  ~PendingException() {
    if (exception_ == nullptr && !may_have_raised_) return;
    if (NativeCall* call = NativeCall::current()) {
      defer_to(call);
    } else if (exception_ != nullptr) {
      raise();
    }
  }

  PendingException(const PendingException&) = delete;
  PendingException& operator=(const PendingException&) = delete;

  // Declares that nothing done in the scope can have raised an exception, which saves the check for one.
  void set_raised_nothing() { may_have_raised_ = false; }

 private:
  void raise() {
    env_->ExceptionClear();
    env_->Throw(exception_);
    env_->DeleteLocalRef(exception_);
  }

  void defer_to(NativeCall* call) {
    if (exception_ != nullptr) call->defer(exception_);
    if (!may_have_raised_ || env_->ExceptionCheck() != JNI_TRUE) return;
    jthrowable raised = env_->ExceptionOccurred();
    env_->ExceptionClear();
    call->defer(raised);
  }

  JNIEnv* env_;
  jthrowable exception_ = nullptr;
  bool may_have_raised_ = true;
};

// Deletes a local reference at the end of its scope.
class LocalRef {
 public:
  LocalRef(JNIEnv* env, jobject object) : env_(env), object_(object) {}
  ~LocalRef() {
    if (object_ != nullptr) env_->DeleteLocalRef(object_);
  }
  LocalRef(const LocalRef&) = delete;
  LocalRef& operator=(const LocalRef&) = delete;

  jobject get() const { return object_; }

 private:
  JNIEnv* env_;
  jobject object_;
};

// A buffer of `size` elements, on the stack if it is short, as nearly every text is.
template <typename Element, std::size_t kOnStack>
class Buffer {
 public:
  explicit Buffer(std::size_t size)
      : heap_(size > kOnStack ? std::make_unique_for_overwrite<Element[]>(size) : nullptr),
        data_(heap_ ? heap_.get() : stack_) {}
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  Element* data() { return data_; }

 private:
  Element stack_[kOnStack];
  std::unique_ptr<Element[]> heap_;
  Element* data_;
};

constexpr std::size_t kShortText = 512;

// Whether a signature is that of a void method with one argument, such as "(I)V": the call reads exactly one.
bool takes_one_argument(std::string_view signature) {
  if (!signature.starts_with('(') || !signature.ends_with(")V")) return false;
  std::string_view type = signature.substr(1, signature.size() - 3);
  while (type.starts_with('[')) type.remove_prefix(1);
  if (type.size() == 1) return std::string_view("ZBCSIJFD").find(type[0]) != std::string_view::npos;
  return type.size() > 2 && type.starts_with('L') && type.find(';') == type.size() - 1;
}

// Sets a field of the type that a setter's signature names.
void set_field(JNIEnv* env, jobject object, jfieldID field, char type, const jvalue& value) {
  switch (type) {
    case 'Z':
      return env->SetBooleanField(object, field, value.z);
    case 'I':
      return env->SetIntField(object, field, value.i);
    default:
      return env->SetObjectField(object, field, value.l);
  }
}

// Calls a void method with one argument, or sets the field if the method does nothing else. Returns false if there is
// no such method.
bool call(JNIEnv* env, PendingException* pending, jobject result, const char* name, const char* signature,
          const jvalue* argument) {
  const Method method = find_method(env, result, name, signature);
  if (method.only_sets != nullptr) {
    set_field(env, result, method.only_sets, signature[1], *argument);
    pending->set_raised_nothing();
    return true;
  }
  if (method.id == nullptr) return false;
  env->CallVoidMethodA(result, method.id, argument);
  // An exception of the method stays pending for the caller. The check tells the JVM that it was not overlooked.
  static_cast<void>(env->ExceptionCheck());
  return true;
}

void set_flag(JNIEnv* env, jobject result, const char* method, bool value) {
  PendingException pending(env);
  jvalue argument{};
  argument.z = value ? JNI_TRUE : JNI_FALSE;
  call(env, &pending, result, method, "(Z)V", &argument);
}

jstring new_string(JNIEnv* env, std::string_view text) {
  Buffer<jchar, kShortText> units(text.size());
  const auto count = utf8_to_utf16(text, units.data(), text.size(), IllFormed::replace);
  if (!count || *count > INT32_MAX) return nullptr;
  return env->NewString(units.data(), static_cast<jsize>(*count));
}

void trace_line(JNIEnv* env, jobject result, std::string_view line) {
  PendingException pending(env);
  const LocalRef text(env, new_string(env, line));
  if (text.get() == nullptr) return;
  jvalue argument{};
  argument.l = text.get();
  call(env, &pending, result, "trace", "(Ljava/lang/String;)V", &argument);
}

// A null string is printed as "(null)", as the C library prints it.
void format_and_trace(JNIEnv* env, jobject result, const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  char line[kShortText];
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has started it
  const int length = std::vsnprintf(line, sizeof(line), format, arguments);
  const auto size = static_cast<std::size_t>(length);
  if (length >= 0 && size < sizeof(line)) {
    trace_line(env, result, {line, size});
  } else if (length >= 0) {
    const std::unique_ptr<char[]> longer(new (std::nothrow) char[size + 1]);
    if (longer != nullptr && std::vsnprintf(longer.get(), size + 1, format, again) == length) {
      trace_line(env, result, {longer.get(), size});
    }
  }
  va_end(again);
}

// Returns java.lang.String, the class that nearly every lookup asks for. Other classes depend on the caller's loader.
jclass string_class(JNIEnv* env) {
  static std::atomic<jclass> kept{nullptr};
  jclass known = kept.load(std::memory_order_acquire);
  if (known != nullptr) return static_cast<jclass>(env->NewLocalRef(known));
  jclass found = env->FindClass("java/lang/String");
  if (found == nullptr) return nullptr;
  auto reference = static_cast<jclass>(env->NewGlobalRef(found));
  if (reference != nullptr && !kept.compare_exchange_strong(known, reference)) env->DeleteGlobalRef(reference);
  return found;
}

// Makes room for a local reference to each element and a few more, which may exceed the default.
void make_room_for_references(JNIEnv* env, jsize length) {
  constexpr jsize kOthers = 16;
  const jsize wanted = length > INT32_MAX - kOthers ? length : length + kOthers;
  // The JVM guarantees only a limited number, but references beyond it still work.
  if (env->EnsureLocalCapacity(wanted) != JNI_OK) env->ExceptionClear();
}

int native_string(JNIEnv* env, jstring text, char* buffer, int* size) {
  const jsize length = env->GetStringLength(text);
  Buffer<jchar, kShortText> units(static_cast<std::size_t>(length));
  env->GetStringRegion(text, 0, length, units.data());
  // jchar and char16_t are both 16 bits wide, but not the same type.
  const std::u16string characters(units.data(), units.data() + length);
  return write_native_text(characters, buffer, size);
}

}  // namespace
}  // namespace tkv::prsrvut

using tkv::prsrvut::PendingException;

extern "C" void prsrvut_setStatus(JNIEnv* env, jobject result, int status) {
  if (result == nullptr) return;
  tkv::prsrvut::set_flag(env, result, "setStatus", status != 0);
}

extern "C" void prsrvut_setBooleanResult(JNIEnv* env, jobject result, int value) {
  if (result == nullptr) return;
  tkv::prsrvut::set_flag(env, result, "setBooleanResult", value != 0);
}

extern "C" int prsrvut_callMethod(JNIEnv* env, jobject result, const char* name, const char* signature, jvalue* args) {
  if (result == nullptr || name == nullptr || signature == nullptr || args == nullptr) return -1;
  // "<init>" must not be called on an existing object.
  if (*name == '<' || !tkv::prsrvut::takes_one_argument(signature)) return -1;
  PendingException pending(env);
  return tkv::prsrvut::call(env, &pending, result, name, signature, args) ? 0 : -1;
}

extern "C" void prsrvut_trace(JNIEnv* env, jobject result, const char* format, ...) {
  if (!tkv::prsrvut::is_tracing() || result == nullptr || format == nullptr) return;
  va_list arguments;
  va_start(arguments, format);
  try {
    tkv::prsrvut::format_and_trace(env, result, format, arguments);
  } catch (const std::bad_alloc&) {
    // Only the trace line is lost.
  }
  va_end(arguments);
}

extern "C" int prsrvut_isDebugOn(JNIEnv* /*env*/, jobject /*result*/) { return tkv::prsrvut::is_tracing() ? 1 : 0; }

extern "C" jstring prsrvut_NewStringUTF(JNIEnv* env, const char* text) {
  if (text == nullptr) return nullptr;
  PendingException pending(env);
  try {
    jstring string =
        tkv::is_ascii(text) ? tkv::prsrvut::new_ascii_string(env, text) : tkv::prsrvut::new_string(env, text);
    if (string != nullptr) pending.set_raised_nothing();
    return string;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

extern "C" jstring prsrvut_NewString(JNIEnv* env, const jchar* units, jsize count) {
  if (units == nullptr || count < 0) return nullptr;
  PendingException pending(env);
  jstring string = env->NewString(units, count);
  if (string != nullptr) pending.set_raised_nothing();
  return string;
}

extern "C" jclass prsrvut_FindClass(JNIEnv* env, const char* name) {
  if (name == nullptr) return nullptr;
  const PendingException pending(env);
  return std::strcmp(name, "java/lang/String") == 0 ? tkv::prsrvut::string_class(env) : env->FindClass(name);
}

extern "C" jobjectArray prsrvut_NewObjectArray(JNIEnv* env, jsize length, jclass element, jobject initial) {
  if (length < 0 || element == nullptr) return nullptr;
  const PendingException pending(env);
  if (initial != nullptr && env->IsInstanceOf(initial, element) != JNI_TRUE) return nullptr;
  jobjectArray array = env->NewObjectArray(length, element, initial);
  if (array != nullptr) tkv::prsrvut::make_room_for_references(env, length);
  return array;
}

extern "C" int prsrvut_getNativeString(JNIEnv* env, jstring text, char* buffer, int* size) {
  if (buffer == nullptr || size == nullptr) return tkv::prsrvut::kNullArgument;
  const int capacity = *size;
  int outcome = tkv::prsrvut::kNullArgument;
  if (text != nullptr) {
    const PendingException pending(env);
    try {
      outcome = tkv::prsrvut::native_string(env, text, buffer, size);
    } catch (const std::bad_alloc&) {
      outcome = tkv::prsrvut::kOutOfMemory;
    }
  }
  if (outcome < 0 && capacity > 0) *buffer = '\0';
  return outcome;
}
