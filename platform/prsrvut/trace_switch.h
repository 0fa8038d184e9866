// The tracing switch: an int in a direct buffer of the Java side, non-zero if tracing is on.
#ifndef TKV_PLATFORM_PRSRVUT_TRACE_SWITCH_H
#define TKV_PLATFORM_PRSRVUT_TRACE_SWITCH_H

#include <jni.h>

#include <atomic>

namespace tkv::prsrvut {

// The address of the switch: the buffer's memory, or a constant 0 if there is no buffer.
extern std::atomic<const int*> trace_switch;

// Any thread may call. Java may change the switch while native code reads it.
inline bool is_tracing() {
  return __atomic_load_n(trace_switch.load(std::memory_order_relaxed), __ATOMIC_RELAXED) != 0;
}

}  // namespace tkv::prsrvut

#endif
