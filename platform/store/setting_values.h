// Values of settings that several parts of a configuration have in common. A check fails with
// PRTKV_INVALID_CONFIGURATION and the reason.
#ifndef TKV_PLATFORM_STORE_SETTING_VALUES_H
#define TKV_PLATFORM_STORE_SETTING_VALUES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/status.h"

namespace tkv::store {

constexpr std::size_t kMaxPathSize = 4095;  // bytes of a file's path

inline Status refuse(std::string reason) { return {PRTKV_INVALID_CONFIGURATION, std::move(reason)}; }

Status check_absolute_path(const std::string& value, std::size_t max_size);

// An absolute path of a file.
Status check_file(const std::string& value);

// A name of a user or a group: without blanks and ":".
Status check_account(const std::string& value, std::size_t max_size);

// "yes", "true", "on" or "1"; "no", "false", "off" or "0".
Status parse_yes_or_no(const std::string& value, bool* answer);

// A number of milliseconds from `least` to 600000.
Status parse_milliseconds(const std::string& value, std::uint64_t least, int* milliseconds);

// The same for the timeout of an operation, from 100.
Status parse_timeout(const std::string& value, int* milliseconds);
Status check_timeout(const std::string& value);

// Takes a decimal number off the front of `text`. False if there is none or it is too large.
bool take_number(std::string_view* text, std::uint64_t* number);

}  // namespace tkv::store

#endif
