#include "records.h"

#include "registry/name.h"

namespace tkv::command {
namespace {

// The name that `name`, which lies within `from`, has within `to`.
std::string rebased(std::string_view name, std::string_view from, std::string_view to) {
  std::string_view rest = name.substr(from.size());
  if (rest.starts_with('.')) rest.remove_prefix(1);
  return rest.empty() ? std::string(to) : child_name(to, rest);
}

}  // namespace

registry::KeyRecord record_of(const registry::WalkEntry& entry) {
  registry::KeyRecord record;
  record.name = entry.name;
  record.has_value = entry.damaged != registry::WalkEntry::Part::kValue;
  record.security = entry.security;
  record.value.type = entry.type;
  record.value.bytes.assign(reinterpret_cast<const char*>(entry.value.data()), entry.value.size());
  return record;
}

std::string child_name(std::string_view parent, std::string_view level) {
  std::string name(parent);
  if (!name.empty()) name += '.';
  return name.append(level);
}

Status rebase(registry::Subtree* subtree, const std::string& top) {
  for (registry::KeyRecord& key : subtree->keys) {
    key.name = rebased(key.name, subtree->top, top);
    if (Status named = registry::check_name(key.name); !named.ok()) return named;
  }
  for (std::string& name : subtree->left_out) name = rebased(name, subtree->top, top);
  subtree->top = top;
  return {};
}

}  // namespace tkv::command
