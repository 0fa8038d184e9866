#include "masks.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <vector>

namespace tkv::command {
namespace {

struct Letter {
  char letter;
  std::int32_t right;
};
constexpr std::array<Letter, 6> kLetters{{{'r', TKV_RIGHT_READ},
                                          {'l', TKV_RIGHT_LIST},
                                          {'w', TKV_RIGHT_WRITE},
                                          {'s', TKV_RIGHT_SECURITY},
                                          {'c', TKV_RIGHT_CREATE},
                                          {'d', TKV_RIGHT_DELETE}}};

std::string hexadecimal(std::int32_t mask) {
  char text[16];
  static_cast<void>(std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(mask)));
  return text;
}

std::string letters_of(std::int32_t mask) {
  if ((mask & ~TKV_RIGHT_ALL) != 0) return hexadecimal(mask);
  std::string text;
  for (const Letter& each : kLetters) {
    if ((mask & each.right) != 0) text.push_back(each.letter);
  }
  return text;
}

bool parse_number(std::string_view text, std::int32_t* mask) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  if (hex) text.remove_prefix(2);
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, hex ? 16 : 10);
  if (error != std::errc() || end != text.data() + text.size() || number > TKV_RIGHT_ALL) return false;
  *mask = static_cast<std::int32_t>(number);
  return true;
}

Outcome bad_mode(std::string_view text) {
  return {Exit::kUsage,
          "'" + std::string(text) +
              "' is not a mode; write three numbers such as 0x3f,0x34,0x3, or clauses such as u=rlw,g+r,o= with "
              "the rights r (read), l (list), w (write), s (security), c (create) and d (delete)"};
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (std::size_t start = 0;;) {
    const std::size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end - start));
    if (end == std::string_view::npos) return parts;
    start = end + 1;
  }
}

// Makes a clause a part of what is done to a mask: bits are cleared first, then set.
void add_clause(char operation, std::int32_t mask, registry::MaskChange* change) {
  if (operation == '+') {
    change->set |= mask;
  } else if (operation == '-') {
    change->clear |= mask;
    change->set &= ~mask;
  } else {
    *change = {~0, mask};
  }
}

// Parses one clause and adds it to the masks that it names.
Outcome parse_clause(std::string_view text, registry::SecurityChange* change) {
  const std::size_t at = text.find_first_of("+-=");
  if (at == 0 || at == std::string_view::npos) return bad_mode(text);
  const std::string_view classes = text.substr(0, at);
  if (classes.find_first_not_of("ugoa") != std::string_view::npos) return bad_mode(text);
  std::int32_t mask = 0;
  if (Outcome parsed = parse_rights(text.substr(at + 1), &mask); !parsed.ok()) return parsed;
  const auto names = [&](char letter) {
    return classes.find(letter) != std::string_view::npos || classes.find('a') != std::string_view::npos;
  };
  if (names('u')) add_clause(text[at], mask, &change->owner_mask);
  if (names('g')) add_clause(text[at], mask, &change->group_mask);
  if (names('o')) add_clause(text[at], mask, &change->other_mask);
  return {};
}

bool sets_all(const registry::MaskChange& change) {
  return ((change.clear | change.set) & TKV_RIGHT_ALL) == TKV_RIGHT_ALL;
}

}  // namespace

std::string columns_of(std::int32_t mask) {
  std::string text;
  for (const Letter& each : kLetters) text.push_back((mask & each.right) != 0 ? each.letter : '-');
  return text;
}

std::string mode_of(const sec_attr& security) {
  return "u=" + letters_of(security.user_perm) + ",g=" + letters_of(security.group_perm) +
         ",o=" + letters_of(security.other_perm);
}

std::string numbers_of(const sec_attr& security) {
  return hexadecimal(security.user_perm) + "," + hexadecimal(security.group_perm) + "," +
         hexadecimal(security.other_perm);
}

Outcome parse_rights(std::string_view text, std::int32_t* mask) {
  *mask = 0;
  if (!text.empty() && text.front() >= '0' && text.front() <= '9') {
    if (parse_number(text, mask)) return {};
    return {Exit::kUsage, "'" + std::string(text) + "' is not a mask: the largest is 0x3f"};
  }
  for (const char letter : text) {
    std::int32_t right = 0;
    for (const Letter& each : kLetters) {
      if (each.letter == letter) right = each.right;
    }
    if (right == 0) {
      return {Exit::kUsage, std::string("'") + letter + "' is not a right; the rights are r, l, w, s, c and d"};
    }
    *mask |= right;
  }
  return {};
}

Outcome parse_mode(std::string_view text, registry::SecurityChange* change) {
  const std::vector<std::string_view> parts = split(text, ',');
  std::array<std::int32_t, 3> masks{};
  change->owner_mask = change->group_mask = change->other_mask = {};
  if (parts.size() == 3 && parse_number(parts[0], &masks[0]) && parse_number(parts[1], &masks[1]) &&
      parse_number(parts[2], &masks[2])) {
    add_clause('=', masks[0], &change->owner_mask);
    add_clause('=', masks[1], &change->group_mask);
    add_clause('=', masks[2], &change->other_mask);
    return {};
  }
  for (const std::string_view part : parts) {
    if (Outcome parsed = parse_clause(part, change); !parsed.ok()) return parsed;
  }
  return {};
}

bool sets_all_masks(const registry::SecurityChange& change) {
  return sets_all(change.owner_mask) && sets_all(change.group_mask) && sets_all(change.other_mask);
}

Outcome parse_ownership(std::string_view text, registry::SecurityChange* change) {
  const std::size_t at = text.find(':');
  const std::string_view owner = text.substr(0, at);
  const std::string_view group = at == std::string_view::npos ? std::string_view() : text.substr(at + 1);
  if (owner.empty() && group.empty()) {
    return {Exit::kUsage, "'" + std::string(text) + "' names neither owner nor group: OWNER, OWNER:GROUP or :GROUP"};
  }
  change->owner.reset();
  change->group.reset();
  if (!owner.empty()) change->owner = owner;
  if (!group.empty()) change->group = group;
  sec_attr trial{};
  return change->apply(&trial);
}

}  // namespace tkv::command
