// Rights as people write them: letters, numbers, and changes of either.
//
// The letters, always in this order: r read, l list, w write, s change security, c create, d delete.
#ifndef TKV_TOOLS_TKV_MASKS_H
#define TKV_TOOLS_TKV_MASKS_H

#include <cstdint>
#include <string>
#include <string_view>

#include "outcome.h"
#include "registry/client.h"
#include "sec_attr.h"

namespace tkv::command {

// One mask in six columns, with "-" in place of a missing right: 0x34 is "--w-cd".
std::string columns_of(std::int32_t mask);

// The three masks as a mode that parses back to them: "u=rlwscd,g=wcd,o=rl". A mask with bits that have no letter is
// written as a number.
std::string mode_of(const sec_attr& security);

// The three masks as numbers, which are a mode too: "0x3f,0x34,0x3".
std::string numbers_of(const sec_attr& security);

// Parses a mode: three numbers, "0x3f,0x34,0x3" (hexadecimal with 0x, else decimal), or clauses separated by commas,
// "u=rlw,g+r,o=". A clause consists of one or more of "u", "g", "o" and "a" (all), then "+", "-" or "=", then letters,
// nothing, or a number. Sets the masks of `*change` and nothing else.
Outcome parse_mode(std::string_view text, registry::SecurityChange* change);

// Tells whether the masks that result from a change do not depend on what they were.
bool sets_all_masks(const registry::SecurityChange& change);

// Parses one mask, letters or a number: "rl", "0x3".
Outcome parse_rights(std::string_view text, std::int32_t* mask);

// Parses "OWNER", "OWNER:GROUP" or ":GROUP"; "OWNER:" leaves the group as it is. Sets the names of `*change` and
// nothing else. Names that are too long for a security record yield Exit::kUsage.
Outcome parse_ownership(std::string_view text, registry::SecurityChange* change);

}  // namespace tkv::command

#endif
