// Which releases of etcd a registry can be kept on.
#ifndef TKV_PLATFORM_STORE_ETCD_SERVER_VERSION_H
#define TKV_PLATFORM_STORE_ETCD_SERVER_VERSION_H

#include <string_view>

#include "base/status.h"

namespace tkv::store::etcd {

// Judges the version that a server reports, such as "3.4.23". PRTKV_UNUSABLE with the reason if it is older than 3.4,
// or one of 3.5.0 to 3.5.2: after a crash, a member of these may take data for applied that was never written, so that
// members differ from then on.
Status check_server_version(std::string_view version);

}  // namespace tkv::store::etcd

#endif
