#include "changes.h"

#include <algorithm>
#include <span>

#include "access.h"
#include "name.h"

namespace tkv::command {
namespace {

using registry::Reader;
using registry::Writer;

std::span<const std::byte> bytes_of(const StoredValue& value) { return std::as_bytes(std::span(value.bytes)); }

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
using Entries = std::span<const Entry>;

// How many of `items` from the front lie within the first one's subtree.
template <typename Item, typename NameOf>
std::size_t run_length(std::span<const Item> items, NameOf name_of) {
  const std::string_view top = name_of(items.front());
  std::size_t size = 1;
  while (size < items.size() && registry::is_within(name_of(items[size]), top)) ++size;
  return size;
}

const std::string& name_of(const Change& change) {
  return change.kind == Change::Kind::kRemove ? change.before.name : change.after.name;
}

// Takes one step off the changes: a whole subtree that comes or goes, or one key that changes.
Changes take_step(Changes* rest) {
  std::size_t size = 1;
  if (rest->front().kind != Change::Kind::kChange) {
    const Change::Kind kind = rest->front().kind;
    const std::size_t most = run_length(*rest, [](const Change& each) -> std::string_view { return name_of(each); });
    while (size < most && (*rest)[size].kind == kind) ++size;
  }
  const Changes step = rest->first(size);
  *rest = rest->subspan(size);
  return step;
}

// Visible changes that a step takes.
std::size_t cost_of(Changes step) {
  const Change& first = step.front();
  if (first.kind != Change::Kind::kChange) return 1;
  const bool security = !same_security(first.before.security, first.after.security);
  return (security ? 1u : 0u) + (first.before.value == first.after.value ? 0u : 1u);
}

std::size_t cost_of_all(Changes changes) {
  std::size_t cost = 0;
  while (!changes.empty()) cost += cost_of(take_step(&changes));
  return cost;
}

// Makes a subtree that nobody sees yet. `at` gives each entry of it.
template <typename At>
Status build_aside(Writer& writer, std::size_t size, At at, store::NodeId* top) {
  std::vector<std::pair<std::string_view, store::NodeId>> line;  // the keys above the next one
  for (std::size_t each = 0; each < size; ++each) {
    const Entry& entry = at(each);
    store::NodeId id = store::kNoNode;
    while (!line.empty() && !registry::is_within(entry.name, line.back().first)) line.pop_back();
    const Status made = line.empty()
                            ? writer.sprout(entry.value.type, bytes_of(entry.value), &id)
                            : writer.sprout_below(line.back().second, registry::last_level(entry.name), entry.security,
                                                  entry.value.type, bytes_of(entry.value), &id);
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
  // The value first: the new rights may take away the right to write it.
  if (first.before.value != first.after.value) {
    Status set = writer.set_value(first.after.name, first.after.value.type, bytes_of(first.after.value));
    if (!set.ok()) return set;
  }
  if (same_security(first.before.security, first.after.security)) return {};
  return writer.set_security(first.after.name, first.after.security);
}

Status make_steps(Writer& writer, Changes changes) {
  while (!changes.empty()) {
    if (Status made = make_step(writer, take_step(&changes)); !made.ok()) return made;
  }
  return {};
}

// The entries of a subtree within a sorted list.
Entries within(Entries entries, std::string_view top) {
  const auto first =
      std::lower_bound(entries.begin(), entries.end(), top,
                       [](const Entry& entry, std::string_view name) { return name_before(entry.name, name); });
  Entries rest(first, entries.end());
  if (rest.empty() || rest.front().name != top) return {};
  return rest.first(run_length(rest, [](const Entry& entry) -> std::string_view { return entry.name; }));
}

Status swap_subtree(Writer& writer, const Plan& plan, const std::string& top) {
  const Entries entries = within(plan.result, top);
  store::NodeId id = store::kNoNode;
  const auto at = [&](std::size_t each) -> const Entry& { return entries[each]; };
  if (Status built = build_aside(writer, entries.size(), at, &id); !built.ok()) return built;
  return writer.plant(id, entries.front().security, "", top, true);
}

constexpr std::size_t kSwapCost = 2;  // one key off its parent, one in its place

// What changes below the root, child by child: as steps, or by putting another subtree in place.
Status apply_below_root(Writer& writer, const Plan& plan, std::size_t max_changes) {
  struct Part {
    Changes changes;
    bool swapped;
  };
  std::vector<Part> parts;
  std::size_t cost = 0;
  for (Changes rest = plan.changes; !rest.empty();) {
    std::string_view name = name_of(rest.front());
    const std::string_view child = name.empty() ? name : registry::take_level(&name);
    std::size_t size = 1;
    while (!child.empty() && size < rest.size() && registry::is_within(name_of(rest[size]), child)) ++size;
    const Changes changes = rest.first(size);
    const std::size_t steps = cost_of_all(changes);
    const bool swapped = !child.empty() && steps > kSwapCost;
    parts.push_back({changes, swapped});
    cost += swapped ? kSwapCost : steps;
    rest = rest.subspan(size);
  }
  if (cost > max_changes) {
    return {PRTKV_INVALID_ARGUMENT,
            "too many subkeys of the root change for one transaction of this store: " + std::to_string(cost) +
                " changes, and " + std::to_string(max_changes) + " fit; bring them in one subtree at a time"};
  }
  for (const Part& part : parts) {
    std::string_view name = name_of(part.changes.front());
    const Status made = part.swapped ? swap_subtree(writer, plan, std::string(registry::take_level(&name)))
                                     : make_steps(writer, part.changes);
    if (!made.ok()) return made;
  }
  return {};
}

Status change_all(Writer& writer, const std::string& name, std::size_t max_changes,
                  FunctionRef<void(sec_attr*)> change) {
  Snapshot current;
  Plan plan;
  const Status read = writer.before([&](Reader& reader) { return read_snapshot(reader, name, &current); });
  if (!read.ok()) return read;
  Snapshot wanted = current;
  for (Entry& entry : wanted.entries) {
    if ((registry::rights_of(writer.identity(), entry.security) & TKV_RIGHT_SECURITY) == 0) {
      return {PRTKV_ACCESS_DENIED,
              registry::describe(entry.name) + ": access denied, changing its security needs the right 0x8"};
    }
    change(&entry.security);
  }
  if (Status planned = make_plan(current, wanted, Manner::kReplace, {}, &plan); !planned.ok()) return planned;
  return apply_plan(writer, plan, name, max_changes);
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
    Entry entry;
    entry.name = key.name;
    entry.security = key.node.security;
    entry.value = {value.type, std::string(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size())};
    snapshot->entries.push_back(std::move(entry));
    progress(snapshot->entries.size());
    return {};
  });
}

Status read_snapshot(Reader& reader, const std::string& top, Snapshot* snapshot) {
  return read_snapshot(reader, top, snapshot, [](std::uint64_t) {});
}

Status make_plan(const Snapshot& current, const Snapshot& wanted, Manner manner, const sec_attr& fresh, Plan* plan) {
  plan->changes.clear();
  plan->result.clear();
  Entry base;
  base.security = fresh;
  auto have = current.entries.begin();
  auto want = wanted.entries.begin();
  while (have != current.entries.end() || want != wanted.entries.end()) {
    const bool only_have =
        want == wanted.entries.end() || (have != current.entries.end() && name_before(have->name, want->name));
    if (only_have && manner == Manner::kReplace) {
      plan->changes.push_back({Change::Kind::kRemove, *have++, {}});
    } else if (only_have) {
      plan->result.push_back(*have++);
    } else if (have == current.entries.end() || have->name != want->name) {
      plan->result.push_back(completed(*want++, base));
      plan->changes.push_back({Change::Kind::kAdd, {}, plan->result.back()});
    } else {
      plan->result.push_back(completed(*want++, *have));
      if (!is_same(*have, plan->result.back())) {
        plan->changes.push_back({Change::Kind::kChange, *have, plan->result.back()});
      }
      ++have;
    }
  }
  return manner == Manner::kAdd ? differs(*plan) : Status();
}

Status apply_plan(Writer& writer, const Plan& plan, const std::string& top, std::size_t max_changes) {
  if (plan.changes.empty()) return {};
  if (cost_of_all(plan.changes) <= max_changes) return make_steps(writer, plan.changes);
  return top.empty() ? apply_below_root(writer, plan, max_changes) : swap_subtree(writer, plan, top);
}

Status change_security(registry::Registry& registry, const std::string& name, bool recursive,
                       FunctionRef<void(sec_attr* security)> change) {
  const std::size_t max_changes = registry.store().max_changes();
  std::uint64_t keys = 0;
  if (recursive) {
    const Status counted = registry.read_all([&](Reader& reader) {
      keys = 0;
      return reader.walk(name, registry::Hidden::kSkip, [&](const registry::Entry&) {
        ++keys;
        return Status();
      });
    });
    if (!counted.ok()) return counted;
  }
  return registry.write([&](Writer& writer) -> Status {
    if (recursive && keys > max_changes) return change_all(writer, name, max_changes, change);
    if (recursive) {
      return writer.set_security_below(name, [&](const registry::Entry& key) {
        sec_attr security = key.node.security;
        change(&security);
        return security;
      });
    }
    registry::Place place;
    if (Status found = writer.resolve(name, &place); !found.ok()) return found;
    change(&place.node.security);
    return writer.set_security(name, place.node.security);
  });
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
  const Status read = writer.before([&](Reader& reader) -> Status {
    if (recursive) return read_snapshot(reader, from, &copy);
    registry::Place place;
    store::Value value;
    copy = {from, {}};
    if (Status found = reader.resolve(from, &place); !found.ok()) return found;
    if (Status found = reader.value(from, &value); !found.ok()) return found;
    Entry entry;
    entry.name = from;
    entry.security = place.node.security;
    entry.value = {value.type, std::string(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size())};
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
