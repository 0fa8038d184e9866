// The check of a whole registry on etcd: every record under the prefix, at one revision.
#ifndef TKV_PLATFORM_STORE_ETCD_CHECKER_H
#define TKV_PLATFORM_STORE_ETCD_CHECKER_H

#include "store/etcd/core.h"
#include "store/store.h"

namespace tkv::store::etcd {

// As Store::check. Keys that wait to be removed or that are staged are not reported. With `repair`, they are removed if
// their owner's session has ended, and large changes that cannot be finished are put right first (see change_repair.h);
// if the repair fails afterwards, the message says which of them are half made.
Status check_registry(Core& core, const ChangeDescription* repair, FunctionRef<void(const Finding&)> report,
                      FunctionRef<void(const CheckProgress&)> progress, Totals* totals);

}  // namespace tkv::store::etcd

#endif
