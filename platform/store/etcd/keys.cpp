#include "store/etcd/keys.h"

#include <charconv>
#include <limits>

#include "store/etcd/token.h"

namespace tkv::store::etcd {
namespace {

constexpr std::size_t kIdDigits = 16;

std::string digits(NodeId id) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text(kIdDigits, '0');
  for (std::size_t i = kIdDigits; i-- > 0; id >>= 4) text[i] = kDigits[id & 0xf];
  return text;
}

std::optional<NodeId> parse_digits(std::string_view text) {
  if (text.size() != kIdDigits) return {};
  NodeId id = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id, 16);
  if (error != std::errc() || end != text.data() + text.size()) return {};
  if (digits(id) != text) return {};  // capitals are not how this program writes them
  return id;
}

// The first key after all those that start with `start`; "\0" if there is none, which etcd takes as no end.
std::string after(std::string start) {
  while (!start.empty() && start.back() == '\xff') start.pop_back();
  if (start.empty()) return {'\0'};
  ++start.back();
  return start;
}

}  // namespace

std::string Keys::node(const NodePlace& place) const {
  return prefix_ + "n/" + digits(place.parent) + "/" + place.name;
}

std::string Keys::value(NodeId id) const { return prefix_ + "v/" + digits(id); }

std::string Keys::garbage(NodeId id) const { return prefix_ + "garbage/" + digits(id); }

std::string Keys::claim(NodeId top, std::string_view token) const {
  return prefix_ + "claims/" + digits(top) + "/" + std::string(token);
}

std::string Keys::plan(std::string_view token, std::uint64_t number) const {
  return prefix_ + "plan/" + std::string(token) + "/" + digits(number);
}

std::string Keys::ticket(Revision ticket) const { return prefix_ + "tickets/" + digits(ticket); }

KeyRange Keys::folder(std::string_view name) const {
  std::string begin = prefix_ + std::string(name);
  return {begin, after(begin)};
}

KeyRange Keys::nodes_below(NodeId first, NodeId last) const {
  return {prefix_ + "n/" + digits(first) + "/", after(prefix_ + "n/" + digits(last) + "/")};
}

KeyRange Keys::values_of(NodeId first, NodeId last) const { return {value(first), value(last) + '\0'}; }

std::optional<NodePlace> Keys::parse_node(std::string_view key) const {
  const std::size_t head = prefix_.size() + 2;
  if (key.size() < head + kIdDigits + 1 || !key.starts_with(prefix_ + "n/") || key[head + kIdDigits] != '/') return {};
  const auto parent = parse_digits(key.substr(head, kIdDigits));
  if (!parent) return {};
  return NodePlace{*parent, std::string(key.substr(head + kIdDigits + 1))};
}

std::optional<ClaimPlace> Keys::parse_claim(std::string_view key) const {
  const std::string start = prefix_ + "claims/";
  if (!key.starts_with(start) || key.size() <= start.size() + kIdDigits + 1) return {};
  key.remove_prefix(start.size());
  const auto top = parse_digits(key.substr(0, kIdDigits));
  if (!top || key[kIdDigits] != '/') return {};
  return ClaimPlace{*top, std::string(key.substr(kIdDigits + 1))};
}

std::optional<PlanPlace> Keys::parse_plan(std::string_view key) const {
  const std::string start = prefix_ + "plan/";
  if (!key.starts_with(start) || key.size() <= start.size() + kIdDigits + 1) return {};
  key.remove_prefix(start.size());
  const std::size_t slash = key.size() - kIdDigits - 1;
  const auto number = parse_digits(key.substr(slash + 1));
  if (!number || key[slash] != '/') return {};
  return PlanPlace{std::string(key.substr(0, slash)), *number};
}

std::optional<std::string> Keys::parse_staging(std::string_view key) const {
  const std::string start = prefix_ + "staging/";
  if (!key.starts_with(start) || !is_token(key.substr(start.size()))) return {};
  return std::string(key.substr(start.size()));
}

bool Keys::is_writer(std::string_view key) const {
  const std::string start = prefix_ + "txn/";
  if (!key.starts_with(start)) return false;
  key.remove_prefix(start.size());
  const auto dash = key.find('-');
  if (dash == std::string_view::npos || !is_token(key.substr(0, dash))) return false;
  key.remove_prefix(dash + 1);
  return !key.empty() && key.find_first_not_of("0123456789") == std::string_view::npos;
}

std::optional<NodeId> Keys::parse_id(std::string_view key, std::string_view folder) const {
  const std::string start = prefix_ + std::string(folder);
  if (!key.starts_with(start)) return {};
  return parse_digits(key.substr(start.size()));
}

}  // namespace tkv::store::etcd
