// Owners: who left something in the cluster, as a line of text that other processes can judge.
#ifndef TKV_PLATFORM_STORE_ETCD_OWNER_H
#define TKV_PLATFORM_STORE_ETCD_OWNER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace tkv::store::etcd {

// This process: "<boot id of the machine> <process namespace> <process> <its start>", without line breaks.
std::string this_owner();

// Whether the owner is known to have ended. False if that is unknown: for owners on other machines or in other process
// namespaces, and for processes that the system hides.
bool has_ended(std::string_view owner);

// Seconds since 1970.
std::int64_t seconds_now();

// 16 random bytes as 32 hexadecimal digits.
std::string random_token();

// Whether a text is what random_token() makes.
bool is_token(std::string_view text);

}  // namespace tkv::store::etcd

#endif
