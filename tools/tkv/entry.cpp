#include "entry.h"

#include <algorithm>

#include "registry/access.h"

namespace tkv::command {

StoredValue copied(const store::Value& value) {
  return {value.type, std::string(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size())};
}

Entry copied(const registry::Entry& key, const store::Value& value) {
  Entry entry;
  entry.name = key.name;
  entry.security = key.node.security;
  entry.value = copied(value);
  return entry;
}

bool name_before(std::string_view left, std::string_view right) {
  // No level holds a NUL, so the separator sorts below every byte of a level.
  const auto rank = [](char byte) { return byte == '.' ? 0 : static_cast<int>(static_cast<unsigned char>(byte)); };
  return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end(),
                                      [&](char one, char other) { return rank(one) < rank(other); });
}

bool same_security(const sec_attr& left, const sec_attr& right) {
  return left.user_perm == right.user_perm && left.group_perm == right.group_perm &&
         left.other_perm == right.other_perm && registry::user_of(left) == registry::user_of(right) &&
         registry::group_of(left) == registry::group_of(right);
}

std::string rebased(std::string_view name, std::string_view from, std::string_view to) {
  std::string_view rest = name.substr(from.size());
  if (rest.starts_with('.')) rest.remove_prefix(1);
  return rest.empty() ? std::string(to) : child_name(to, rest);
}

std::string child_name(std::string_view parent, std::string_view level) {
  std::string name(parent);
  if (!name.empty()) name += '.';
  return name.append(level);
}

}  // namespace tkv::command
