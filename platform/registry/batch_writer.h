// Making a batch: its conditions and operations on a tree.
#ifndef TKV_PLATFORM_REGISTRY_BATCH_WRITER_H
#define TKV_PLATFORM_REGISTRY_BATCH_WRITER_H

#include "registry/batch.h"
#include "registry/tree.h"

namespace tkv::registry {

// As Client::commit, but leaves `result->revision` as it is.
Status write_batch(Writer& tree, const Batch& batch, CommitResult* result);

// Only the conditions.
Status check_conditions(Reader& tree, const Batch& batch, CommitResult* result);

// Replaces the conditions by others: that what the operations replace, move or delete is still as `present` shows it.
Status expect_present(Reader& present, Batch* batch);

}  // namespace tkv::registry

#endif
