// Rights as people write them: letters, numbers, and changes to what stands.
//
// The letters, always in this order: r read, l list, w write, s security, c create, d delete.
#ifndef TKV_TOOLS_TKV_MASKS_H
#define TKV_TOOLS_TKV_MASKS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "outcome.h"
#include "sec_attr.h"

namespace tkv::command {

// One mask in six columns, "-" where a right is missing: 0x34 is "--w-cd".
std::string columns_of(std::int32_t mask);

// The three masks as a mode that parses back to them: "u=rlwscd,g=wcd,o=rl". Bits without a letter make that mask a
// number.
std::string mode_of(const sec_attr& security);

// The three masks as numbers: "0x3f,0x34,0x3", a mode too.
std::string numbers_of(const sec_attr& security);

// A change of masks. Either three numbers "0x3f,0x34,0x3" (hexadecimal with 0x, or decimal), or clauses joined by
// commas: who is "u", "g", "o", several of them, or "a" for all; then "+", "-" or "="; then letters, nothing, or a
// number. "u=rlw,g+r,o=" is a mode.
class Mode {
 public:
  static Outcome parse(std::string_view text, Mode* mode);

  void apply_to(sec_attr* security) const;

 private:
  struct Clause {
    bool user = false;
    bool group = false;
    bool other = false;
    char change = '=';
    std::int32_t mask = 0;
  };
  static Outcome parse_clause(std::string_view text, Clause* clause);

  std::vector<Clause> clauses_;
};

// Letters or a number as one mask: "rl", "0x3".
Outcome parse_rights(std::string_view text, std::int32_t* mask);

// "OWNER", "OWNER:GROUP" or ":GROUP"; "OWNER:" leaves the group. At least one of both.
struct Ownership {
  std::optional<std::string> owner;
  std::optional<std::string> group;

  static Outcome parse(std::string_view text, Ownership* ownership);
  Outcome apply_to(sec_attr* security) const;
};

}  // namespace tkv::command

#endif
