// Watching a registry: its log, and waiting for more of it.
#ifndef TKV_JAVA_NATIVE_WATCH_H
#define TKV_JAVA_NATIVE_WATCH_H

#include <jni.h>

#include <chrono>
#include <cstddef>
#include <string_view>

#include "base/change.h"
#include "base/status.h"
#include "data_writer.h"
#include "open_registry.h"

namespace tkv::java {

// What a call with a watch that is not open returns.
Status closed_watch();

// Writes the changes after a revision that concern a key or keys at most `depth` levels below it, as EventReader.java
// reads them: whether all of them are retained, the revision to go on after, and records to the end. If some are lost,
// there are no records. Stops at about 64 KiB. Any thread may call.
Status write_changes(registry::Client& client, std::string_view name, std::size_t depth, Revision after,
                     DataWriter& to);

// Waits as Client::wait, until the watch or the registry is closed, which yields PRTKV_INVALID_HANDLE. Any thread may
// call.
Status wait_for_change(OpenRegistry& open, jlong watch, Revision after, std::chrono::milliseconds timeout,
                       Revision* revision);

// Ends the waiting of a watch, and the watch. Any thread may call.
void end_watch(OpenRegistry& open, jlong watch);

}  // namespace tkv::java

#endif
