// Batches as Java describes them.
#ifndef TKV_JAVA_NATIVE_BATCH_REQUEST_H
#define TKV_JAVA_NATIVE_BATCH_REQUEST_H

#include <string>

#include "base/identity.h"
#include "data_reader.h"
#include "registry/client.h"

namespace tkv::java {

struct BatchRequest {
  std::string note;  // of this batch; "": that of the session
  registry::Batch batch;
};

// Reads what Batch.java has written, for an identity. False if it is incomplete or not a batch.
bool read_batch(DataReader& from, const Identity& identity, BatchRequest* request);

}  // namespace tkv::java

#endif
