// What a registry on etcd tells about its cluster and about what sessions have under way.
#ifndef TKV_PLATFORM_STORE_ETCD_CLUSTER_STATUS_H
#define TKV_PLATFORM_STORE_ETCD_CLUSTER_STATUS_H

#include "base/status.h"
#include "store/etcd/core.h"
#include "store/etcd/kv.h"
#include "store/store.h"

namespace tkv::store::etcd {

// Fills in the members, alarms, sizes and retries. Of several endpoints of one member, the last that has answered
// counts. An endpoint that does not answer is assigned to the member that names its address; without one, or if the
// user may not list the members, it is shown as a member without a name. The leader is that of the latest election that
// any member knows of. The size is that of the largest database, the limit the lowest quota.
void describe_cluster(const ClusterAnswer& answer, StoreStatus* status);

// Asks the cluster, and counts what is under way, at one revision. Succeeds as long as the cluster serves requests,
// however many of its members do not answer.
Status read_cluster_status(Core& core, StoreStatus* status);

}  // namespace tkv::store::etcd

#endif
