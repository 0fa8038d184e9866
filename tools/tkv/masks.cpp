#include "masks.h"

#include <array>
#include <charconv>
#include <cstdio>

#include "base/identity.h"

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

std::string hex_of(std::int32_t mask) {
  char text[16];
  static_cast<void>(std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(mask)));
  return text;
}

std::string letters_of(std::int32_t mask) {
  if ((mask & ~TKV_RIGHT_ALL) != 0) return hex_of(mask);
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
              "' is not a mode: three numbers such as 0x3f,0x34,0x3, or clauses such as u=rlw,g+r,o= with "
              "the rights r (read), l (list), w (write), s (security), c (create), d (delete)"};
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

void change_mask(char change, std::int32_t mask, std::int32_t* target) {
  if (change == '+') {
    *target |= mask;
  } else if (change == '-') {
    *target &= ~mask;
  } else {
    *target = mask;
  }
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
  return hex_of(security.user_perm) + "," + hex_of(security.group_perm) + "," + hex_of(security.other_perm);
}

Outcome parse_rights(std::string_view text, std::int32_t* mask) {
  *mask = 0;
  if (!text.empty() && text.front() >= '0' && text.front() <= '9') {
    if (parse_number(text, mask)) return {};
    return {Exit::kUsage, "'" + std::string(text) + "' is not a mask: a number up to 0x3f"};
  }
  for (const char letter : text) {
    std::int32_t right = 0;
    for (const Letter& each : kLetters) {
      if (each.letter == letter) right = each.right;
    }
    if (right == 0) {
      return {Exit::kUsage, std::string("'") + letter + "' is not a right: r, l, w, s, c and d are"};
    }
    *mask |= right;
  }
  return {};
}

Outcome Mode::parse_clause(std::string_view text, Clause* clause) {
  const std::size_t at = text.find_first_of("+-=");
  if (at == 0 || at == std::string_view::npos) return bad_mode(text);
  for (const char who : text.substr(0, at)) {
    if (who != 'u' && who != 'g' && who != 'o' && who != 'a') return bad_mode(text);
    clause->user |= who == 'u' || who == 'a';
    clause->group |= who == 'g' || who == 'a';
    clause->other |= who == 'o' || who == 'a';
  }
  clause->change = text[at];
  return parse_rights(text.substr(at + 1), &clause->mask);
}

Outcome Mode::parse(std::string_view text, Mode* mode) {
  mode->clauses_.clear();
  const std::vector<std::string_view> parts = split(text, ',');
  std::array<std::int32_t, 3> masks{};
  if (parts.size() == 3 && parse_number(parts[0], &masks[0]) && parse_number(parts[1], &masks[1]) &&
      parse_number(parts[2], &masks[2])) {
    mode->clauses_ = {
        {true, false, false, '=', masks[0]}, {false, true, false, '=', masks[1]}, {false, false, true, '=', masks[2]}};
    return {};
  }
  for (const std::string_view part : parts) {
    Clause clause;
    if (Outcome parsed = parse_clause(part, &clause); !parsed.ok()) return parsed;
    mode->clauses_.push_back(clause);
  }
  return {};
}

void Mode::apply_to(sec_attr* security) const {
  for (const Clause& clause : clauses_) {
    if (clause.user) change_mask(clause.change, clause.mask, &security->user_perm);
    if (clause.group) change_mask(clause.change, clause.mask, &security->group_perm);
    if (clause.other) change_mask(clause.change, clause.mask, &security->other_perm);
  }
}

Outcome Ownership::parse(std::string_view text, Ownership* ownership) {
  const std::size_t at = text.find(':');
  const std::string_view owner = text.substr(0, at);
  const std::string_view group = at == std::string_view::npos ? std::string_view() : text.substr(at + 1);
  ownership->owner.reset();
  ownership->group.reset();
  if (!owner.empty()) ownership->owner = owner;
  if (!group.empty()) ownership->group = group;
  if (ownership->owner || ownership->group) return {};
  return {Exit::kUsage, "'" + std::string(text) + "' names neither owner nor group: OWNER, OWNER:GROUP or :GROUP"};
}

Outcome Ownership::apply_to(sec_attr* security) const {
  if (owner) {
    if (Status set = registry::set_user(security, *owner); !set.ok()) return set;
  }
  if (group) return registry::set_group(security, *group);
  return {};
}

}  // namespace tkv::command
