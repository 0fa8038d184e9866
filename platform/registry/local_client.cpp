#include "registry/local_client.h"

#include <string.h>

#include <algorithm>
#include <limits>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/limits.h"
#include "registry/batch_writer.h"
#include "registry/check.h"
#include "registry/name.h"
#include "registry/new_keys.h"
#include "registry/snapshot.h"
#include "registry/subtree.h"
#include "registry/undo.h"

namespace tkv::registry {
namespace {

const char* characters(std::span<const std::byte> bytes) { return reinterpret_cast<const char*>(bytes.data()); }

// What is to be replaced whole need not be readable.
bool replaces_damage(MergeMode mode) { return mode == MergeMode::kReplace; }

Status demand_expected(const Difference& difference, const ApplyOptions& options) {
  if (difference.count(KeyChange::Kind::kRemove) <= options.max_removed &&
      difference.count(KeyChange::Kind::kChange) <= options.max_changed) {
    return {};
  }
  return {PRTKV_KEY_EXISTS, "others have changed the registry meanwhile; nothing was done"};
}

// Whether keys that a batch removes one by one have subkeys that it does not remove before them. Not seen is what the
// identity may not list: the commit refuses then.
Status check_removals(Reader& tree, const Batch& batch) {
  std::set<std::string> removed;
  for (const Operation& operation : batch.operations) {
    if (operation.kind != Operation::Kind::kRemove) continue;
    removed.insert(operation.name);
    if (operation.recursive) continue;
    Status status = tree.list(operation.name, false, [&](const Subkey& subkey) -> Status {
      if (removed.contains(operation.name + "." + std::string(subkey.level))) return {};
      return {PRTKV_HAS_SUBKEYS, describe(operation.name) + " has subkeys"};
    });
    if (!status.ok() && !status.is(PRTKV_ACCESS_DENIED)) return status;
  }
  return {};
}

Status rehearse(Reader& tree, const Batch& batch, CommitResult* result) {
  Status status = check_conditions(tree, batch, result);
  return status.ok() ? check_removals(tree, batch) : status;
}

}  // namespace

LocalClient::LocalClient(Configuration configuration, Identity identity, std::shared_ptr<store::Store> store,
                         std::string_view note)
    : configuration_(std::move(configuration)),
      identity_(std::move(identity)),
      store_(std::move(store)),
      note_(beginning(note, kMaxNoteSize)),
      history_(*store_, identity_) {}

Status LocalClient::read(FunctionRef<Status(Reader& tree)> function) {
  return store_->read([&](store::View& view) {
    Reader tree(view, identity_, &cache_);
    return function(tree);
  });
}

Status LocalClient::read_all(FunctionRef<Status(Reader& tree)> function) {
  return store_->read_all([&](store::View& view) {
    Reader tree(view, identity_);
    return function(tree);
  });
}

Status LocalClient::write(FunctionRef<Status(Writer& tree)> function, Revision* revision) {
  Revision made = 0;
  return store_->write(
      [&](store::Update& update) {
        Writer tree(update, identity_);
        Status status = function(tree);
        if (status.ok()) update.describe(describe_change(identity_, note_, tree.take_changes()));
        return status;
      },
      revision == nullptr ? &made : revision);
}

namespace {

// Brings what is known of a key to the state that a read would see now, if nothing about the key has changed.
bool renew(store::Store& store, KnownKey* known) {
  store::ValuePlace place = place_of(*known);
  const std::uint64_t state = store.unchanged_until(known->state, known->id, &place);
  if (state == 0) return false;
  known->state = state;
  set_place(place, known);
  return true;
}

bool may_be_copied(const KnownKey& known) { return known.state != 0 && (known.rights & TKV_RIGHT_READ) != 0; }

// As Client::copy_known, also if others have changed since. Brings what is known of the key up to date, as far as that
// is known.
bool copy_unchanged(store::Store& store, KnownKey* known, std::span<std::byte> buffer, std::int32_t* type,
                    std::size_t* size) {
  if (!may_be_copied(*known)) return false;
  store::ValuePlace place = place_of(*known);
  const bool copied = store.copy_unchanged_value(&known->state, known->id, &place, buffer, type, size);
  set_place(place, known);
  return copied;
}

}  // namespace

std::uint64_t LocalClient::latest_state(const KnownKey* copied_next) {
  if (copied_next == nullptr) return store_->latest_state();
  const store::ValuePlace place = place_of(*copied_next);
  return store_->latest_state(&place);
}

Status LocalClient::look_up(const KeyRef& key, KnownKey* known) {
  const bool is_it = known->state != 0 && (key.id == kAnyKey || key.id == known->id);
  if (is_it && renew(*store_, known)) return {};
  KnownKey found = *known;
  Status status = read([&](Reader& tree) {
    found = *known;
    return tree.look_up(key, &found);
  });
  if (status.ok()) *known = found;
  return status;
}

Status LocalClient::stat(const KeyRef& key, KeyInfo* info) {
  KeyInfo found;
  Status status = read([&](Reader& tree) { return tree.stat(key, &found); });
  if (status.ok()) *info = std::move(found);
  return status;
}

Status LocalClient::read_key(const KeyRef& key, KeyInfo* info, TypedValue* value) {
  return read([&](Reader& tree) { return tree.read_key(key, info, value); });
}

Status LocalClient::read_value(const KeyRef& key, TypedValue* value) {
  return read([&](Reader& tree) -> Status {
    store::Value found;
    if (Status status = tree.value(key, &found); !status.ok()) return status;
    value->type = found.type;
    value->bytes.assign(characters(found.bytes), found.bytes.size());
    return {};
  });
}

bool LocalClient::copy_known(const KnownKey& known, std::span<std::byte> buffer, std::int32_t* type,
                             std::size_t* size) {
  return may_be_copied(known) && store_->copy_value(known.state, known.id, place_of(known), buffer, type, size);
}

Status LocalClient::read_known(std::string_view name, KnownKey* known, std::span<std::byte> buffer, std::int32_t* type,
                               std::size_t* size) {
  if (copy_unchanged(*store_, known, buffer, type, size)) return {};
  KnownKey found;
  std::int32_t found_type = 0;
  std::size_t found_size = 0;
  std::vector<std::byte> collected;  // from a store that may run the function again
  Status status = read([&](Reader& tree) -> Status {
    store::Value value;
    found = *known;
    Status read = tree.known_value(name, &found, buffer.size(), &value, &found_size);
    if (!read.ok()) return read;
    found_type = value.type;
    if (tree.state() == 0) {
      collected.assign(value.bytes.begin(), value.bytes.end());
    } else {
      std::copy(value.bytes.begin(), value.bytes.end(), buffer.begin());
    }
    return {};
  });
  if (!status.ok()) return status;
  std::copy(collected.begin(), collected.end(), buffer.begin());
  if (!collected.empty()) ::explicit_bzero(collected.data(), collected.size());  // values may be secrets
  if (found_size <= buffer.size()) *type = found_type;
  *size = found_size;
  *known = found;
  return {};
}

Status LocalClient::read_security(const KeyRef& key, sec_attr* security) {
  sec_attr found{};
  Status status = read([&](Reader& tree) { return tree.security(key, &found); });
  if (status.ok()) *security = found;
  return status;
}

Status LocalClient::create(const KeyRef& parent, std::string_view name, const sec_attr& security, std::int32_t type,
                           std::span<const std::byte> bytes, KnownKey* created) {
  KnownKey made;
  Status status =
      write([&](Writer& tree) { return tree.create(parent, name, security, type, bytes, &made.id, &made.route); });
  if (status.ok()) *created = made;
  return status;
}

Status LocalClient::write_value(const KeyRef& key, std::int32_t type, std::span<const std::byte> bytes) {
  return write([&](Writer& tree) { return tree.write_value(key, type, bytes); });
}

Status LocalClient::write_security(const KeyRef& key, const sec_attr& security) {
  return write([&](Writer& tree) { return tree.write_security(key, security); });
}

Status LocalClient::put(std::span<const NamedValue> values, const PutOptions& options) {
  return write([&](Writer& tree) -> Status {
    for (const NamedValue& each : values) {
      if (Status status = put_value(tree, each.name, each.value, options); !status.ok()) return status;
    }
    return {};
  });
}

Status LocalClient::list(const KeyRef& key, bool infos, FunctionRef<Status(const Subkey& subkey)> visit) {
  if (infos) return read_all([&](Reader& tree) { return tree.list(key, true, visit); });
  // Collected first if the read may begin again: no subkey is visited twice.
  struct End {
    std::size_t at;  // behind a level in `levels`
    KeyId id;
  };
  std::string levels;
  std::vector<End> ends;
  const auto collect = [&](const Subkey& subkey) {
    levels.append(subkey.level);
    ends.push_back({levels.size(), subkey.info.id});
    return Status();
  };
  Status status = read([&](Reader& tree) {
    if (tree.state() != 0) return tree.list(key, false, visit);
    levels.clear();
    ends.clear();
    return tree.list(key, false, collect);
  });
  std::size_t begin = 0;
  for (std::size_t each = 0; status.ok() && each < ends.size(); ++each) {
    Subkey subkey;
    subkey.level = std::string_view(levels).substr(begin, ends[each].at - begin);
    subkey.info.id = ends[each].id;
    begin = ends[each].at;
    status = visit(subkey);
  }
  return status;
}

Status LocalClient::list_names(const KeyRef& key, SubkeyNames* names, std::uint64_t* state) {
  return read([&](Reader& tree) {
    names->clear();
    *state = tree.state();
    return tree.list(key, false, [&](const Subkey& subkey) -> Status {
      if (names->count() == std::numeric_limits<std::int32_t>::max()) return {PRTKV_OUT_OF_MEMORY, "too many subkeys"};
      names->add(subkey.level);
      return {};
    });
  });
}

Status LocalClient::walk(const KeyRef& key, const WalkOptions& options,
                         FunctionRef<Status(const WalkEntry& entry)> visit) {
  return read_all([&](Reader& tree) { return tree.walk(key, options, visit); });
}

Status LocalClient::compare(const Subtree& wanted, MergeMode mode, const NewKeySecurity& security, KeyProgress progress,
                            Difference* difference) {
  Subtree current;
  sec_attr above{};
  const Status status = read_all([&](Reader& tree) -> Status {
    if (Status read = read_subtree(tree, wanted.top, replaces_damage(mode), progress, &current); !read.ok()) {
      return read;
    }
    return inherited_security(tree, parent_of(wanted.top), security, &above);
  });
  return status.ok() ? find_difference(current, wanted, mode, security, above, difference) : status;
}

Status LocalClient::apply(const Subtree& wanted, const ApplyOptions& options, KeyProgress progress,
                          Difference* difference) {
  Difference found;
  const auto compare_before = [&](Reader& tree) -> Status {
    Subtree current;
    sec_attr above{};
    const auto silent = [](std::uint64_t) {};
    const bool over_damage = replaces_damage(options.mode);
    if (Status status = read_subtree(tree, wanted.top, over_damage, silent, &current); !status.ok()) return status;
    if (Status status = inherited_security(tree, parent_of(wanted.top), options.security, &above); !status.ok()) {
      return status;
    }
    return find_difference(current, wanted, options.mode, options.security, above, &found);
  };
  Status status = write([&](Writer& tree) -> Status {
    tree.report_to(progress);
    if (Status compared = tree.before(compare_before); !compared.ok()) return compared;
    if (Status expected = demand_expected(found, options); !expected.ok()) return expected;
    if (options.create_parents) {
      if (Status created = create_parents(tree, wanted.top, options.security); !created.ok()) return created;
    }
    return apply_difference(tree, found.changes);
  });
  if (status.ok()) *difference = std::move(found);
  return status;
}

Status LocalClient::change_security(const KeyRef& key, const SecurityChange& change, bool recursive,
                                    KeyProgress progress) {
  return write([&](Writer& tree) {
    tree.report_to(progress);
    return tree.change_security(key, recursive, [&](sec_attr* security) { return change.apply(security); });
  });
}

Status LocalClient::remove(const KeyRef& key, bool recursive, KeyProgress progress) {
  return write([&](Writer& tree) {
    tree.report_to(progress);
    return tree.remove(key, recursive);
  });
}

Status LocalClient::move(const KeyRef& source, const KeyRef& parent, std::string_view name, bool replace,
                         KnownKey* moved) {
  KnownKey placed;
  Status status =
      write([&](Writer& tree) { return tree.move(source, parent, name, replace, &placed.id, &placed.route); });
  if (status.ok()) *moved = placed;
  return status;
}

Status LocalClient::copy(const KeyRef& source, std::string_view target, const CopyOptions& options,
                         KeyProgress progress) {
  return write([&](Writer& tree) {
    tree.report_to(progress);
    return tree.copy(source, target, options);
  });
}

Status LocalClient::check(bool repair, FunctionRef<void(const CheckStep& step)> progress, CheckResult* result) {
  // What hangs on nothing has no name.
  const ChangeDescription description =
      describe_change(identity_, note_.empty() ? "repair" : note_, {{.kind = Change::Kind::kChangedAtOrBelow}});
  return check_registry(*store_, identity_, repair ? &description : nullptr, progress, result);
}

Status LocalClient::status(RegistryStatus* status) {
  KeyId root = kAnyKey;
  RegistryStatus found;
  if (Status readable = find("", &root); !readable.ok()) return readable;
  if (Status asked = store_->status(&found); !asked.ok()) return asked;
  found.store = store_->kind();
  *status = std::move(found);
  return {};
}

// ---- the history

std::shared_ptr<Client> LocalClient::with_note(std::string_view note) {
  return std::make_shared<LocalClient>(configuration_, identity_, store_, note);
}

Status LocalClient::commit(const Batch& batch, CommitResult* result) {
  Revision revision = 0;
  Status status = write([&](Writer& tree) { return write_batch(tree, batch, result); }, &revision);
  if (status.ok()) result->revision = revision;
  return status;
}

Status LocalClient::revision(Revision* revision) {
  return store_->read([&](store::View& view) { return view.revision(revision); });
}

Status LocalClient::at(Revision revision, std::unique_ptr<Snapshot>* snapshot) {
  Status status = store_->read_at(revision, [](store::View&) { return Status(); });
  if (status.ok()) *snapshot = std::make_unique<LocalSnapshot>(store_, identity_, revision);
  return status;
}

Status LocalClient::snapshot(std::unique_ptr<Snapshot>* snapshot) {
  Revision latest = 0;
  Status status = revision(&latest);
  if (status.ok()) *snapshot = std::make_unique<LocalSnapshot>(store_, identity_, latest);
  return status;
}

Status LocalClient::wait(Revision after, std::chrono::milliseconds timeout, const std::stop_token& stop,
                         Revision* revision) {
  return store_->wait(after, timeout, stop, revision);
}

Status LocalClient::undo(Revision revision, const UndoOptions& options, Batch* inverse, CommitResult* result) {
  Batch planned;
  *result = {};
  if (Status status = history_.plan_undo_of(revision, &planned); !status.ok()) return status;
  if (options.force) {
    planned.conditions.clear();
    for (Operation& operation : planned.operations) {
      operation.recursive = operation.recursive || operation.kind == Operation::Kind::kRemove;
    }
  }
  Status status;
  if (!options.dry_run) {
    status = commit(planned, result);
  } else if (options.force) {
    status = read_all([&](Reader& tree) { return expect_present(tree, &planned); });
  } else {
    status = read([&](Reader& tree) { return rehearse(tree, planned, result); });
  }
  // A key that was created may have subkeys by now.
  if (status.is(PRTKV_HAS_SUBKEYS)) status = {PRTKV_CONFLICT, status.text()};
  *inverse = std::move(planned);
  return status;
}

Status LocalClient::revision_at(std::int64_t time, Revision* revision) { return history_.revision_at(time, revision); }

Status LocalClient::changes_since(const ChangeQuery& query, FunctionRef<Status(const ChangeRecord& record)> visit,
                                  LogPosition* position) {
  return history_.changes_since(query, visit, position);
}

Status LocalClient::purge_history(std::string_view name, std::uint64_t* removed) {
  return history_.purge(name, note_, removed);
}

}  // namespace tkv::registry
