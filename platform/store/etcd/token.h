// Tokens: names that are never given twice.
#ifndef TKV_PLATFORM_STORE_ETCD_TOKEN_H
#define TKV_PLATFORM_STORE_ETCD_TOKEN_H

#include <string>
#include <string_view>

namespace tkv::store::etcd {

// 16 random bytes as 32 hexadecimal digits.
std::string random_token();

// Whether a text is what random_token() makes.
bool is_token(std::string_view text);

}  // namespace tkv::store::etcd

#endif
