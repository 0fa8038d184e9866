// Tokens: names that are never given twice.
#ifndef TKV_PLATFORM_STORE_ETCD_TOKEN_H
#define TKV_PLATFORM_STORE_ETCD_TOKEN_H

#include <cstdint>
#include <string>
#include <string_view>

namespace tkv::store::etcd {

// 16 random bytes as 32 hexadecimal digits.
std::string random_token();

// 16 hexadecimal digits of a number, and 8 random bytes as 16 more.
std::string numbered_token(std::uint64_t number);

// The number that a token begins with, which of a random token means nothing. The largest one if there is none.
std::uint64_t number_of(std::string_view token);

// The number that the last 16 digits of a token are, which are random in every token.
std::uint64_t random_part_of(std::string_view token);

// Whether a text has the form of these tokens.
bool is_token(std::string_view text);

}  // namespace tkv::store::etcd

#endif
