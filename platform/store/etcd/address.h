// Addresses of an etcd cluster's members, as they are configured: "etcd://host:port".
#ifndef TKV_PLATFORM_STORE_ETCD_ADDRESS_H
#define TKV_PLATFORM_STORE_ETCD_ADDRESS_H

#include <string>
#include <string_view>

#include "base/status.h"

namespace tkv::store {

constexpr const char* kEtcdScheme = "etcd://";

// Takes an address apart, "host:port" into `*endpoint`. Returns PRTKV_INVALID_ARGUMENT with a text if it is malformed.
// The host is a name, an IPv4 address, or an IPv6 address in brackets. Any thread may call.
Status parse_etcd_address(std::string_view address, std::string* endpoint);

}  // namespace tkv::store

#endif
