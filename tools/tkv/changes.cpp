#include "changes.h"

#include <algorithm>
#include <span>

#include "registry/access.h"
#include "registry/name.h"

namespace tkv::command {
namespace {

using registry::Reader;
using registry::Writer;

// An entry without gaps: what it leaves out comes from `base`.
Entry completed(const Entry& wanted, const Entry& base) {
  Entry entry = base;
  entry.name = wanted.name;
  const auto copy_field = [](const char(&from)[TKV_NAME_SIZE], char(&to)[TKV_NAME_SIZE]) {
    std::copy(std::begin(from), std::end(from), to);
  };
  if (wanted.has_owner) copy_field(wanted.security.user_name, entry.security.user_name);
  if (wanted.has_group) copy_field(wanted.security.group_name, entry.security.group_name);
  if (wanted.has_mode) {
    entry.security.user_perm = wanted.security.user_perm;
    entry.security.group_perm = wanted.security.group_perm;
    entry.security.other_perm = wanted.security.other_perm;
  }
  if (wanted.has_value) entry.value = wanted.value;
  return entry;
}

bool is_same(const Entry& left, const Entry& right) {
  return left.value == right.value && same_security(left.security, right.security);
}

Status differs(const Plan& plan) {
  std::string names;
  std::uint64_t count = 0;
  for (const Change& change : plan.changes) {
    if (change.kind != Change::Kind::kChange || ++count > 3) continue;
    names += (names.empty() ? "" : ", ") + registry::describe(change.after.name);
  }
  if (count == 0) return {};
  if (count > 3) names += " and " + std::to_string(count - 3) + " more";
  return {PRTKV_KEY_EXISTS, names + (count == 1 ? " exists and differs" : " exist and differ") +
                                "; --merge changes what differs, --replace makes everything the same"};
}

// The changes below one key (or of all) that stand together.
using Changes = std::span<const Change>;

const std::string& name_of(const Change& change) {
  return change.kind == Change::Kind::kRemove ? change.before.name : change.after.name;
}

// Takes one step off the changes: a whole subtree that comes or goes, or one key that changes.
Changes take_step(Changes* rest) {
  std::size_t size = 1;
  if (rest->front().kind != Change::Kind::kChange) {
    const Change& top = rest->front();
    const auto goes_along = [&](const Change& each) {
      return each.kind == top.kind && registry::is_within(name_of(each), name_of(top));
    };
    while (size < rest->size() && goes_along((*rest)[size])) ++size;
  }
  const Changes step = rest->first(size);
  *rest = rest->subspan(size);
  return step;
}

// Makes a subtree that nobody sees yet. `at` gives each entry of it.
template <typename At>
Status build_aside(Writer& writer, std::size_t size, At at, store::NodeId* top) {
  std::vector<std::pair<std::string_view, store::NodeId>> line;  // the keys above the next one
  for (std::size_t each = 0; each < size; ++each) {
    const Entry& entry = at(each);
    store::NodeId id = store::kNoNode;
    while (!line.empty() && !registry::is_within(entry.name, line.back().first)) line.pop_back();
    const Status made = line.empty() ? writer.sprout(entry.value.type, entry.value.span(), &id)
                                     : writer.sprout_below(line.back().second, registry::last_level(entry.name),
                                                           entry.security, entry.value.type, entry.value.span(), &id);
    if (!made.ok()) return made.about(registry::describe(entry.name));
    if (line.empty()) *top = id;
    line.emplace_back(entry.name, id);
  }
  return {};
}

Status make_step(Writer& writer, Changes step) {
  const Change& first = step.front();
  if (first.kind == Change::Kind::kRemove) return writer.remove(first.before.name, true);
  if (first.kind == Change::Kind::kAdd) {
    store::NodeId id = store::kNoNode;
    const auto at = [&](std::size_t each) -> const Entry& { return step[each].after; };
    if (Status built = build_aside(writer, step.size(), at, &id); !built.ok()) return built;
    return writer.plant(id, first.after.security, "", first.after.name, false);
  }
  return change_key(writer, first);
}

}  // namespace

std::uint64_t Plan::count(Change::Kind kind) const {
  return static_cast<std::uint64_t>(
      std::count_if(changes.begin(), changes.end(), [&](const Change& each) { return each.kind == kind; }));
}

Status read_snapshot(Reader& reader, const std::string& top, Snapshot* snapshot,
                     FunctionRef<void(std::uint64_t keys)> progress) {
  snapshot->top = top;
  snapshot->entries.clear();
  bool exists = false;
  if (Status asked = reader.exists(top, &exists); !asked.ok() || !exists) return asked;
  return reader.walk(top, registry::Hidden::kFail, [&](const registry::Entry& key) -> Status {
    store::Value value;
    if (Status read = reader.value(key, &value); !read.ok()) return read;
    snapshot->entries.push_back(copied(key, value));
    progress(snapshot->entries.size());
    return {};
  });
}

Status read_snapshot(Reader& reader, const std::string& top, Snapshot* snapshot) {
  return read_snapshot(reader, top, snapshot, [](std::uint64_t) {});
}

Status make_plan(const Snapshot& current, const Snapshot& wanted, Manner manner, const sec_attr& fresh, Plan* plan) {
  plan->changes.clear();
  plan->keys = 0;
  Entry base;
  base.security = fresh;
  auto have = current.entries.begin();
  auto want = wanted.entries.begin();
  while (have != current.entries.end() || want != wanted.entries.end()) {
    const bool only_have =
        want == wanted.entries.end() || (have != current.entries.end() && name_before(have->name, want->name));
    if (only_have && manner == Manner::kReplace) {
      plan->changes.push_back({Change::Kind::kRemove, *have++, {}});
      continue;
    }
    ++plan->keys;
    if (only_have) {
      ++have;
    } else if (have == current.entries.end() || have->name != want->name) {
      plan->changes.push_back({Change::Kind::kAdd, {}, completed(*want++, base)});
    } else {
      Entry after = completed(*want++, *have);
      if (!is_same(*have, after)) plan->changes.push_back({Change::Kind::kChange, *have, std::move(after)});
      ++have;
    }
  }
  return manner == Manner::kAdd ? differs(*plan) : Status();
}

Status change_key(Writer& writer, const Change& change) {
  const auto& [kind, before, after] = change;
  // The value first: the new rights may take away the right to write it.
  if (before.value != after.value) {
    if (Status set = writer.set_value(after.name, after.value.type, after.value.span()); !set.ok()) return set;
  }
  return same_security(before.security, after.security) ? Status() : writer.set_security(after.name, after.security);
}

Status apply_plan(Writer& writer, const Plan& plan) {
  for (Changes rest = plan.changes; !rest.empty();) {
    if (Status made = make_step(writer, take_step(&rest)); !made.ok()) return made;
  }
  return {};
}

Status rebase(Snapshot* snapshot, const std::string& top) {
  for (Entry& entry : snapshot->entries) {
    entry.name = rebased(entry.name, snapshot->top, top);
    if (Status named = registry::check_name(entry.name); !named.ok()) return named;
  }
  snapshot->top = top;
  return {};
}

Status copy_as_own(Writer& writer, const std::string& from, const std::string& to, bool recursive, bool replace) {
  if (registry::is_within(to, from) && (recursive || to == from)) {
    return {PRTKV_MOVE_INTO_ITSELF,
            registry::describe(from) + " cannot be copied into itself, to " + registry::describe(to)};
  }
  Snapshot copy;
  Status read = writer.before([&](Reader& reader) -> Status {
    if (recursive) return read_snapshot(reader, from, &copy);
    registry::Place place;
    store::Value value;
    copy = {from, {}};
    if (Status found = reader.resolve(from, &place); !found.ok()) return found;
    if (Status found = reader.value(from, &value); !found.ok()) return found;
    Entry entry;
    entry.name = from;
    entry.security = place.node.security;
    entry.value = copied(value);
    copy.entries.push_back(std::move(entry));
    return {};
  });
  if (!read.ok()) return read;
  if (copy.entries.empty()) return {PRTKV_NO_SUCH_KEY, registry::describe(from) + " does not exist"};
  if (Status fits = rebase(&copy, to); !fits.ok()) return fits;
  for (Entry& entry : copy.entries) {
    if (Status set = registry::set_user(&entry.security, writer.identity().user); !set.ok()) return set;
    if (Status set = registry::set_group(&entry.security, writer.identity().group()); !set.ok()) return set;
  }
  store::NodeId id = store::kNoNode;
  const auto at = [&](std::size_t each) -> const Entry& { return copy.entries[each]; };
  if (Status built = build_aside(writer, copy.entries.size(), at, &id); !built.ok()) return built;
  return writer.plant(id, copy.entries.front().security, "", to, replace);
}

}  // namespace tkv::command
