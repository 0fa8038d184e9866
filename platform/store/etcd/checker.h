// The check of a whole registry on etcd: every record under the prefix, as they stand at one revision.
#ifndef TKV_PLATFORM_STORE_ETCD_CHECKER_H
#define TKV_PLATFORM_STORE_ETCD_CHECKER_H

#include "store/etcd/core.h"
#include "store/store.h"

namespace tkv::store::etcd {

// As Store::check. What waits to be removed, or is being built aside, is in nobody's way and not reported; with
// `repair` it is removed when its owner is gone. Entries that hang on nothing are left alone while there is a damaged
// entry, below which they may belong.
Status check_registry(Core& core, bool repair, FunctionRef<void(const Finding&)> report,
                      FunctionRef<void(const CheckProgress&)> progress, Totals* totals);

}  // namespace tkv::store::etcd

#endif
