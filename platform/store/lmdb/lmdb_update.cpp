#include "store/lmdb/lmdb_update.h"

#include <array>
#include <cstring>
#include <memory>

#include "store/lmdb/tree.h"

namespace tkv::store {
namespace {

using Cursor = std::unique_ptr<MDB_cursor, decltype(&mdb_cursor_close)>;

std::span<const std::byte> bytes_of(const MDB_val& val) {
  return {static_cast<const std::byte*>(val.mv_data), val.mv_size};
}

}  // namespace

Status LmdbUpdate::succeeded(LmdbOutcome outcome, const char* doing) {
  const bool survived = outcome.code == 0 || outcome.code == MDB_KEYEXIST || outcome.code == MDB_NOTFOUND;
  if (!survived && broken_by_.code == 0) broken_by_ = outcome;  // every later call fails because of it
  return outcome.code == 0 ? Status() : environment_.failure(outcome, doing);
}

Status LmdbUpdate::get(const Key& key, bool* found, std::span<const std::byte>* record) {
  if (Status status = check_.before_access(key); !status.ok()) return status;
  MDB_val key_val = key.val();
  MDB_val data{};
  const int code = mdb_get(txn_, kDatabase, &key_val, &data);
  *found = code == 0;
  if (*found) *record = bytes_of(data);
  return code == MDB_NOTFOUND ? Status() : succeeded({code, code}, "cannot read the registry");
}

Status LmdbUpdate::put(const Key& key, std::span<const std::byte> record, unsigned flags) {
  if (Status status = check_.before_access(key); !status.ok()) return status;
  MDB_val key_val = key.val();
  MDB_val data{record.size(), const_cast<std::byte*>(record.data())};
  const auto write = [&] { return mdb_put(txn_, kDatabase, &key_val, &data, flags); };
  return succeeded(lmdb_outcome(write), "cannot write to the registry");
}

Status LmdbUpdate::remove(const Key& key) {
  if (Status status = check_.before_removal(key); !status.ok()) return status;
  MDB_val key_val = key.val();
  const auto erase = [&] { return mdb_del(txn_, kDatabase, &key_val, nullptr); };
  return succeeded(lmdb_outcome(erase), "cannot remove from the registry");
}

Status LmdbUpdate::remove_value(NodeId id) {
  Status status = remove(Key::value(id));
  return status.is(PRTKV_NO_SUCH_KEY) ? Status() : status;
}

Status LmdbUpdate::load_meta() {
  if (meta_) return {};
  bool found = false;
  std::span<const std::byte> record;
  if (Status status = get(Key::meta(), &found, &record); !status.ok()) return status;
  if (!found) return {PRTKV_STORAGE_FAILED, "the registry in '" + environment_.directory() + "' lacks its own record"};
  Meta meta;
  if (Status status = decode_meta(record, &meta); !status.ok()) {
    return status.about("the record of the registry itself");
  }
  meta_ = meta;
  return {};
}

Status LmdbUpdate::find(NodeId parent, std::string_view name, Node* node) {
  if (name.size() > kMaxLevelSize) return PRTKV_NO_SUCH_KEY;
  bool found = false;
  std::span<const std::byte> record;
  if (Status status = get(Key::node(parent, name), &found, &record); !status.ok()) return status;
  return found ? decode_child(parent, name, record, node) : PRTKV_NO_SUCH_KEY;
}

Status LmdbUpdate::value(NodeId id, Value* value) {
  bool found = false;
  std::span<const std::byte> record;
  if (Status status = get(Key::value(id), &found, &record); !status.ok()) return status;
  if (found) return decode_value_of(id, record, value);
  *value = Value{};
  return {};
}

// Puts the cursor on the first entry whose key is not less than `key`.
Status LmdbUpdate::seek(MDB_cursor* cursor, const Key& key, MDB_val* found, MDB_val* data, bool* at_end) {
  if (Status status = check_.before_step(key); !status.ok()) return status;
  *found = key.val();
  const int code = mdb_cursor_get(cursor, found, data, MDB_SET_RANGE);
  *at_end = code == MDB_NOTFOUND;
  return *at_end ? Status() : succeeded({code, code}, "cannot read the registry");
}

// Puts the cursor on the first entry behind `visited`, which may be gone by now.
Status LmdbUpdate::seek_behind(MDB_cursor* cursor, const Key& visited, MDB_val* found, MDB_val* data, bool* at_end) {
  if (Status status = seek(cursor, visited, found, data, at_end); !status.ok() || *at_end) return status;
  if (compare_keys(bytes_of(*found), visited.bytes()) != 0) return {};
  const int code = mdb_cursor_get(cursor, found, data, MDB_NEXT);
  *at_end = code == MDB_NOTFOUND;
  return *at_end ? Status() : succeeded({code, code}, "cannot read the registry");
}

Status LmdbUpdate::children_with_damage(NodeId parent, VisitChild visit, VisitDamagedChild damaged) {
  Cursor cursor(nullptr, &mdb_cursor_close);
  MDB_cursor* raw = nullptr;
  if (const int code = mdb_cursor_open(txn_, kDatabase, &raw); code != 0) {
    return succeeded({code, code}, "cannot read the registry");
  }
  cursor.reset(raw);
  MDB_val key{};
  MDB_val data{};
  bool at_end = false;
  std::string_view name;
  Status status = seek(raw, Key::node(parent), &key, &data, &at_end);
  while (status.ok() && !at_end && is_child(bytes_of(key), parent, &name)) {
    Node node;
    const Status decoded = decode_child(parent, name, bytes_of(data), &node);
    if (name.size() > kMaxLevelSize) return decoded;  // no key of ours
    // The name lies in a page that the visit may change.
    std::array<char, kMaxLevelSize> copy;
    std::memcpy(copy.data(), name.data(), name.size());
    name = {copy.data(), name.size()};
    if (status = decoded.ok() ? visit(name, node) : damaged(name, decoded); !status.ok()) return status;
    status = seek_behind(raw, Key::node(parent, name), &key, &data, &at_end);
  }
  return status;
}

Status LmdbUpdate::has_children(NodeId parent, bool* answer) {
  return meets_child(
      [&](VisitChild visit, VisitDamagedChild damaged) { return children_with_damage(parent, visit, damaged); },
      answer);
}

Status LmdbUpdate::new_id(NodeId* id) {
  if (Status status = load_meta(); !status.ok()) return status;
  *id = meta_->next_id++;
  meta_changed_ = true;
  return {};
}

Status LmdbUpdate::insert(NodeId parent, std::string_view name, const Node& node) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  if (node.id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a node needs an id"};
  return put(Key::node(parent, name), encode_node(parent, name, node), MDB_NOOVERWRITE);
}

Status LmdbUpdate::set_security(NodeId parent, std::string_view name, const sec_attr& security) {
  Node node;
  if (Status status = find(parent, name, &node); !status.ok()) return status;
  node.security = security;
  return put(Key::node(parent, name), encode_node(parent, name, node), 0);
}

Status LmdbUpdate::unlink(NodeId parent, std::string_view name) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  if (Status status = load_meta(); !status.ok()) return status;
  if (Status status = remove(Key::node(parent, name)); !status.ok()) return status;
  ++meta_->structure;
  meta_changed_ = true;
  return {};
}

Status LmdbUpdate::discard(NodeId id) {
  if (id == kNoNode || id == kRootNode) return {PRTKV_INVALID_ARGUMENT, "the root cannot be moved or removed"};
  std::vector<NodeId> pending{id};
  while (!pending.empty()) {
    const NodeId node = pending.back();
    pending.pop_back();
    if (Status status = remove_value(node); !status.ok()) return status;
    if (Status status = remove_children(node, &pending); !status.ok()) return status;
  }
  return {};
}

Status LmdbUpdate::remove_damaged(NodeId parent, std::string_view name) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  bool found = false;
  std::span<const std::byte> record;
  if (Status status = get(Key::node(parent, name), &found, &record); !status.ok()) return status;
  Node node;
  if (found && decode_child(parent, name, record, &node).ok()) return PRTKV_KEY_EXISTS;
  return found ? unlink(parent, name) : PRTKV_NO_SUCH_KEY;
}

// The id of a damaged child is not known: what is below it stays, and is no longer reachable.
Status LmdbUpdate::remove_children(NodeId parent, std::vector<NodeId>* ids) {
  const auto take = [&](std::string_view name, const Node& child) -> Status {
    ids->push_back(child.id);
    return remove(Key::node(parent, name));
  };
  return children_with_damage(parent, take,
                              [&](std::string_view name, const Status&) { return remove(Key::node(parent, name)); });
}

// The record is composed in memory of its own: the bytes may belong to a value in this transaction, whose page the
// insertion moves.
Status LmdbUpdate::set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) {
  if (id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a value needs a node"};
  if (Status status = check_value_size(bytes.size()); !status.ok()) return status;
  if (type == 0 && bytes.empty()) return remove_value(id);
  record_.resize(value_record_size(bytes.size()));
  encode_value(id, type, bytes, record_);
  return put(Key::value(id), record_, 0);
}

void LmdbUpdate::restart_counter(NodeId largest_id) {
  constexpr std::uint64_t kBeyond = std::uint64_t{1} << 40;
  // A structure number may be known to other processes as well, and grows more slowly than the ids.
  meta_ = Meta{largest_id + kBeyond, largest_id + kBeyond};
  meta_changed_ = true;
}

// What is to be removed was found in the former state.
Status LmdbUpdate::remove_all(const TreeCheck::Removable& removable) {
  for (const TreeCheck::CheckedNode& node : removable.nodes)
    if (Status status = remove(Key::node(node.parent, node.name)); !status.ok()) return status;
  for (const NodeId id : removable.values)
    if (Status status = remove(Key::value(id)); !status.ok()) return status;
  return {};
}

Status LmdbUpdate::finish() {
  before_.reset();
  return meta_changed_ ? put(Key::meta(), encode_meta(*meta_), 0) : Status();
}

}  // namespace tkv::store
