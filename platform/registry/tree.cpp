#include "registry/tree.h"

#include <algorithm>
#include <bit>
#include <utility>
#include <vector>

#include "base/limits.h"

namespace tkv::registry {
namespace {

Status no_such_key(std::string_view name) { return {PRTKV_NO_SUCH_KEY, describe(name) + " does not exist"}; }

Status key_exists(std::string_view name) { return {PRTKV_KEY_EXISTS, describe(name) + " exists"}; }

Status cannot_replace_ancestor(std::string_view source, std::string_view target) {
  return {PRTKV_MOVE_INTO_ITSELF, describe(source) + " cannot replace " + describe(target) + ", which it lies below"};
}

// A store's failure with the key that it happened at.
Status at_key(const Status& status, std::string_view name) {
  if (status.ok()) return {};
  if (status.is(PRTKV_NO_SUCH_KEY)) return no_such_key(name);
  return status.about(describe(name));
}

std::string hexadecimal(Rights right) {
  constexpr char kDigits[] = "0123456789abcdef";
  return std::string("0x") + kDigits[right >> 4 & 0xf] + kDigits[right & 0xf];
}

// Only in a damaged registry is a key below so many levels.
Status hangs_in_a_loop(std::string_view name) {
  return {PRTKV_STORAGE_FAILED, describe(name) + " is damaged: it hangs below itself"};
}

// A key met below another.
struct Step {
  std::string_view name;
  std::string_view level;
  store::NodeId parent;
  const store::Node& node;
  std::size_t depth;
  bool descend;
};

// What a walk over damage calls with a damaged key. An empty one ends the walk instead.
using VisitDamaged = std::optional<
    FunctionRef<Status(std::string_view name, std::size_t depth, WalkEntry::Part part, const Status& damage)>>;

// Appends a level to a name for as long as this object lives.
class NameBelow {
 public:
  NameBelow(std::string& name, std::string_view level) : name_(name), size_(name.size()) {
    if (size_ != 0) name.push_back('.');
    level_at_ = name.size();
    name.append(level);
  }
  ~NameBelow() { name_.resize(size_); }
  NameBelow(const NameBelow&) = delete;
  NameBelow& operator=(const NameBelow&) = delete;

  std::string_view level() const { return std::string_view(name_).substr(level_at_); }

 private:
  std::string& name_;
  const std::size_t size_;
  std::size_t level_at_ = 0;
};

// Visits everything below `parent`, each key before its subkeys. `name` is the parent's and has its contents again
// afterwards.
Status descend(store::View& view, std::string& name, store::NodeId parent, std::size_t depth,
               FunctionRef<Status(Step&)> visit, const VisitDamaged& visit_damaged = {}) {
  bool visit_failed = false;  // such a failure names its key already
  const auto enter = [&](std::string_view level, const store::Node& node) -> Status {
    const NameBelow below(name, level);
    Step step{name, below.level(), parent, node, depth, true};
    Status visited = depth > kMaxLevels ? hangs_in_a_loop(name) : visit(step);
    if (visited.ok() && step.descend) visited = descend(view, name, node.id, depth + 1, visit, visit_damaged);
    visit_failed = !visited.ok();
    return visited;
  };
  if (!visit_damaged) {
    const Status status = view.children(parent, enter);
    return visit_failed ? status : at_key(status, name);
  }
  const auto pass_over = [&](std::string_view level, const Status& damage) -> Status {
    const NameBelow below(name, level);
    Status visited = (*visit_damaged)(name, depth, WalkEntry::Part::kRecord, damage);
    visit_failed = !visited.ok();
    return visited;
  };
  const Status status = view.children_with_damage(parent, enter, pass_over);
  if (visit_failed || !status.is(PRTKV_STORAGE_FAILED)) return visit_failed ? status : at_key(status, name);
  return (*visit_damaged)(name, depth - 1, WalkEntry::Part::kSubkeys, status);
}

// Visits a key and, if the visit does not forbid it, everything below it.
Status descend_from(store::View& view, std::string_view key, const Place& place, FunctionRef<Status(Step&)> visit,
                    const VisitDamaged& visit_damaged = {}) {
  std::string name(key);
  Step top{name, last_level(name), place.parent, place.node, 0, true};
  Status status = visit(top);
  return status.ok() && top.descend ? descend(view, name, place.node.id, 1, visit, visit_damaged) : status;
}

constexpr Route kRootRoute = 1;

// The route to a node below. A bit of a product depends only on the bits of its factors that are not higher; the
// rotations bring the others in.
Route continued(Route above, const store::Node& node) {
  constexpr std::uint64_t kOdd = 0x9e3779b97f4a7c15;
  const std::uint64_t mixed = (above ^ node.id) * kOdd;
  const Route route = (std::rotl(mixed, 32) ^ node.moves) * kOdd;
  return route == kAnyRoute ? 1 : std::rotl(route, 32);
}

}  // namespace

// Reader

Status Reader::find_parent(std::string_view name, Directory* parent) {
  const std::string_view parent_name = parent_of(name);
  *parent = {store::kRootNode, kRootRoute};
  if (parent_name.empty()) return {};
  if (cache_ != nullptr) {
    const Directory known = cache_->find(view_.structure(), parent_name);
    if (known.id != store::kNoNode) {
      *parent = known;
      return {};
    }
  }
  for (std::string_view rest = parent_name; !rest.empty();) {
    store::Node node;
    if (Status status = view_.find(parent->id, take_level(&rest), &node); !status.ok()) return status;
    *parent = {node.id, continued(parent->route, node)};
  }
  if (cache_ != nullptr) cache_->keep(view_.structure(), parent_name, *parent);
  return {};
}

Status Reader::resolve(const KeyRef& key, Place* place) {
  if (key.id == kAnyKey) {
    if (Status status = check_name(key.name); !status.ok()) return status;
  }
  Place found;
  Directory parent;
  if (!key.name.empty()) {
    if (Status status = find_parent(key.name, &parent); !status.ok()) return at_key(status, key.name);
  }
  found.parent = parent.id;
  const Status status = view_.find(found.parent, last_level(key.name), &found.node);
  if (!status.ok()) return at_key(status, key.name);
  found.route = key.name.empty() ? kRootRoute : continued(parent.route, found.node);
  const bool is_it =
      (key.id == kAnyKey || key.id == found.node.id) && (key.route == kAnyRoute || key.route == found.route);
  if (!is_it) return no_such_key(key.name);
  *place = found;
  return {};
}

void Reader::learn(const Place& found, store::ValuePlace place, KnownKey* known) {
  place.node_page = found.node.page;
  if (known->is_kept) view_.prepare_for_changes(&place);
  known->id = found.node.id;
  known->route = found.route;
  known->rights = rights_of(identity_, found.node.security);
  known->state = view_.state();
  set_place(place, known);
}

Status Reader::look_up(const KeyRef& key, KnownKey* known) {
  const std::uint64_t state = view_.state();
  const bool is_known = state != 0 && state == known->state;
  if (is_known && (key.id == kAnyKey || key.id == known->id)) return {};
  Place place;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  learn(place, state == 0 ? store::ValuePlace{} : view_.place_of_value(place.node.id), known);
  return {};
}

Status Reader::known_value(std::string_view name, KnownKey* known, std::size_t capacity, store::Value* value,
                           std::size_t* size) {
  const std::uint64_t state = view_.state();
  Place found;
  found.node.id = known->id;
  const bool may_read = (known->rights & TKV_RIGHT_READ) != 0;
  const bool is_known = state != 0 && state == known->state && may_read;
  if (!is_known) {
    if (Status status = resolve({name, known->id, known->route}, &found); !status.ok()) return status;
    Status status = demand(TKV_RIGHT_READ, name, found.node, "reading its value");
    if (!status.ok()) return status;
  }
  store::ValuePlace place;
  Status status = view_.value_up_to(found.node.id, capacity, value, size, &place);
  if (!status.ok()) return at_key(status, name);
  if (is_known) {
    const store::ValuePlace same = place_of(*known);
    place.node_page = same.node_page;
    place.fingerprint = same.fingerprint;
    set_place(place, known);
  } else {
    learn(found, place, known);
  }
  return {};
}

Status Reader::demand(Rights right, std::string_view name, const store::Node& node, const char* doing) const {
  if ((rights(name, node) & right) == right) return {};
  return {PRTKV_ACCESS_DENIED, describe(name) + ": access denied, " + doing + " needs the right " + hexadecimal(right)};
}

Rights Reader::rights(std::string_view name, const store::Node& node) const {
  const Rights here = rights_of(identity_, node.security);
  return today_ == nullptr || here == 0 ? here : here & today_->of(name);
}

Status Reader::exists(std::string_view name, bool* answer) {
  Place place;
  Status status = resolve(name, &place);
  if (!status.ok() && !status.is(PRTKV_NO_SUCH_KEY)) return status;
  *answer = status.ok();
  return {};
}

Status Reader::look_up(std::string_view name, Presence* presence) {
  Place place;
  Directory parent;
  Status found = resolve(name, &place);
  if (found.is(PRTKV_STORAGE_FAILED) && (name.empty() || find_parent(name, &parent).ok())) {
    *presence = Presence::kDamaged;
    return {};
  }
  if (!found.ok() && !found.is(PRTKV_NO_SUCH_KEY)) return found;
  *presence = found.ok() ? Presence::kSound : Presence::kAbsent;
  return {};
}

// What the identity may know of the key `name`.
Status Reader::read_info(std::string_view name, const store::Node& node, KeyInfo* info) {
  *info = {};
  info->id = node.id;
  info->rights = rights(name, node);
  if ((info->rights & TKV_RIGHT_READ) == 0) return {};
  store::Value value;
  if (Status status = view_.has_children(node.id, &info->has_subkeys); !status.ok()) return at_key(status, name);
  if (Status status = view_.value(node.id, &value); !status.ok()) return at_key(status, name);
  info->security = node.security;
  info->type = value.type;
  info->size = value.bytes.size();
  info->revision = std::max(node.revision, value.revision);
  return {};
}

Status Reader::read_last_change(KeyInfo* info) {
  ChangeRecord record;
  const Status status = view_.change(info->revision, &record);
  if (!status.ok()) return status.is(PRTKV_NO_SUCH_KEY) ? Status() : status;
  info->changed_at = record.time;
  info->changed_by = std::move(record.author);
  return {};
}

Status Reader::stat_briefly(const KeyRef& key, KeyInfo* info) {
  Place place;
  KeyInfo found;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  if (Status status = demand(TKV_RIGHT_READ, key.name, place.node, "reading it"); !status.ok()) return status;
  if (Status status = read_info(key.name, place.node, &found); !status.ok()) return status;
  *info = std::move(found);
  return {};
}

Status Reader::stat(const KeyRef& key, KeyInfo* info) {
  KeyInfo found;
  if (Status status = stat_briefly(key, &found); !status.ok()) return status;
  if (Status status = read_last_change(&found); !status.ok()) return at_key(status, key.name);
  *info = std::move(found);
  return {};
}

Status Reader::read_key(const KeyRef& key, KeyInfo* info, TypedValue* value) {
  KeyInfo found;
  store::Value read;
  if (Status status = stat(key, &found); !status.ok()) return status;
  if (Status status = view_.value(found.id, &read); !status.ok()) return at_key(status, key.name);
  value->type = read.type;
  value->bytes.assign(reinterpret_cast<const char*>(read.bytes.data()), read.bytes.size());
  *info = std::move(found);
  return {};
}

Status Reader::security(const KeyRef& key, sec_attr* security) {
  Place place;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  Status status = demand(TKV_RIGHT_READ, key.name, place.node, "reading its security");
  if (status.ok()) *security = place.node.security;
  return status;
}

Status Reader::value(const KeyRef& key, store::Value* value) {
  Place place;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  if (Status status = demand(TKV_RIGHT_READ, key.name, place.node, "reading its value"); !status.ok()) return status;
  return at_key(view_.value(place.node.id, value), key.name);
}

Status Reader::list(const KeyRef& key, bool infos, FunctionRef<Status(const Subkey& subkey)> visit) {
  Place place;
  Subkey subkey;
  FullName name;
  bool visit_failed = false;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  if (Status status = demand(TKV_RIGHT_LIST, key.name, place.node, "listing its subkeys"); !status.ok()) return status;
  const auto show = [&](std::string_view level, const store::Node& node) -> Status {
    subkey.level = level;
    subkey.info.id = node.id;
    if (infos) {
      if (Status status = name.join(key.name, level); !status.ok()) return status;
      if (Status status = read_info(name.view(), node, &subkey.info); !status.ok()) return status;
    }
    return visit(subkey);
  };
  const Status status = view_.children(place.node.id, [&](std::string_view level, const store::Node& node) {
    Status shown = show(level, node);
    visit_failed = !shown.ok();
    return shown;
  });
  return visit_failed ? status : at_key(status, key.name);
}

Status Reader::walk(const KeyRef& key, const WalkOptions& options, FunctionRef<Status(const WalkEntry& entry)> visit) {
  const bool fails = options.denied == WalkOptions::Denied::kFail;
  const auto enter_damaged = [&](std::string_view name, std::size_t depth, WalkEntry::Part part, const Status& damage) {
    WalkEntry entry;
    entry.name = name;
    entry.level = last_level(name);
    entry.depth = depth;
    entry.damaged = part;
    entry.damage = &damage;
    return visit(entry);
  };
  Status value_damage;
  VisitDamaged visit_damaged;
  if (options.damaged == WalkOptions::Damaged::kVisit) visit_damaged.emplace(enter_damaged);
  const auto enter = [&](Step& step) -> Status {
    WalkEntry entry;
    entry.name = step.name;
    entry.level = step.level;
    entry.depth = step.depth;
    entry.id = step.node.id;
    entry.rights = rights(step.name, step.node);
    step.descend = step.depth < options.depth;
    if (step.descend && (entry.rights & TKV_RIGHT_LIST) == 0) {
      Status status = view_.has_children(step.node.id, &entry.subkeys_hidden);
      if (!status.ok()) return at_key(status, step.name);
      if (entry.subkeys_hidden && fails) return demand(TKV_RIGHT_LIST, step.name, step.node, "listing its subkeys");
      step.descend = false;
    }
    const bool readable = (entry.rights & TKV_RIGHT_READ) != 0;
    if (readable) entry.security = step.node.security;
    if (options.values && !readable && fails) return demand(TKV_RIGHT_READ, step.name, step.node, "reading its value");
    if (options.values && readable) {
      store::Value value;
      value_damage = view_.value(step.node.id, &value);
      if (value_damage.is(PRTKV_STORAGE_FAILED) && visit_damaged) {
        entry.damaged = WalkEntry::Part::kValue;
        entry.damage = &value_damage;
        return visit(entry);
      }
      if (!value_damage.ok()) return at_key(value_damage, step.name);
      entry.type = value.type;
      entry.value = value.bytes;
      entry.revision = std::max(step.node.revision, value.revision);
    }
    return visit(entry);
  };
  Place place;
  Presence presence = Presence::kSound;
  Status status = resolve(key, &place);
  if (status.ok()) return descend_from(view_, key.name, place, enter, visit_damaged);
  const bool may_pass = visit_damaged && key.id == kAnyKey && status.is(PRTKV_STORAGE_FAILED);
  if (!may_pass || !look_up(key.name, &presence).ok() || presence != Presence::kDamaged) return status;
  return enter_damaged(key.name, 0, WalkEntry::Part::kRecord, status);
}

// Writer

// Where a key is to be put.
struct Writer::Target {
  FullName name;
  store::Node parent;
  Route parent_route = kAnyRoute;
  bool taken = false;
  store::Node former;  // what is there, if taken

  std::string_view level() const { return last_level(name.view()); }
};

// What a copy is made with: one source state, one name and one buffer for all keys.
struct Writer::Copying {
  store::View& view;
  const CopyOptions& options;
  std::string_view source;
  std::string_view target;
  std::string name;        // of the key being copied
  std::size_t max_size;    // of names of sources, so that the names of their copies keep to the limits
  std::size_t max_levels;  // likewise
  std::vector<std::byte> value;
};

// The view for reading much of the tree: the state before the update, which stores read fastest, as long as the update
// has changed nothing in it.
store::View& Writer::stable_view() { return changed_ ? static_cast<store::View&>(update_) : update_.before(); }

void Writer::count_key() {
  ++keys_;
  if (progress_) (*progress_)(keys_);
}

Status Writer::find_target(const KeyRef& parent, std::string_view name, Target* target) {
  Place place;
  if (Status status = check_relative_name(name); !status.ok()) return status;
  if (Status status = resolve(parent, &place); !status.ok()) return status;
  if (Status status = target->name.join(parent.name, name); !status.ok()) return status;
  target->parent = place.node;
  target->parent_route = place.route;
  std::string_view rest = name;
  std::string_view level = take_level(&rest);
  while (!rest.empty()) {
    const std::size_t passed = target->name.view().size() - rest.size() - 1;
    const Status status = update_.find(target->parent.id, level, &target->parent);
    if (!status.ok()) return at_key(status, target->name.view().substr(0, passed));
    target->parent_route = continued(target->parent_route, target->parent);
    level = take_level(&rest);
  }
  const Status status = update_.find(target->parent.id, level, &target->former);
  if (!status.ok() && !status.is(PRTKV_NO_SUCH_KEY)) return at_key(status, target->name.view());
  target->taken = status.ok();
  return {};
}

// The rights that putting a key at the target needs.
Status Writer::demand_target(const Target& target, bool replace) {
  if (target.taken && !replace) return key_exists(target.name.view());
  const std::string_view parent = parent_of(target.name.view());
  if (Status status = demand(TKV_RIGHT_CREATE, parent, target.parent, "putting a key below it"); !status.ok()) {
    return status;
  }
  return target.taken ? demand_delete(target.name.view(), target.former) : Status();
}

// The right to delete a key and everything below it.
Status Writer::demand_delete(std::string_view name, const store::Node& node) {
  if (identity().superuser) return {};
  if (Status status = demand(TKV_RIGHT_DELETE, name, node, "deleting it"); !status.ok()) return status;
  const auto demand_step = [&](Step& step) {
    count_key();
    return demand(TKV_RIGHT_DELETE, step.name, step.node, "deleting it");
  };
  // The rights on a damaged key cannot be read. Those on the key above it count, and suffice.
  const auto pass_over = [&](std::string_view damaged, std::size_t, WalkEntry::Part part, const Status& damage) {
    count_key();
    return part == WalkEntry::Part::kRecord ? Status() : at_key(damage, damaged);
  };
  VisitDamaged visit_damaged;
  visit_damaged.emplace(pass_over);
  std::string below(name);
  return descend(stable_view(), below, node.id, 1, demand_step, visit_damaged);
}

Status Writer::remove_damaged(std::string_view name, const Status& damage) {
  Place above;
  if (name.empty() || !resolve(parent_of(name), &above).ok()) return damage;
  Status status = demand(TKV_RIGHT_DELETE, parent_of(name), above.node, "deleting a damaged key below it");
  if (!status.ok()) return status;
  changed_ = true;
  count_key();
  status = update_.remove_damaged(above.node.id, last_level(name));
  if (status.ok()) changes_.add(Change::Kind::kDeleted, name, kAnyKey);  // nobody can tell its id
  return status.is(PRTKV_KEY_EXISTS) ? damage : at_key(status, name);
}

// Returns PRTKV_INVALID_NAME if a key below would exceed the limits under the new name.
Status Writer::demand_fit(const store::Node& node, std::string_view from, std::string_view to) {
  if (to.size() <= from.size() && count_levels(to) <= count_levels(from)) return {};
  const std::size_t levels = count_levels(to);
  std::string below(to);
  return descend(stable_view(), below, node.id, 1, [&](Step& step) -> Status {
    if (step.name.size() <= kMaxNameSize && levels + step.depth <= kMaxLevels) return {};
    return {PRTKV_INVALID_NAME,
            "invalid name: " + describe(step.name) + " would be longer or deeper than a name may be"};
  });
}

// Before what is put there: changes are undone in the opposite order.
void Writer::note_replaced(const Target& target) {
  if (target.taken) changes_.add(Change::Kind::kDeleted, target.name.view(), target.former.id);
}

Status Writer::put_node(const Target& target, const store::Node& node) {
  changed_ = true;
  if (target.taken) {
    if (Status status = update_.unlink(target.parent.id, target.level()); !status.ok()) {
      return at_key(status, target.name.view());
    }
    if (Status status = update_.discard(target.former.id); !status.ok()) return at_key(status, target.name.view());
  }
  const Status status = update_.insert(target.parent.id, target.level(), node);
  return status.is(PRTKV_KEY_EXISTS) ? key_exists(target.name.view()) : at_key(status, target.name.view());
}

Status Writer::create(const KeyRef& parent, std::string_view name, const sec_attr& security, std::int32_t type,
                      std::span<const std::byte> bytes, KeyId* id, Route* route) {
  Target target;
  store::Node created;
  if (Status status = check_security(security); !status.ok()) return status;
  if (Status status = check_value_size(bytes.size()); !status.ok()) return status.about(describe(name));
  if (Status status = find_target(parent, name, &target); !status.ok()) return status;
  if (Status status = demand_target(target, false); !status.ok()) return status;
  if (Status status = stage(type, bytes, &created.id); !status.ok()) return at_key(status, target.name.view());
  created.security = normalized(security);
  if (Status status = put_node(target, created); !status.ok()) return status;
  note_created(target.name.view(), created.id);
  *id = created.id;
  if (route != nullptr) *route = continued(target.parent_route, created);
  return {};
}

Status Writer::write_value(const KeyRef& key, std::int32_t type, std::span<const std::byte> bytes) {
  Place place;
  if (Status status = check_value_size(bytes.size()); !status.ok()) return status.about(describe(key.name));
  if (Status status = resolve(key, &place); !status.ok()) return status;
  if (Status status = demand(TKV_RIGHT_WRITE, key.name, place.node, "writing its value"); !status.ok()) return status;
  changed_ = true;
  count_key();
  changes_.add(Change::Kind::kValue, key.name, place.node.id);
  return at_key(update_.set_value(place.node.id, type, bytes), key.name);
}

Status Writer::write_security(const KeyRef& key, const sec_attr& security) {
  Place place;
  if (Status status = check_security(security); !status.ok()) return status;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  Status status = demand(TKV_RIGHT_SECURITY, key.name, place.node, "changing its security");
  if (!status.ok()) return status;
  changed_ = true;
  count_key();
  changes_.add(Change::Kind::kSecurity, key.name, place.node.id);
  return at_key(update_.set_security(place.parent, last_level(key.name), normalized(security)), key.name);
}

Status Writer::change_security(const KeyRef& key, bool recursive, FunctionRef<Status(sec_attr* security)> change) {
  struct NewSecurity {
    store::NodeId parent;
    std::string level;
    sec_attr security;
  };
  std::vector<NewSecurity> changes;
  const auto collect = [&](Step& step) -> Status {
    step.descend = recursive;
    sec_attr wanted = step.node.security;
    Status status = demand(TKV_RIGHT_SECURITY, step.name, step.node, "changing its security");
    if (status.ok()) status = change(&wanted);
    if (status.ok()) status = check_security(wanted);
    if (!status.ok()) return status;
    changes.push_back({step.parent, std::string(step.level), normalized(wanted)});
    changes_.add(Change::Kind::kSecurity, step.name, step.node.id);
    return {};
  };
  Place place;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  if (Status status = descend_from(stable_view(), key.name, place, collect); !status.ok()) return status;
  changed_ = true;
  for (const NewSecurity& each : changes) {
    if (Status status = update_.set_security(each.parent, each.level, each.security); !status.ok()) {
      return at_key(status, key.name);
    }
    count_key();
  }
  return {};
}

Status Writer::remove(const KeyRef& key, bool recursive) {
  Place place;
  if (key.name.empty()) return {PRTKV_INVALID_ARGUMENT, "the root key cannot be deleted"};
  if (Status status = resolve(key, &place); !status.ok()) {
    const bool may_be_it = status.is(PRTKV_STORAGE_FAILED) && key.id == kAnyKey;
    return may_be_it ? remove_damaged(key.name, status) : status;
  }
  if (Status status = demand(TKV_RIGHT_DELETE, key.name, place.node, "deleting it"); !status.ok()) return status;
  if (recursive) {
    if (Status status = demand_delete(key.name, place.node); !status.ok()) return status;
  } else {
    bool subkeys = false;
    if (Status status = update_.has_children(place.node.id, &subkeys); !status.ok()) return at_key(status, key.name);
    if (subkeys) return {PRTKV_HAS_SUBKEYS, describe(key.name) + " has subkeys"};
  }
  changed_ = true;
  changes_.add(Change::Kind::kDeleted, key.name, place.node.id);
  if (Status status = update_.unlink(place.parent, last_level(key.name)); !status.ok()) return at_key(status, key.name);
  return at_key(update_.discard(place.node.id), key.name);
}

Status Writer::move(const KeyRef& source, const KeyRef& parent, std::string_view name, bool replace, KeyId* id,
                    Route* route) {
  Place from;
  Target target;
  if (source.name.empty()) return {PRTKV_INVALID_ARGUMENT, "the root key cannot be moved"};
  if (Status status = resolve(source, &from); !status.ok()) return status;
  if (Status status = find_target(parent, name, &target); !status.ok()) return status;
  const std::string_view to = target.name.view();
  if (is_within(to, source.name)) {
    return {PRTKV_MOVE_INTO_ITSELF, describe(source.name) + " cannot be moved into itself, to " + describe(to)};
  }
  if (replace && is_within(source.name, to)) return cannot_replace_ancestor(source.name, to);
  if (Status status = demand(TKV_RIGHT_DELETE, source.name, from.node, "moving it"); !status.ok()) return status;
  if (Status status = demand_target(target, replace); !status.ok()) return status;
  if (Status status = demand_fit(from.node, source.name, to); !status.ok()) return status;
  changed_ = true;
  if (Status status = update_.unlink(from.parent, last_level(source.name)); !status.ok()) {
    return at_key(status, source.name);
  }
  note_replaced(target);
  ++from.node.moves;
  if (Status status = put_node(target, from.node); !status.ok()) return status;
  changes_.add(Change::Kind::kMoved, to, from.node.id, source.name);
  *id = from.node.id;
  if (route != nullptr) *route = continued(target.parent_route, from.node);
  return {};
}

Status Writer::copy(const KeyRef& source, std::string_view target_name, const CopyOptions& options) {
  Place from;
  Target target;
  if (Status status = resolve(source, &from); !status.ok()) return status;
  if (Status status = find_target("", target_name, &target); !status.ok()) return status;
  const std::string_view to = target.name.view();
  if (is_within(to, source.name) && (options.recursive || to == source.name)) {
    return {PRTKV_MOVE_INTO_ITSELF, describe(source.name) + " cannot be copied into itself, to " + describe(to)};
  }
  if (options.replace && is_within(source.name, to)) return cannot_replace_ancestor(source.name, to);
  if (Status status = demand_target(target, options.replace); !status.ok()) return status;
  note_replaced(target);
  Copying copying{stable_view(), options, source.name, to, std::string(source.name), {}, {}, {}};
  copying.max_size = kMaxNameSize + source.name.size() - to.size();
  copying.max_levels = kMaxLevels + count_levels(source.name) - count_levels(to);
  store::Node made;
  Status status = copy_key(copying, from.node, &made);
  return status.ok() ? put_node(target, made) : status;
}

Status Writer::security_of_copy(const Copying& copying, const store::Node& from, sec_attr* security) const {
  *security = from.security;
  if (!copying.options.own) return {};
  Status status = set_user(security, identity().user);
  return status.ok() ? set_group(security, identity().group()) : status;
}

// Stages a copy of the key named in `copying`, if wanted with everything below it.
Status Writer::copy_key(Copying& copying, const store::Node& from, store::Node* to) {
  if (copying.name.size() > copying.max_size || count_levels(copying.name) > copying.max_levels) {
    return {PRTKV_INVALID_NAME,
            "invalid name: the copy of " + describe(copying.name) + " would be longer or deeper than a name may be"};
  }
  store::Value value;
  if (Status status = demand(TKV_RIGHT_READ, copying.name, from, "copying it"); !status.ok()) return status;
  if (Status status = copying.view.value(from.id, &value); !status.ok()) return at_key(status, copying.name);
  copying.value.assign(value.bytes.begin(), value.bytes.end());
  if (Status status = security_of_copy(copying, from, &to->security); !status.ok()) return status;
  if (Status status = stage(value.type, copying.value, &to->id); !status.ok()) return at_key(status, copying.name);
  note_created(moved_name(copying.name, copying.source, copying.target), to->id);
  if (!copying.options.recursive) return {};
  bool subkeys = false;
  if (Status status = copying.view.has_children(from.id, &subkeys); !status.ok()) return at_key(status, copying.name);
  if (!subkeys) return {};
  Status status = demand(TKV_RIGHT_LIST, copying.name, from, "listing its subkeys");
  return status.ok() ? copy_subkeys(copying, from.id, to->id) : status;
}

Status Writer::copy_subkeys(Copying& copying, store::NodeId from, store::NodeId to) {
  std::vector<std::pair<std::string, store::Node>> subkeys;  // collected first, because copying changes the store
  const Status listed = copying.view.children(from, [&](std::string_view level, const store::Node& node) {
    subkeys.emplace_back(level, node);
    return Status();
  });
  if (!listed.ok()) return at_key(listed, copying.name);
  const std::size_t size = copying.name.size();
  for (const auto& [level, node] : subkeys) {
    if (size != 0) copying.name.push_back('.');
    copying.name.append(level);
    store::Node made;
    if (Status status = copy_key(copying, node, &made); !status.ok()) return status;
    if (Status status = update_.insert(to, level, made); !status.ok()) return at_key(status, copying.name);
    copying.name.resize(size);
  }
  return {};
}

Status Writer::stage(std::int32_t type, std::span<const std::byte> bytes, KeyId* id) {
  KeyId staged = kAnyKey;
  if (Status status = check_value_size(bytes.size()); !status.ok()) return status;
  if (Status status = update_.new_id(&staged); !status.ok()) return status;
  changed_ = true;
  count_key();
  if (type != 0 || !bytes.empty()) {
    if (Status status = update_.set_value(staged, type, bytes); !status.ok()) return status;
  }
  *id = staged;
  return {};
}

Status Writer::stage_below(KeyId parent, std::string_view level, const sec_attr& security, std::int32_t type,
                           std::span<const std::byte> bytes, KeyId* id) {
  KeyId staged = kAnyKey;
  if (Status status = check_relative_name(level); !status.ok()) return status;
  if (count_levels(level) != 1) return {PRTKV_INVALID_NAME, "invalid name: it must have one level"};
  if (Status status = check_security(security); !status.ok()) return status;
  if (Status status = stage(type, bytes, &staged); !status.ok()) return at_key(status, level);
  if (Status status = update_.insert(parent, level, {staged, normalized(security)}); !status.ok()) {
    return status.is(PRTKV_KEY_EXISTS) ? key_exists(level) : at_key(status, level);
  }
  *id = staged;
  return {};
}

Status Writer::attach(KeyId id, const sec_attr& security, const KeyRef& parent, std::string_view name, bool replace) {
  Target target;
  if (Status status = check_security(security); !status.ok()) return status;
  if (Status status = find_target(parent, name, &target); !status.ok()) return status;
  if (Status status = demand_target(target, replace); !status.ok()) return status;
  note_replaced(target);
  return put_node(target, {id, normalized(security)});
}

}  // namespace tkv::registry
