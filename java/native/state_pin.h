// Memory that Java reads without a native call: it stays until Java can no longer read it.
#ifndef TKV_JAVA_NATIVE_STATE_PIN_H
#define TKV_JAVA_NATIVE_STATE_PIN_H

#include <jni.h>

#include <memory>

#include "base/state_memory.h"

namespace tkv::java {

// Keeps the memory readable until it is unpinned, also after its registry has been closed. Returns a handle, or zero if
// there is no memory. Zero also if too many pins are waiting for Java's garbage collector: each may take one of the
// areas of memory that a process can have. Any thread may call.
jlong pin_state(std::shared_ptr<const StateMemory> memory);

// Looks up what is pinned. Returns null if the handle is not open. Any thread may call.
std::shared_ptr<const StateMemory> pinned_state(jlong pin);

// Closes a handle, if it is open. Nobody may be reading the memory. Any thread may call.
void unpin_state(jlong pin);

}  // namespace tkv::java

#endif
