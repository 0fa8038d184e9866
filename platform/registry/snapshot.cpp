#include "registry/snapshot.h"

#include "registry/change_list.h"

namespace tkv::registry {
namespace {

// The moves between a former state and the present one.
Status find_moves(store::Store& store, Revision former, store::View& present, std::vector<Change>* moves) {
  LogPosition position;
  LogRange range{.after = former};
  moves->clear();
  if (Status status = present.revision(&range.up_to); !status.ok()) return status;
  return store.changes(
      range,
      [&](const ChangeRecord& record) {
        for (const Change& change : record.changes) {
          if (change.kind == Change::Kind::kMoved) moves->push_back(change);
        }
        return Status();
      },
      &position);
}

}  // namespace

Rights RightsInPresent::of(std::string_view former_name) {
  std::string name(former_name);
  Place place;
  for (const Change& move : moves_) name = moved_name(name, move.from, move.name);
  if (!failure_.ok()) return 0;
  const Status status = present_.resolve(name, &place);
  if (status.ok()) return present_.rights(name, place.node);
  if (!status.is(PRTKV_NO_SUCH_KEY)) failure_ = status;
  return failure_.ok() ? TKV_RIGHT_ALL : 0;
}

Status read_past(store::Store& store, const Identity& identity, Revision revision,
                 FunctionRef<Status(Reader& past)> function) {
  if (identity.superuser) {
    return store.read_at(revision, [&](store::View& view) {
      Reader past(view, identity);
      return function(past);
    });
  }
  return store.read_all([&](store::View& present) -> Status {
    std::vector<Change> moves;
    if (Status status = find_moves(store, revision, present, &moves); !status.ok()) return status;
    RightsInPresent today(present, identity, moves);
    const Status status = store.read_at(revision, [&](store::View& view) {
      Reader past(view, identity, nullptr, &today);
      return function(past);
    });
    return today.failure().ok() ? status : today.failure();
  });
}

Status LocalSnapshot::find(const KeyRef& key, KeyId* id) {
  Place place;
  Status status = read([&](Reader& tree) { return tree.resolve(key, &place); });
  if (status.ok()) *id = place.node.id;
  return status;
}

Status LocalSnapshot::stat(const KeyRef& key, KeyInfo* info) {
  return read([&](Reader& tree) { return tree.stat(key, info); });
}

Status LocalSnapshot::read_value(const KeyRef& key, TypedValue* value) {
  return read([&](Reader& tree) -> Status {
    store::Value found;
    if (Status status = tree.value(key, &found); !status.ok()) return status;
    value->type = found.type;
    value->bytes.assign(reinterpret_cast<const char*>(found.bytes.data()), found.bytes.size());
    return {};
  });
}

Status LocalSnapshot::read_security(const KeyRef& key, sec_attr* security) {
  return read([&](Reader& tree) { return tree.security(key, security); });
}

Status LocalSnapshot::read_key(const KeyRef& key, KeyInfo* info, TypedValue* value) {
  return read([&](Reader& tree) { return tree.read_key(key, info, value); });
}

Status LocalSnapshot::list(const KeyRef& key, bool infos, FunctionRef<Status(const Subkey& subkey)> visit) {
  return read([&](Reader& tree) { return tree.list(key, infos, visit); });
}

Status LocalSnapshot::walk(const KeyRef& key, const WalkOptions& options,
                           FunctionRef<Status(const WalkEntry& entry)> visit) {
  return read([&](Reader& tree) { return tree.walk(key, options, visit); });
}

}  // namespace tkv::registry
