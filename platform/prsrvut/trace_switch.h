// The switch of tracing, which the Java side owns: an int in a direct buffer, non-zero when tracing is on.
#ifndef TKV_PLATFORM_PRSRVUT_TRACE_SWITCH_H
#define TKV_PLATFORM_PRSRVUT_TRACE_SWITCH_H

#include <jni.h>

#include <atomic>

namespace tkv::prsrvut {

// Where the switch is: the buffer's memory, or a constant 0 while there is no buffer.
extern std::atomic<const int*> trace_switch;

// Any thread may call. The switch itself is changed by Java while native code reads it.
inline bool is_tracing() {
  return __atomic_load_n(trace_switch.load(std::memory_order_relaxed), __ATOMIC_RELAXED) != 0;
}

}  // namespace tkv::prsrvut

#endif
