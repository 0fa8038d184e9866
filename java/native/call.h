// What every native method of RegistryNatives has in common: arguments, the reply, and failures.
//
// A reply is null if there is nothing to say: the call has succeeded and has no result. Otherwise it is a byte array
// that begins with the result code, 32 bits, followed by the result of the call or, after a failure, by a message in
// UTF-8. If there is no memory for a reply, an OutOfMemoryError is pending.
#ifndef TKV_JAVA_NATIVE_CALL_H
#define TKV_JAVA_NATIVE_CALL_H

#include <jni.h>

#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "base/limits.h"
#include "base/status.h"
#include "data_writer.h"
#include "open_registry.h"

namespace tkv::java {

// The characters of a string, in modified UTF-8; none of null. Those of a name that can be valid are copied to the
// stack.
class StringArgument {
 public:
  // Throws std::bad_alloc.
  StringArgument(JNIEnv* env, jstring string);
  StringArgument(const StringArgument&) = delete;
  StringArgument& operator=(const StringArgument&) = delete;

  std::string_view view() const { return view_; }

 private:
  static constexpr std::size_t kMostBytes = 3;  // of a UTF-16 unit

  char near_[kMostBytes * kMaxNameSize + 1];
  std::string far_;
  std::string_view view_;
};

// The bytes of an array. Throws std::bad_alloc.
std::string bytes_of(JNIEnv* env, jbyteArray array);

// The result code of a success, which its reply begins with.
constexpr std::string_view kSuccess("\0\0\0\0", 4);

jbyteArray array_of(JNIEnv* env, std::string_view bytes) noexcept;
jbyteArray failure(JNIEnv* env, const Status& status) noexcept;

// Makes a call that returns a reply.
template <typename Call>
jbyteArray reply_of(JNIEnv* env, Call&& call) noexcept {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    return failure(env, PRTKV_OUT_OF_MEMORY);
  }
}

// Makes a call that returns a Status and appends its result to the DataWriter that it is given.
template <typename Call>
jbyteArray reply_to(JNIEnv* env, Call&& call) noexcept {
  return reply_of(env, [&] {
    std::string reply(kSuccess);
    DataWriter result(&reply);
    const Status status = call(result);
    if (!status.ok()) return failure(env, status);
    return reply.size() == kSuccess.size() ? nullptr : array_of(env, reply);
  });
}

// As reply_to, for calls on an open registry.
template <typename Call>
jbyteArray call_registry(JNIEnv* env, jlong handle, Call&& call) noexcept {
  return reply_to(env, [&](DataWriter& result) -> Status {
    const RegistryUse open(handle);
    if (!open) return closed_registry();
    return call(*open, result);
  });
}

// As call_registry, for calls that need no more than the client.
template <typename Call>
jbyteArray read_registry(JNIEnv* env, jlong handle, Call&& call) noexcept {
  return call_registry(env, handle,
                       [&](OpenRegistry& open, DataWriter& result) -> Status { return call(open.client(), result); });
}

// As call_registry, for calls that read the present or a snapshot.
template <typename Call>
jbyteArray read_state(JNIEnv* env, jlong handle, jlong snapshot, Call&& call) noexcept {
  return call_registry(env, handle, [&](OpenRegistry& open, DataWriter& result) -> Status {
    if (snapshot == kPresent) return call(open.client(), result);
    const std::shared_ptr<registry::Snapshot> found = open.snapshots().find(snapshot);
    if (found == nullptr) return {PRTKV_INVALID_HANDLE, "the snapshot is closed"};
    return call(*found, result);
  });
}

// As read_registry, for calls that change the registry.
template <typename Call>
jbyteArray change_registry(JNIEnv* env, jlong handle, Call&& call) noexcept {
  return call_registry(env, handle, [&](OpenRegistry& open, DataWriter& result) -> Status {
    if (Status status = open.check_writable(); !status.ok()) return status;
    return call(open.client(), result);
  });
}

}  // namespace tkv::java

#endif
