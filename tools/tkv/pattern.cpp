#include "pattern.h"

#include <algorithm>
#include <cstddef>

#include "base/utf8.h"

namespace tkv::command {
namespace {

// Bytes that are not UTF-8 become characters that no text has.
constexpr std::uint32_t kFirstRawByte = 0x110000;

std::vector<std::uint32_t> characters_of(std::string_view text) {
  std::vector<std::uint32_t> characters;
  while (!text.empty()) {
    const Utf8Character character = decode_utf8(text, Utf8::standard);
    const bool valid = character.size != 0;
    characters.push_back(valid ? character.code_point : kFirstRawByte + static_cast<unsigned char>(text.front()));
    text.remove_prefix(valid ? character.size : 1);
  }
  return characters;
}

std::vector<std::string_view> levels_of(std::string_view name) {
  std::vector<std::string_view> levels;
  while (!name.empty()) {
    const std::size_t end = std::min(name.find('.'), name.size());
    levels.push_back(name.substr(0, end));
    name.remove_prefix(std::min(end + 1, name.size()));
  }
  return levels;
}

// Matches items one by one against pieces, some of which stand for any number of items. When the match fails, it goes
// back to the last such piece and lets it take one item more: going back further could not help.
template <typename Pieces, typename Items, typename IsAny, typename Accepts>
bool matches(const Pieces& pieces, const Items& items, IsAny is_any, Accepts accepts) {
  std::size_t piece = 0;
  std::size_t item = 0;
  std::size_t any = pieces.size();  // the last piece that takes any number of items, and where those end
  std::size_t end_of_any = 0;
  while (item < items.size()) {
    if (piece < pieces.size() && is_any(pieces[piece])) {
      any = piece++;
      end_of_any = item;
    } else if (piece < pieces.size() && accepts(pieces[piece], items[item])) {
      ++piece;
      ++item;
    } else if (any < pieces.size()) {
      piece = any + 1;
      item = ++end_of_any;
    } else {
      return false;
    }
  }
  return std::all_of(pieces.begin() + static_cast<std::ptrdiff_t>(piece), pieces.end(), is_any);
}

}  // namespace

bool Pattern::Piece::accepts(std::uint32_t code_point) const {
  if (kind == Kind::kCharacter) return code_point == character;
  if (kind == Kind::kAnyCharacter) return true;
  const auto holds = [&](const Range& range) { return code_point >= range.first && code_point <= range.second; };
  return std::any_of(set.begin(), set.end(), holds) != negated;
}

// Takes a set whose "[" precedes `*at`. A "]" that comes first belongs to the set.
bool Pattern::take_set(const std::vector<std::uint32_t>& text, std::size_t* at, Piece* piece) {
  std::size_t next = *at;
  const auto take = [&] {
    if (text[next] == '\\' && next + 1 < text.size()) ++next;
    return text[next++];
  };
  piece->kind = Piece::Kind::kSet;
  piece->negated = next < text.size() && (text[next] == '!' || text[next] == '^');
  if (piece->negated) ++next;
  for (bool first = true; next < text.size() && (first || text[next] != ']'); first = false) {
    const std::uint32_t low = take();
    const bool is_range = next + 1 < text.size() && text[next] == '-' && text[next + 1] != ']';
    if (is_range) ++next;
    piece->set.emplace_back(low, is_range ? take() : low);
  }
  if (next >= text.size()) return false;
  *at = next + 1;
  return true;
}

Outcome Pattern::parse(const std::string& text, Pattern* pattern) {
  const std::vector<std::uint32_t> characters = characters_of(text);
  *pattern = {};
  pattern->levels_.emplace_back();
  for (std::size_t at = 0; at < characters.size();) {
    Piece piece;
    piece.character = characters[at++];
    const bool is_dot = piece.character == '.';
    if (piece.character == '*') {
      piece.kind = Piece::Kind::kAnyText;
    } else if (piece.character == '?') {
      piece.kind = Piece::Kind::kAnyCharacter;
    } else if (piece.character == '\\' && at < characters.size()) {
      piece.character = characters[at++];
    } else if (piece.character == '[' && !take_set(characters, &at, &piece)) {
      return {Exit::kUsage, "the pattern '" + text + "' has a [ without ]; \\[ stands for the character"};
    }
    pattern->text_.push_back(piece);
    if (is_dot) {
      pattern->levels_.emplace_back();
    } else {
      pattern->levels_.back().push_back(std::move(piece));
    }
  }
  return {};
}

bool Pattern::is_any_levels(const Pieces& level) {
  return level.size() == 2 && level[0].kind == Piece::Kind::kAnyText && level[1].kind == Piece::Kind::kAnyText;
}

bool Pattern::matches_name(std::string_view utf8) const {
  const auto is_any_text = [](const Piece& piece) { return piece.kind == Piece::Kind::kAnyText; };
  const auto accepts = [](const Piece& piece, std::uint32_t character) { return piece.accepts(character); };
  const auto accepts_level = [&](const Pieces& level, std::string_view text) {
    return matches(level, characters_of(text), is_any_text, accepts);
  };
  const std::vector<std::string_view> levels = levels_of(utf8);
  if (levels.empty()) return false;
  if (levels_.size() == 1) return accepts_level(levels_.front(), levels.back());
  return matches(levels_, levels, is_any_levels, accepts_level);
}

bool Pattern::matches_text(std::string_view utf8) const {
  return matches(
      text_, characters_of(utf8), [](const Piece& piece) { return piece.kind == Piece::Kind::kAnyText; },
      [](const Piece& piece, std::uint32_t character) { return piece.accepts(character); });
}

}  // namespace tkv::command
