// Patterns for names and values, as in shells: * any characters, ? one character, [a-z] one of a set, [!a-z] one that
// is not in it; \ takes the meaning from the next character.
#ifndef TKV_TOOLS_TKV_PATTERN_H
#define TKV_TOOLS_TKV_PATTERN_H

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "outcome.h"

namespace tkv::command {

class Pattern {
 public:
  // Fails with Exit::kUsage if a set has no end.
  static Outcome parse(const std::string& text, Pattern* pattern);

  // Matches the last level of a name or, if the pattern has several levels, the full name, level by level: * stays
  // within a level, and a level ** stands for any number of levels. The root has no levels and never matches.
  bool matches_name(std::string_view utf8) const;

  // Matches a text as a whole. Dots have no meaning.
  bool matches_text(std::string_view utf8) const;

 private:
  struct Piece {
    enum class Kind { kCharacter, kAnyCharacter, kAnyText, kSet };
    using Range = std::pair<std::uint32_t, std::uint32_t>;

    Kind kind = Kind::kCharacter;
    std::uint32_t character = 0;
    bool negated = false;
    std::vector<Range> set;

    bool accepts(std::uint32_t code_point) const;
  };
  using Pieces = std::vector<Piece>;

  static bool take_set(const std::vector<std::uint32_t>& text, std::size_t* at, Piece* piece);
  static bool is_any_levels(const Pieces& level);

  Pieces text_;
  std::vector<Pieces> levels_;
};

}  // namespace tkv::command

#endif
