#include "registry/change_list.h"

#include <utility>

#include "registry/name.h"

namespace tkv::registry {
namespace {

bool goes_without_saying(const Change& former, Change::Kind kind, KeyId id) {
  if (former.id != id) return false;
  const bool is_part_of_creation =
      former.kind == Change::Kind::kCreated && (kind == Change::Kind::kValue || kind == Change::Kind::kSecurity);
  return is_part_of_creation || (former.kind == kind && kind != Change::Kind::kMoved);
}

}  // namespace

void ChangeList::add(Change::Kind kind, std::string_view name, KeyId id, std::string_view from) {
  if (too_many_) {
    cover(name);
    if (kind == Change::Kind::kMoved) cover(from);
    return;
  }
  if (!changes_.empty() && goes_without_saying(changes_.back(), kind, id)) return;
  changes_.push_back({kind, std::string(name), std::string(from), id});
  if (changes_.size() <= kMaxListedChanges) return;
  too_many_ = true;
  common_ = changes_.front().name;
  for (const Change& change : std::exchange(changes_, {})) add(change.kind, change.name, change.id, change.from);
}

void ChangeList::cover(std::string_view name) {
  std::string_view common = common_;
  while (!is_within(name, common)) common = parent_of(common);
  common_.resize(common.size());
  if (topmost_.size() <= kMaxListedChanges) topmost_.emplace(name.substr(0, name.find('.')));
}

std::vector<Change> ChangeList::take() {
  if (!too_many_) return std::move(changes_);
  std::vector<Change> tops;
  const bool is_known = common_.empty() && topmost_.size() <= kMaxListedChanges;
  if (!is_known) topmost_ = {common_};
  for (const std::string& name : topmost_) tops.push_back({Change::Kind::kChangedAtOrBelow, name, "", kAnyKey});
  return tops;
}

std::string moved_name(std::string_view name, std::string_view from, std::string_view to) {
  if (!is_within(name, from)) return std::string(name);
  const std::string_view rest = name.substr(from.size());
  return std::string(to) + (from.empty() && !rest.empty() ? "." : "") + std::string(rest);
}

}  // namespace tkv::registry
