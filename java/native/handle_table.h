// HandleTable: objects that Java holds by number.
#ifndef TKV_JAVA_NATIVE_HANDLE_TABLE_H
#define TKV_JAVA_NATIVE_HANDLE_TABLE_H

#include <jni.h>

#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <utility>

#include "base/fair_mutex.h"

namespace tkv::java {

// A handle is a number that was never given out before, not an address: a closed or forged handle is always recognized.
// Whoever has found an object may use it until the end, even if its handle is removed meanwhile.
//
// Any thread may call. Lookups do not wait for each other.
template <typename Object>
class HandleTable {
 public:
  HandleTable() = default;
  HandleTable(const HandleTable&) = delete;
  HandleTable& operator=(const HandleTable&) = delete;

  jlong add(std::shared_ptr<Object> object) {
    const std::scoped_lock lock(mutex_);
    objects_.emplace(++last_, std::move(object));
    return last_;
  }

  // Returns null if the handle is not open.
  std::shared_ptr<Object> find(jlong handle) const {
    const std::shared_lock lock(mutex_);
    const auto found = objects_.find(handle);
    return found == objects_.end() ? nullptr : found->second;
  }

  // Takes an object out of the table. Returns null if the handle is not open.
  std::shared_ptr<Object> remove(jlong handle) {
    const std::scoped_lock lock(mutex_);
    const auto found = objects_.find(handle);
    if (found == objects_.end()) return nullptr;
    std::shared_ptr<Object> object = std::move(found->second);
    objects_.erase(found);
    return object;
  }

 private:
  mutable FairSharedMutex mutex_;
  std::unordered_map<jlong, std::shared_ptr<Object>> objects_;
  jlong last_ = 0;
};

}  // namespace tkv::java

#endif
