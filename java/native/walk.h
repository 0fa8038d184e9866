// Walks that Java reads block by block.
#ifndef TKV_JAVA_NATIVE_WALK_H
#define TKV_JAVA_NATIVE_WALK_H

#include <jni.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "base/status.h"
#include "registry/client.h"

namespace tkv::java {

// A part of a walk's entries, and where to get the next one.
struct WalkBlock {
  std::string entries;  // one after another, as Entry.java decodes them
  jlong rest = 0;       // handle of the blocks that follow; none after the last
};

// Walks over what is below a key, at most `depth` levels deep, on one state. The entries are collected in memory before
// the first of them is delivered: a walk that waited for its reader in the middle would hold a read transaction, which
// keeps writers from enlarging the registry's file, and the writer may be the reader itself.
//
// Values come with the entries of keys that may be read. A key whose subkeys may not be listed yields
// PRTKV_ACCESS_DENIED. Any thread may call.
Status begin_walk(registry::KeyReader& reader, std::string_view name, std::size_t depth, WalkBlock* first);

// Delivers the next block. Returns PRTKV_INVALID_HANDLE if `rest` is not open. Any thread may call.
Status continue_walk(jlong rest, WalkBlock* next);

// Discards the blocks that follow, if there are any. Any thread may call.
void end_walk(jlong rest);

}  // namespace tkv::java

#endif
