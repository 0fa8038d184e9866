#include "registry/subtree.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "registry/name.h"
#include "registry/new_keys.h"

namespace tkv::registry {
namespace {

using Kind = KeyChange::Kind;
using Changes = std::span<const KeyChange>;

constexpr std::uint64_t kMostNamed = 3;  // keys in a message

KeyRecord record_of(const WalkEntry& entry) {
  KeyRecord record;
  record.name = entry.name;
  record.damaged = entry.damaged == WalkEntry::Part::kRecord;
  record.has_owner = record.has_group = record.has_mode = !record.damaged;
  record.has_value = entry.damaged == WalkEntry::Part::kNone;
  record.security = entry.security;
  record.value = {entry.type, std::string(reinterpret_cast<const char*>(entry.value.data()), entry.value.size())};
  return record;
}

void copy_field(const char (&from)[TKV_NAME_SIZE], char (&to)[TKV_NAME_SIZE]) {
  std::copy(std::begin(from), std::end(from), to);
}

// A record without gaps: what `wanted` leaves out comes from the other two.
KeyRecord completed(const KeyRecord& wanted, const sec_attr& security, const TypedValue& value) {
  KeyRecord record;
  record.name = wanted.name;
  record.security = security;
  record.value = wanted.has_value ? wanted.value : value;
  if (wanted.has_owner) copy_field(wanted.security.user_name, record.security.user_name);
  if (wanted.has_group) copy_field(wanted.security.group_name, record.security.group_name);
  if (wanted.has_mode) {
    record.security.user_perm = wanted.security.user_perm;
    record.security.group_perm = wanted.security.group_perm;
    record.security.other_perm = wanted.security.other_perm;
  }
  return record;
}

bool same_value(const KeyRecord& left, const KeyRecord& right) {
  return left.has_value == right.has_value && left.value == right.value;
}

bool is_same(const KeyRecord& left, const KeyRecord& right) {
  return same_value(left, right) && same_security(left.security, right.security);
}

Status demand_no_changes(const Difference& difference) {
  const std::uint64_t count = difference.count(Kind::kChange);
  if (count == 0) return {};
  std::string names;
  std::uint64_t named = 0;
  for (const KeyChange& change : difference.changes) {
    if (change.kind != Kind::kChange || ++named > kMostNamed) continue;
    names += (names.empty() ? "" : ", ") + describe(change.after.name);
  }
  if (count > kMostNamed) names += " and " + std::to_string(count - kMostNamed) + " more";
  return {PRTKV_KEY_EXISTS, names + (count == 1 ? " exists and differs" : " exist and differ")};
}

// Walks two subtrees side by side and notes what has to change in the first.
class Comparison {
 public:
  Comparison(const NewKeySecurity& rules, const sec_attr& above, Difference* difference)
      : rules_(rules), above_(above), difference_(*difference) {}

  void remove(const KeyRecord& key) { difference_.changes.push_back({Kind::kRemove, key, {}}); }

  void keep(const KeyRecord& key) { note_result(key); }

  Status add(const KeyRecord& wanted) {
    sec_attr security{};
    if (Status status = security_below(parent_security(wanted.name), rules_, &security); !status.ok()) {
      return status.about(describe(wanted.name));
    }
    difference_.changes.push_back({Kind::kAdd, {}, completed(wanted, security, {})});
    note_result(difference_.changes.back().after);
    return {};
  }

  void change(const KeyRecord& current, const KeyRecord& wanted) {
    KeyRecord after = completed(wanted, current.security, current.value);
    after.has_value = wanted.has_value || current.has_value;
    note_result(after);
    if (!is_same(current, after)) difference_.changes.push_back({Kind::kChange, current, std::move(after)});
  }

 private:
  const sec_attr& parent_security(std::string_view name) {
    while (!ancestors_.empty() && !is_within(name, ancestors_.back().first)) ancestors_.pop_back();
    return ancestors_.empty() ? above_ : ancestors_.back().second;
  }

  void note_result(const KeyRecord& key) {
    ++difference_.keys;
    if (!rules_.inherit) return;
    (void)parent_security(key.name);
    ancestors_.emplace_back(key.name, key.security);
  }

  const NewKeySecurity& rules_;
  const sec_attr& above_;
  Difference& difference_;
  std::vector<std::pair<std::string, sec_attr>> ancestors_;  // of the next key, as they will be
};

// Takes one step off the changes: a whole subtree that is added or removed, or one key that changes.
Changes take_step(Changes* rest) {
  const KeyChange& top = rest->front();
  std::size_t size = 1;
  if (top.kind != Kind::kChange) {
    const auto belongs = [&](const KeyChange& change) {
      return change.kind == top.kind && is_within(change.name(), top.name());
    };
    while (size < rest->size() && belongs((*rest)[size])) ++size;
  }
  const Changes step = rest->first(size);
  *rest = rest->subspan(size);
  return step;
}

// Stages a subtree.
Status stage_subtree(Writer& tree, Changes added, KeyId* top) {
  std::vector<std::pair<std::string_view, KeyId>> ancestors;  // of the next key
  for (const KeyChange& change : added) {
    const KeyRecord& key = change.after;
    KeyId id = kAnyKey;
    while (!ancestors.empty() && !is_within(key.name, ancestors.back().first)) ancestors.pop_back();
    const Status made = ancestors.empty() ? tree.stage(key.value.type, key.value.span(), &id)
                                          : tree.stage_below(ancestors.back().second, last_level(key.name),
                                                             key.security, key.value.type, key.value.span(), &id);
    if (!made.ok()) return made.about(describe(key.name));
    if (ancestors.empty()) *top = id;
    tree.note_created(key.name, id);
    ancestors.emplace_back(key.name, id);
  }
  return {};
}

Status change_key(Writer& tree, const KeyRecord& before, const KeyRecord& after) {
  // The value first: the new rights may take away the right to write it.
  if (!same_value(before, after)) {
    if (Status status = tree.write_value(after.name, after.value.type, after.value.span()); !status.ok()) return status;
  }
  return same_security(before.security, after.security) ? Status() : tree.write_security(after.name, after.security);
}

// A reader that doubts whether a key is absent reports damage, even if there is none.
Status remove_key(Writer& tree, const KeyRecord& key) {
  if (!key.damaged) return tree.remove(key.name, true);
  const Status sound(PRTKV_KEY_EXISTS, describe(key.name) + " is no longer damaged; nothing was done");
  Status status = tree.remove_damaged(key.name, sound);
  return status.is(PRTKV_NO_SUCH_KEY) ? Status() : status;
}

Status apply_step(Writer& tree, Changes step) {
  const KeyChange& first = step.front();
  KeyId id = kAnyKey;
  switch (first.kind) {
    case Kind::kRemove:
      return remove_key(tree, first.before);
    case Kind::kChange:
      return change_key(tree, first.before, first.after);
    case Kind::kAdd:
      if (Status status = stage_subtree(tree, step, &id); !status.ok()) return status;
      return tree.attach(id, first.after.security, "", first.after.name, false);
  }
  return PRTKV_INVALID_ARGUMENT;
}

}  // namespace

Status read_subtree(Reader& tree, const std::string& top, bool over_damage, KeyProgress progress, Subtree* subtree) {
  subtree->top = top;
  subtree->keys.clear();
  Presence presence = Presence::kAbsent;
  if (Status status = tree.look_up(top, &presence); !status.ok() || presence == Presence::kAbsent) return status;
  WalkOptions options;
  options.values = true;
  if (over_damage) options.damaged = WalkOptions::Damaged::kVisit;
  return tree.walk(top, options, [&](const WalkEntry& entry) -> Status {
    // What can be neither read nor replaced: a list of subkeys, and the root.
    const bool is_root = entry.damaged == WalkEntry::Part::kRecord && entry.name.empty();
    if (entry.damaged == WalkEntry::Part::kSubkeys || is_root) return entry.damage->about(describe(entry.name));
    subtree->keys.push_back(record_of(entry));
    progress(subtree->keys.size());
    return {};
  });
}

Status find_difference(const Subtree& current, const Subtree& wanted, MergeMode mode, const NewKeySecurity& rules,
                       const sec_attr& above, Difference* difference) {
  *difference = {};
  Comparison comparison(rules, above, difference);
  auto have = current.keys.begin();
  auto want = wanted.keys.begin();
  while (have != current.keys.end() || want != wanted.keys.end()) {
    const bool only_have =
        want == wanted.keys.end() || (have != current.keys.end() && name_before(have->name, want->name));
    if (only_have) {
      const bool removed = mode == MergeMode::kReplace && !wanted.may_have_had(have->name);
      removed ? comparison.remove(*have) : comparison.keep(*have);
      ++have;
    } else if (have == current.keys.end() || have->name != want->name) {
      if (Status status = comparison.add(*want++); !status.ok()) return status;
    } else if (have->damaged) {
      comparison.remove(*have++);
      if (Status status = comparison.add(*want++); !status.ok()) return status;
    } else {
      comparison.change(*have++, *want++);
    }
  }
  return mode == MergeMode::kAdd ? demand_no_changes(*difference) : Status();
}

Status apply_difference(Writer& tree, std::span<const KeyChange> changes) {
  while (!changes.empty()) {
    if (Status status = apply_step(tree, take_step(&changes)); !status.ok()) return status;
  }
  return {};
}

}  // namespace tkv::registry
