// Opening the registry that Java asks for.
#ifndef TKV_JAVA_NATIVE_OPEN_REQUEST_H
#define TKV_JAVA_NATIVE_OPEN_REQUEST_H

#include <jni.h>

#include "base/status.h"
#include "data_reader.h"

namespace tkv::java {

// Opens what RegistryOptions.java describes and sets `*handle`. Any thread may call.
Status open_requested(DataReader& request, jlong* handle);

}  // namespace tkv::java

#endif
