// The native methods of velmar.qen.mgmt.registry.RegistryNatives, on the registry client.
#ifndef TKV_JAVA_NATIVE_REGISTRY_NATIVES_H
#define TKV_JAVA_NATIVE_REGISTRY_NATIVES_H

#include <jni.h>

namespace tkv::java {

// Registers the methods with their class, which the class loader that is loading the library must be able to find. If
// it cannot, the methods are missing and nothing else happens.
void register_registry_natives(JNIEnv* env);

}  // namespace tkv::java

#endif
