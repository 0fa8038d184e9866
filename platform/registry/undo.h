// The way back from a change: a batch that makes what it touched what it was before.
#ifndef TKV_PLATFORM_REGISTRY_UNDO_H
#define TKV_PLATFORM_REGISTRY_UNDO_H

#include "base/change.h"
#include "registry/batch.h"
#include "registry/tree.h"

namespace tkv::registry {

// `before` and `after` are the states around the change. The batch's conditions say that nothing that the change
// touched was changed since. What the change has made and undone itself needs nothing.
Status plan_undo(Reader& before, Reader& after, const ChangeRecord& change, Batch* inverse);

}  // namespace tkv::registry

#endif
