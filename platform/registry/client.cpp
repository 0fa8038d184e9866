#include "registry/client.h"

#include <algorithm>

#include "registry/name.h"

namespace tkv::registry {
namespace {

std::int32_t changed(std::int32_t mask, const MaskChange& change) { return (mask & ~change.clear) | change.set; }

}  // namespace

bool Subtree::may_have_had(std::string_view name) const {
  return std::any_of(left_out.begin(), left_out.end(), [&](const std::string& lost) { return is_within(name, lost); });
}

std::uint64_t Difference::count(KeyChange::Kind kind) const {
  return static_cast<std::uint64_t>(
      std::count_if(changes.begin(), changes.end(), [&](const KeyChange& change) { return change.kind == kind; }));
}

Status SecurityChange::apply(sec_attr* security) const {
  sec_attr result = *security;
  result.user_perm = changed(result.user_perm, owner_mask);
  result.group_perm = changed(result.group_perm, group_mask);
  result.other_perm = changed(result.other_perm, other_mask);
  if (owner) {
    if (Status status = set_user(&result, *owner); !status.ok()) return status;
  }
  if (group) {
    if (Status status = set_group(&result, *group); !status.ok()) return status;
  }
  *security = result;
  return {};
}

Status Client::find(const KeyRef& key, KeyId* id) {
  KnownKey known;
  Status status = look_up(key, &known);
  if (status.ok()) *id = known.id;
  return status;
}

Status Client::create(const KeyRef& parent, std::string_view name, const sec_attr& security, std::int32_t type,
                      std::span<const std::byte> bytes, KeyId* id) {
  KnownKey created;
  Status status = create(parent, name, security, type, bytes, &created);
  if (status.ok()) *id = created.id;
  return status;
}

Status Client::move(const KeyRef& source, const KeyRef& parent, std::string_view name, bool replace, KeyId* id) {
  KnownKey moved;
  Status status = move(source, parent, name, replace, &moved);
  if (status.ok()) *id = moved.id;
  return status;
}

}  // namespace tkv::registry
