#include "registry/tree.h"

#include <utility>
#include <vector>

namespace tkv::registry {
namespace {

Status no_such_key(std::string_view name) { return {PRTKV_NO_SUCH_KEY, describe(name) + " does not exist"}; }

// A store's failure, told of the key that it happened at.
Status told(const Status& status, std::string_view name) {
  if (status.ok()) return {};
  if (status.is(PRTKV_NO_SUCH_KEY)) return no_such_key(name);
  return status.about(describe(name));
}

Status key_exists(std::string_view name) { return {PRTKV_KEY_EXISTS, describe(name) + " exists"}; }

Status check_value(std::string_view name, std::size_t size) {
  if (size <= kMaxValueBytes) return {};
  return {PRTKV_VALUE_TOO_LARGE, describe(name) + ": a value of " + std::to_string(size) + " bytes, more than 1 MiB"};
}

std::string hexadecimal(Rights right) {
  constexpr char kDigits[] = "0123456789abcdef";
  return std::string("0x") + kDigits[right >> 4 & 0xf] + kDigits[right & 0xf];
}

// Only a damaged registry has a key below as many levels as this one.
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

// Visits everything below `parent`, each key before its subkeys. `name` is the parent's and is the same again
// afterwards.
Status descend(store::View& view, std::string& name, store::NodeId parent, std::size_t depth,
               FunctionRef<Status(Step&)> visit) {
  bool refused = false;  // by the visitor: its failures are told already
  const std::size_t size = name.size();
  const Status status = view.children(parent, [&](std::string_view level, const store::Node& node) -> Status {
    if (size != 0) name.push_back('.');
    const std::size_t level_at = name.size();
    name.append(level);
    Step step{name, std::string_view(name).substr(level_at), parent, node, depth, true};
    Status visited = depth > kMaxLevels ? hangs_in_a_loop(name) : visit(step);
    if (visited.ok() && step.descend) visited = descend(view, name, node.id, depth + 1, visit);
    refused = !visited.ok();
    name.resize(size);
    return visited;
  });
  return refused ? status : told(status, name);
}

}  // namespace

// Reader

Status Reader::find_parent(std::string_view name, store::NodeId* id) {
  const std::string_view parent = parent_of(name);
  *id = store::kRootNode;
  if (parent.empty()) return {};
  if (cache_ != nullptr) {
    const store::NodeId known = cache_->find(view_.structure(), parent);
    if (known != store::kNoNode) {
      *id = known;
      return {};
    }
  }
  for (std::string_view rest = parent; !rest.empty();) {
    store::Node node;
    if (Status status = view_.find(*id, take_level(&rest), &node); !status.ok()) return status;
    *id = node.id;
  }
  if (cache_ != nullptr) cache_->keep(view_.structure(), parent, *id);
  return {};
}

Status Reader::resolve(const KeyRef& key, Place* place) {
  if (key.id == store::kNoNode) {
    if (Status status = check_name(key.name); !status.ok()) return status;
  }
  Place found;
  if (!key.name.empty()) {
    if (Status status = find_parent(key.name, &found.parent); !status.ok()) return told(status, key.name);
  }
  const Status status = view_.find(found.parent, last_level(key.name), &found.node);
  if (!status.ok()) return told(status, key.name);
  if (key.id != store::kNoNode && key.id != found.node.id) return no_such_key(key.name);
  *place = found;
  return {};
}

Status Reader::demand(Rights right, std::string_view name, const store::Node& node, const char* doing) const {
  if ((rights_of(identity_, node.security) & right) == right) return {};
  return {PRTKV_ACCESS_DENIED, describe(name) + ": access denied, " + doing + " needs the right " + hexadecimal(right)};
}

Status Reader::exists(std::string_view name, bool* answer) {
  Place place;
  Status status = resolve(name, &place);
  if (!status.ok() && !status.is(PRTKV_NO_SUCH_KEY)) return status;
  *answer = status.ok();
  return {};
}

Status Reader::stat(const KeyRef& key, Stat* stat) {
  Place place;
  store::Value value;
  Stat found;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  if (Status status = demand(TKV_RIGHT_READ, key.name, place.node, "reading it"); !status.ok()) return status;
  if (Status status = view_.has_children(place.node.id, &found.has_subkeys); !status.ok()) {
    return told(status, key.name);
  }
  if (Status status = view_.value(place.node.id, &value); !status.ok()) return told(status, key.name);
  found.id = place.node.id;
  found.security = place.node.security;
  found.type = value.type;
  found.size = value.bytes.size();
  *stat = found;
  return {};
}

// What the identity may know of a key, which is `name`.
Status Reader::read_info(std::string_view name, const store::Node& node, KeyInfo* info) {
  *info = {};
  info->id = node.id;
  info->rights = rights_of(identity_, node.security);
  if ((info->rights & TKV_RIGHT_READ) == 0) return {};
  store::Value value;
  if (Status status = view_.has_children(node.id, &info->has_subkeys); !status.ok()) return told(status, name);
  if (Status status = view_.value(node.id, &value); !status.ok()) return told(status, name);
  info->security = node.security;
  info->type = value.type;
  info->size = value.bytes.size();
  return {};
}

Status Reader::stat(const KeyRef& key, KeyInfo* info) {
  Place place;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  if (Status status = demand(TKV_RIGHT_READ, key.name, place.node, "reading it"); !status.ok()) return status;
  return read_info(key.name, place.node, info);
}

Status Reader::list(const KeyRef& key, bool infos, FunctionRef<Status(const Subkey& subkey)> visit) {
  Subkey subkey;
  FullName name;
  return list(key, [&](std::string_view level, const store::Node& node) -> Status {
    subkey.level = level;
    subkey.info.id = node.id;
    if (infos) {
      if (Status status = name.join(key.name, level); !status.ok()) return status;
      if (Status status = read_info(name.view(), node, &subkey.info); !status.ok()) return status;
    }
    return visit(subkey);
  });
}

Status Reader::walk(const KeyRef& key, const WalkOptions& options, FunctionRef<Status(const WalkEntry& entry)> visit) {
  const bool fails = options.denied == WalkOptions::Denied::kFail;
  const auto enter = [&](Step& step) -> Status {
    WalkEntry entry;
    entry.name = step.name;
    entry.level = step.level;
    entry.depth = step.depth;
    entry.id = step.node.id;
    entry.rights = rights_of(identity_, step.node.security);
    step.descend = step.depth < options.depth;
    if (step.descend && (entry.rights & TKV_RIGHT_LIST) == 0) {
      Status status = view_.has_children(step.node.id, &entry.subkeys_hidden);
      if (!status.ok()) return told(status, step.name);
      if (entry.subkeys_hidden && fails) return demand(TKV_RIGHT_LIST, step.name, step.node, "listing its subkeys");
      step.descend = false;
    }
    const bool readable = (entry.rights & TKV_RIGHT_READ) != 0;
    if (readable) entry.security = step.node.security;
    if (options.values && !readable && fails) {
      return demand(TKV_RIGHT_READ, step.name, step.node, "reading its value");
    }
    if (options.values && readable) {
      store::Value value;
      if (Status status = view_.value(step.node.id, &value); !status.ok()) return told(status, step.name);
      entry.type = value.type;
      entry.value = value.bytes;
    }
    return visit(entry);
  };
  Place place;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  std::string name(key.name);
  Step top{name, last_level(name), place.parent, place.node, 0, true};
  Status status = enter(top);
  return status.ok() && top.descend ? descend(view_, name, place.node.id, 1, enter) : status;
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
  return told(view_.value(place.node.id, value), key.name);
}

Status Reader::value(const Entry& entry, store::Value* value) {
  Status status = demand(TKV_RIGHT_READ, entry.name, entry.node, "reading its value");
  return status.ok() ? told(view_.value(entry.node.id, value), entry.name) : status;
}

Status Reader::list(const KeyRef& key, FunctionRef<Status(std::string_view level, const store::Node& node)> visit) {
  Place place;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  if (Status status = demand(TKV_RIGHT_LIST, key.name, place.node, "listing its subkeys"); !status.ok()) return status;
  bool refused = false;
  const Status status = view_.children(place.node.id, [&](std::string_view level, const store::Node& node) {
    Status visited = visit(level, node);
    refused = !visited.ok();
    return visited;
  });
  return refused ? status : told(status, key.name);
}

Status Reader::walk(const KeyRef& key, Hidden hidden, FunctionRef<Status(const Entry& entry)> visit) {
  const auto enter = [&](Step& step) -> Status {
    const Rights rights = rights_of(identity_, step.node.security);
    Entry entry{step.name, step.level, step.depth, step.node, rights, false, step.descend};
    if ((rights & TKV_RIGHT_LIST) == 0) {
      Status status = view_.has_children(step.node.id, &entry.subkeys_hidden);
      if (!status.ok()) return told(status, step.name);
      if (entry.subkeys_hidden && hidden == Hidden::kFail) {
        return demand(TKV_RIGHT_LIST, step.name, step.node, "listing its subkeys");
      }
      step.descend = false;
    }
    return visit(entry);
  };
  Place place;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  std::string name(key.name);
  Step top{name, last_level(name), place.parent, place.node, 0, true};
  Status status = enter(top);
  return status.ok() && top.descend ? descend(view_, name, place.node.id, 1, enter) : status;
}

// Writer

// Where a key is to be put.
struct Writer::Target {
  FullName name;
  store::Node parent;
  bool taken = false;
  store::Node former;  // what is there, when taken

  std::string_view level() const { return last_level(name.view()); }
};

// What a copy is made with: one source state, one name and one buffer for all keys of it.
struct Writer::Copying {
  store::View& view;
  bool recursive;
  bool own;                 // copies belong to the identity
  std::string name;         // of the key being copied
  std::size_t spare_bytes;  // that names of copies may be longer than those of their sources
  std::size_t spare_levels;
  std::vector<std::byte> value;
};

// The tree as this update found it, for reading much of it without being bound to what others do meanwhile; after
// changes of its own, as it shows it.
store::View& Writer::steady() { return changed_ ? static_cast<store::View&>(update_) : update_.before(); }

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
  std::string_view rest = name;
  std::string_view level = take_level(&rest);
  while (!rest.empty()) {
    const std::size_t passed = target->name.view().size() - rest.size() - 1;
    const Status status = update_.find(target->parent.id, level, &target->parent);
    if (!status.ok()) return told(status, target->name.view().substr(0, passed));
    level = take_level(&rest);
  }
  const Status status = update_.find(target->parent.id, level, &target->former);
  if (!status.ok() && !status.is(PRTKV_NO_SUCH_KEY)) return told(status, target->name.view());
  target->taken = status.ok();
  return {};
}

// The rights that putting a key at the target needs. `spared` will be gone from there by then.
Status Writer::demand_target(const Target& target, bool replace, store::NodeId spared) {
  if (target.taken && !replace) return key_exists(target.name.view());
  const std::string_view parent = parent_of(target.name.view());
  if (Status status = demand(TKV_RIGHT_CREATE, parent, target.parent, "putting a key below it"); !status.ok()) {
    return status;
  }
  return target.taken ? demand_delete(target.name.view(), target.former, spared) : Status();
}

// The delete right on a key and everything below it, but for the subtree of `spared`.
Status Writer::demand_delete(std::string_view name, const store::Node& node, store::NodeId spared) {
  if (identity().superuser) return {};
  if (Status status = demand(TKV_RIGHT_DELETE, name, node, "deleting it"); !status.ok()) return status;
  std::string below(name);
  return descend(steady(), below, node.id, 1, [&](Step& step) -> Status {
    step.descend = step.node.id != spared;
    count_key();
    return step.descend ? demand(TKV_RIGHT_DELETE, step.name, step.node, "deleting it") : Status();
  });
}

// Tells whether everything below a key keeps within the limits when its name changes.
Status Writer::check_fit(const store::Node& node, std::string_view from, std::string_view to) {
  if (to.size() <= from.size() && count_levels(to) <= count_levels(from)) return {};
  const std::size_t levels = count_levels(to);
  std::string below(to);
  return descend(steady(), below, node.id, 1, [&](Step& step) -> Status {
    if (step.name.size() <= kMaxNameBytes && levels + step.depth <= kMaxLevels) return {};
    return {PRTKV_INVALID_NAME,
            "invalid name: " + describe(step.name) + " would be longer or deeper than a name may be"};
  });
}

Status Writer::put(const Target& target, const store::Node& node) {
  changed_ = true;
  if (target.taken) {
    if (Status status = update_.unlink(target.parent.id, target.level()); !status.ok()) {
      return told(status, target.name.view());
    }
    if (Status status = update_.discard(target.former.id); !status.ok()) return told(status, target.name.view());
  }
  const Status status = update_.insert(target.parent.id, target.level(), node);
  return status.is(PRTKV_KEY_EXISTS) ? key_exists(target.name.view()) : told(status, target.name.view());
}

Status Writer::create(const KeyRef& parent, std::string_view name, const sec_attr& security, store::NodeId* id) {
  return create_and_set(parent, name, security, 0, {}, id);
}

Status Writer::create_and_set(const KeyRef& parent, std::string_view name, const sec_attr& security, std::int32_t type,
                              std::span<const std::byte> bytes, store::NodeId* id) {
  Target target;
  store::NodeId made = store::kNoNode;
  if (Status status = check_security(security); !status.ok()) return status;
  if (Status status = check_value(name, bytes.size()); !status.ok()) return status;
  if (Status status = find_target(parent, name, &target); !status.ok()) return status;
  if (Status status = demand_target(target, false, store::kNoNode); !status.ok()) return status;
  if (Status status = sprout(type, bytes, &made); !status.ok()) return told(status, target.name.view());
  if (Status status = put(target, {made, tidied(security)}); !status.ok()) return status;
  *id = made;
  return {};
}

Status Writer::set_value(const KeyRef& key, std::int32_t type, std::span<const std::byte> bytes) {
  Place place;
  if (Status status = check_value(key.name, bytes.size()); !status.ok()) return status;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  if (Status status = demand(TKV_RIGHT_WRITE, key.name, place.node, "writing its value"); !status.ok()) return status;
  changed_ = true;
  count_key();
  return told(update_.set_value(place.node.id, type, bytes), key.name);
}

Status Writer::set_security(const KeyRef& key, const sec_attr& security) {
  Place place;
  if (Status status = check_security(security); !status.ok()) return status;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  Status status = demand(TKV_RIGHT_SECURITY, key.name, place.node, "changing its security");
  if (!status.ok()) return status;
  changed_ = true;
  count_key();
  return told(update_.set_security(place.parent, last_level(key.name), tidied(security)), key.name);
}

Status Writer::set_security_below(const KeyRef& key, FunctionRef<sec_attr(const Entry& entry)> change) {
  struct Change {
    store::NodeId parent;
    std::string level;
    sec_attr security;
  };
  std::vector<Change> changes;
  const auto collect = [&](Step& step) -> Status {
    Status status = demand(TKV_RIGHT_SECURITY, step.name, step.node, "changing its security");
    if (!status.ok()) return status;
    const Rights rights = rights_of(identity(), step.node.security);
    const sec_attr wanted = change({step.name, step.level, step.depth, step.node, rights, false, step.descend});
    if (status = check_security(wanted); !status.ok()) return status;
    changes.push_back({step.parent, std::string(step.level), tidied(wanted)});
    return {};
  };
  Place place;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  std::string name(key.name);
  Step top{name, last_level(name), place.parent, place.node, 0, true};
  if (Status status = collect(top); !status.ok()) return status;
  if (Status status = descend(steady(), name, place.node.id, 1, collect); !status.ok()) return status;
  changed_ = true;
  for (const Change& one : changes) {
    if (Status status = update_.set_security(one.parent, one.level, one.security); !status.ok()) {
      return told(status, key.name);
    }
    count_key();
  }
  return {};
}

Status Writer::change_security(const KeyRef& key, bool recursive, FunctionRef<Status(sec_attr* security)> change) {
  struct Change {
    store::NodeId parent;
    std::string level;
    sec_attr security;
  };
  std::vector<Change> changes;
  const auto collect = [&](Step& step) -> Status {
    sec_attr wanted = step.node.security;
    Status status = demand(TKV_RIGHT_SECURITY, step.name, step.node, "changing its security");
    if (status.ok()) status = change(&wanted);
    if (status.ok()) status = check_security(wanted);
    if (status.ok()) changes.push_back({step.parent, std::string(step.level), tidied(wanted)});
    return status;
  };
  Place place;
  if (Status status = resolve(key, &place); !status.ok()) return status;
  std::string name(key.name);
  Step top{name, last_level(name), place.parent, place.node, 0, recursive};
  if (Status status = collect(top); !status.ok()) return status;
  if (recursive) {
    if (Status status = descend(steady(), name, place.node.id, 1, collect); !status.ok()) return status;
  }
  changed_ = true;
  for (const Change& one : changes) {
    if (Status status = update_.set_security(one.parent, one.level, one.security); !status.ok()) {
      return told(status, key.name);
    }
    count_key();
  }
  return {};
}

Status Writer::remove(const KeyRef& key, bool recursive) {
  Place place;
  if (key.name.empty()) return {PRTKV_INVALID_ARGUMENT, "the root key cannot be deleted"};
  if (Status status = resolve(key, &place); !status.ok()) return status;
  if (Status status = demand(TKV_RIGHT_DELETE, key.name, place.node, "deleting it"); !status.ok()) return status;
  if (recursive) {
    if (Status status = demand_delete(key.name, place.node, store::kNoNode); !status.ok()) return status;
  } else {
    bool subkeys = false;
    if (Status status = update_.has_children(place.node.id, &subkeys); !status.ok()) return told(status, key.name);
    if (subkeys) return {PRTKV_HAS_SUBKEYS, describe(key.name) + " has subkeys"};
  }
  changed_ = true;
  if (Status status = update_.unlink(place.parent, last_level(key.name)); !status.ok()) return told(status, key.name);
  return told(update_.discard(place.node.id), key.name);
}

Status Writer::move(const KeyRef& source, const KeyRef& parent, std::string_view name, bool replace,
                    store::NodeId* moved) {
  Place from;
  Target target;
  if (source.name.empty()) return {PRTKV_INVALID_ARGUMENT, "the root key cannot be moved"};
  if (Status status = resolve(source, &from); !status.ok()) return status;
  if (Status status = find_target(parent, name, &target); !status.ok()) return status;
  const std::string_view to = target.name.view();
  if (is_within(to, source.name)) {
    return {PRTKV_MOVE_INTO_ITSELF, describe(source.name) + " cannot be moved into itself, to " + describe(to)};
  }
  if (Status status = demand(TKV_RIGHT_DELETE, source.name, from.node, "moving it"); !status.ok()) return status;
  if (Status status = demand_target(target, replace, from.node.id); !status.ok()) return status;
  if (Status status = check_fit(from.node, source.name, to); !status.ok()) return status;
  changed_ = true;
  if (Status status = update_.unlink(from.parent, last_level(source.name)); !status.ok()) {
    return told(status, source.name);
  }
  if (Status status = put(target, from.node); !status.ok()) return status;
  *moved = from.node.id;
  return {};
}

Status Writer::copy(const KeyRef& source, const KeyRef& parent, std::string_view name, bool recursive, bool replace,
                    store::NodeId* id, bool own) {
  Place from;
  Target target;
  if (Status status = resolve(source, &from); !status.ok()) return status;
  if (Status status = find_target(parent, name, &target); !status.ok()) return status;
  const std::string_view to = target.name.view();
  if (is_within(to, source.name) && (recursive || to == source.name)) {
    return {PRTKV_MOVE_INTO_ITSELF, describe(source.name) + " cannot be copied into itself, to " + describe(to)};
  }
  if (Status status = demand_target(target, replace, store::kNoNode); !status.ok()) return status;
  Copying copying{steady(), recursive, own, std::string(source.name), {}, {}, {}};
  copying.spare_bytes = kMaxNameBytes + source.name.size() - to.size();
  copying.spare_levels = kMaxLevels + count_levels(source.name) - count_levels(to);
  store::Node made;
  if (Status status = security_of_copy(copying, from.node, &made.security); !status.ok()) return status;
  if (Status status = copy_key(copying, from.node, &made.id); !status.ok()) return status;
  if (Status status = put(target, made); !status.ok()) return status;
  *id = made.id;
  return {};
}

Status Writer::security_of_copy(const Copying& copying, const store::Node& from, sec_attr* security) const {
  sec_attr result = from.security;
  if (copying.own) {
    if (Status status = set_user(&result, identity().user); !status.ok()) return status;
    if (Status status = set_group(&result, identity().group()); !status.ok()) return status;
  }
  *security = result;
  return {};
}

// Makes a copy of the key named in `copying`, with everything below it when that is wanted, that nobody sees yet.
Status Writer::copy_key(Copying& copying, const store::Node& from, store::NodeId* to) {
  if (copying.name.size() > copying.spare_bytes || count_levels(copying.name) > copying.spare_levels) {
    return {PRTKV_INVALID_NAME,
            "invalid name: the copy of " + describe(copying.name) + " would be longer or deeper than a name may be"};
  }
  store::Value value;
  if (Status status = demand(TKV_RIGHT_READ, copying.name, from, "copying it"); !status.ok()) return status;
  if (Status status = copying.view.value(from.id, &value); !status.ok()) return told(status, copying.name);
  copying.value.assign(value.bytes.begin(), value.bytes.end());
  if (Status status = sprout(value.type, copying.value, to); !status.ok()) return told(status, copying.name);
  if (!copying.recursive) return {};
  bool subkeys = false;
  if (Status status = copying.view.has_children(from.id, &subkeys); !status.ok()) return told(status, copying.name);
  if (!subkeys) return {};
  Status status = demand(TKV_RIGHT_LIST, copying.name, from, "listing its subkeys");
  return status.ok() ? copy_subkeys(copying, from.id, *to) : status;
}

Status Writer::copy_subkeys(Copying& copying, store::NodeId from, store::NodeId to) {
  std::vector<std::pair<std::string, store::Node>> subkeys;  // first, since copying changes the store
  const Status listed = copying.view.children(from, [&](std::string_view level, const store::Node& node) {
    subkeys.emplace_back(level, node);
    return Status();
  });
  if (!listed.ok()) return told(listed, copying.name);
  const std::size_t size = copying.name.size();
  for (const auto& [level, node] : subkeys) {
    if (size != 0) copying.name.push_back('.');
    copying.name.append(level);
    store::Node made;
    if (Status status = security_of_copy(copying, node, &made.security); !status.ok()) return status;
    if (Status status = copy_key(copying, node, &made.id); !status.ok()) return status;
    if (Status status = update_.insert(to, level, made); !status.ok()) {
      return told(status, copying.name);
    }
    copying.name.resize(size);
  }
  return {};
}

Status Writer::sprout(std::int32_t type, std::span<const std::byte> bytes, store::NodeId* id) {
  store::NodeId made = store::kNoNode;
  if (bytes.size() > kMaxValueBytes) return PRTKV_VALUE_TOO_LARGE;
  if (Status status = update_.new_id(&made); !status.ok()) return status;
  changed_ = true;
  count_key();
  if (type != 0 || !bytes.empty()) {
    if (Status status = update_.set_value(made, type, bytes); !status.ok()) return status;
  }
  *id = made;
  return {};
}

Status Writer::sprout_below(store::NodeId parent, std::string_view level, const sec_attr& security, std::int32_t type,
                            std::span<const std::byte> bytes, store::NodeId* id) {
  store::NodeId made = store::kNoNode;
  if (Status status = check_relative_name(level); !status.ok()) return status;
  if (count_levels(level) != 1) return {PRTKV_INVALID_NAME, "invalid name: one level is wanted"};
  if (Status status = check_security(security); !status.ok()) return status;
  if (Status status = sprout(type, bytes, &made); !status.ok()) return told(status, level);
  if (Status status = update_.insert(parent, level, {made, tidied(security)}); !status.ok()) {
    return status.is(PRTKV_KEY_EXISTS) ? key_exists(level) : told(status, level);
  }
  *id = made;
  return {};
}

Status Writer::plant(store::NodeId id, const sec_attr& security, const KeyRef& parent, std::string_view name,
                     bool replace) {
  Target target;
  if (Status status = check_security(security); !status.ok()) return status;
  if (Status status = find_target(parent, name, &target); !status.ok()) return status;
  if (Status status = demand_target(target, replace, store::kNoNode); !status.ok()) return status;
  return put(target, {id, tidied(security)});
}

}  // namespace tkv::registry
