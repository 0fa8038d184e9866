// The check of a whole registry on etcd: every record under the prefix, at one revision.
#ifndef TKV_PLATFORM_STORE_ETCD_CHECKER_H
#define TKV_PLATFORM_STORE_ETCD_CHECKER_H

#include "store/etcd/core.h"
#include "store/store.h"

namespace tkv::store::etcd {

// As Store::check. What is still to be removed, or is being staged, is not reported; with `repair`, it is removed if
// its owner has ended. Orphans are kept as long as there is a damaged entry that may be their parent.
Status check_registry(Core& core, bool repair, FunctionRef<void(const Finding&)> report,
                      FunctionRef<void(const CheckProgress&)> progress, Totals* totals);

}  // namespace tkv::store::etcd

#endif
