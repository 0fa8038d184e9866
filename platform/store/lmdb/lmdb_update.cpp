#include "store/lmdb/lmdb_update.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "store/lmdb/log.h"
#include "store/lmdb/tree.h"

namespace tkv::store {
namespace {

using Cursor = std::unique_ptr<MDB_cursor, decltype(&mdb_cursor_close)>;

}  // namespace

Status LmdbUpdate::remove_value(NodeId id) {
  const Key key = Key::value(id);
  bool found = false;
  std::span<const std::byte> record;
  if (Status status = records_.get(key, &found, &record); !status.ok()) return status;
  return found ? erase(key) : Status();
}

Status LmdbUpdate::load_meta() {
  if (meta_) return {};
  bool found = false;
  std::span<const std::byte> record;
  if (Status status = records_.get(Key::meta(), &found, &record); !status.ok()) return status;
  if (!found) return {PRTKV_STORAGE_FAILED, "the registry in '" + environment_.directory() + "' lacks its own record"};
  Meta meta;
  if (Status status = decode_meta(record, &meta); !status.ok()) {
    return status.about("the record of the registry itself");
  }
  meta_ = meta;
  former_revision_ = meta.revision;
  first_new_id_ = meta.next_id;
  return {};
}

Status LmdbUpdate::revision(Revision* revision) {
  Status status = load_meta();
  if (status.ok()) *revision = former_revision_;
  return status;
}

Status LmdbUpdate::change(Revision revision, ChangeRecord* record) {
  needs_outer_ = needs_outer_ || is_inner_;
  if (Status status = load_meta(); !status.ok()) return status;
  return read_change(former_, *meta_, revision, record);
}

// What hangs below a node that this update creates needs no former record: nothing leads there in an earlier state.
Status LmdbUpdate::keep_former(const Key& key) {
  KeyParts parts;
  if (Status status = load_meta(); !status.ok()) return status;
  const bool is_new = read_key(key.bytes(), &parts) && parts.id >= first_new_id_;
  return is_new ? Status() : log_.keep_former(key);
}

Status LmdbUpdate::replace(const Key& key, std::span<const std::byte> record, unsigned flags) {
  if (Status status = keep_former(key); !status.ok()) return status;
  Status status = records_.put(key, record, flags);
  changed_ = changed_ || status.ok();
  return status;
}

Status LmdbUpdate::erase(const Key& key) {
  if (Status status = keep_former(key); !status.ok()) return status;
  Status status = records_.remove(key);
  changed_ = changed_ || status.ok();
  return status;
}

Status LmdbUpdate::put_node(NodeId parent, std::string_view name, Node node, unsigned flags) {
  if (Status status = load_meta(); !status.ok()) return status;
  node.revision = former_revision_ + 1;
  return replace(Key::node(parent, name), encode_node(parent, name, node), flags);
}

Status LmdbUpdate::find(NodeId parent, std::string_view name, Node* node) {
  if (name.size() > kMaxLevelSize) return PRTKV_NO_SUCH_KEY;
  bool found = false;
  std::span<const std::byte> record;
  if (Status status = records_.get(Key::node(parent, name), &found, &record); !status.ok()) return status;
  return found ? decode_child(parent, name, record, node) : PRTKV_NO_SUCH_KEY;
}

Status LmdbUpdate::value(NodeId id, Value* value) {
  bool found = false;
  std::span<const std::byte> record;
  if (Status status = records_.get(Key::value(id), &found, &record); !status.ok()) return status;
  if (found) return decode_value_of(id, record, value);
  *value = Value{};
  return {};
}

Status LmdbUpdate::children_with_damage(NodeId parent, VisitChild visit, VisitDamagedChild damaged) {
  Cursor cursor(nullptr, &mdb_cursor_close);
  MDB_cursor* raw = nullptr;
  if (Status status = records_.open_cursor(&raw); !status.ok()) return status;
  cursor.reset(raw);
  MDB_val key{};
  MDB_val data{};
  bool at_end = false;
  std::string_view name;
  Status status = records_.seek(raw, Key::node(parent), &key, &data, &at_end);
  while (status.ok() && !at_end && is_child(bytes_of(key), parent, &name)) {
    Node node;
    Status decoded = decode_child(parent, name, bytes_of(data), &node);
    if (name.size() > kMaxLevelSize) return decoded;  // no key of ours
    // The name lies in a page that the visit may change.
    std::array<char, kMaxLevelSize> copy;
    std::memcpy(copy.data(), name.data(), name.size());
    name = {copy.data(), name.size()};
    if (status = decoded.ok() ? visit(name, node) : damaged(name, decoded); !status.ok()) return status;
    status = records_.seek_behind(raw, Key::node(parent, name), &key, &data, &at_end);
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
  return put_node(parent, name, node, MDB_NOOVERWRITE);
}

Status LmdbUpdate::set_security(NodeId parent, std::string_view name, const sec_attr& security) {
  Node node;
  if (Status status = find(parent, name, &node); !status.ok()) return status;
  node.security = security;
  return put_node(parent, name, node, 0);
}

Status LmdbUpdate::unlink(NodeId parent, std::string_view name) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  if (Status status = load_meta(); !status.ok()) return status;
  if (Status status = erase(Key::node(parent, name)); !status.ok()) return status;
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
  if (Status status = records_.get(Key::node(parent, name), &found, &record); !status.ok()) return status;
  Node node;
  if (found && decode_child(parent, name, record, &node).ok()) return PRTKV_KEY_EXISTS;
  return found ? unlink(parent, name) : PRTKV_NO_SUCH_KEY;
}

// The id of a damaged child is not known: what is below it stays, and is no longer reachable.
Status LmdbUpdate::remove_children(NodeId parent, std::vector<NodeId>* ids) {
  const auto take = [&](std::string_view name, const Node& child) -> Status {
    ids->push_back(child.id);
    return erase(Key::node(parent, name));
  };
  return children_with_damage(parent, take,
                              [&](std::string_view name, const Status&) { return erase(Key::node(parent, name)); });
}

// The record is composed in memory of its own: the bytes may belong to a value in this transaction, whose page the
// insertion moves.
Status LmdbUpdate::set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) {
  if (id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a value needs a node"};
  if (Status status = check_value_size(bytes.size()); !status.ok()) return status;
  if (Status status = load_meta(); !status.ok()) return status;
  if (type == 0 && bytes.empty()) {
    if (id >= first_new_id_) return remove_value(id);
    bool found = false;
    std::span<const std::byte> record;
    if (Status status = records_.get(Key::value(id), &found, &record); !status.ok() || !found) return status;
  }
  record_.resize(value_record_size(bytes.size()));
  encode_value(id, {type, bytes, former_revision_ + 1}, record_);
  return replace(Key::value(id), record_, 0);
}

Status LmdbUpdate::restart_counter(NodeId largest_id, Revision revision, bool revision_is_lost) {
  constexpr std::uint64_t kBeyond = std::uint64_t{1} << 40;
  if (revision_is_lost) {
    meta_.emplace();
  } else if (Status status = load_meta(); !status.ok()) {
    return status;
  }
  // A structure number may be known to other processes as well, and grows more slowly than the ids.
  meta_->next_id = meta_->structure = first_new_id_ = largest_id + kBeyond;
  if (revision_is_lost) {
    meta_->revision = meta_->log_after = meta_->oldest_state = revision + kBeyond;
    meta_->oldest_stored = meta_->revision + 1;
  }
  former_revision_ = meta_->revision;
  meta_changed_ = changed_ = true;
  return {};
}

Status LmdbUpdate::remove_from_log(std::span<const LogPart> parts) {
  for (const LogPart& part : parts)
    if (Status status = records_.remove(Key::change(part.revision, part.number)); !status.ok()) return status;
  return {};
}

Status LmdbUpdate::forget_log(Revision up_to) {
  if (Status status = load_meta(); !status.ok()) return status;
  meta_->log_after = std::max(meta_->log_after, up_to);
  meta_->oldest_state = std::max(meta_->oldest_state, up_to);
  meta_changed_ = changed_ = true;
  return {};
}

// What is to be removed was found in the former state.
Status LmdbUpdate::remove_all(const TreeCheck::Removable& removable) {
  for (const TreeCheck::CheckedNode& node : removable.nodes)
    if (Status status = erase(Key::node(node.parent, node.name)); !status.ok()) return status;
  for (const NodeId id : removable.values)
    if (Status status = erase(Key::value(id)); !status.ok()) return status;
  return {};
}

Status LmdbUpdate::finish() {
  before_.reset();
  if (!changed_ && !meta_changed_) return load_meta();
  if (changed_) {
    if (Status status = log_.log(description_, &*meta_); !status.ok()) return status;
  }
  return records_.put(Key::meta(), encode_meta(*meta_), 0);
}

Status LmdbUpdate::purge(std::span<const NodeId> nodes, std::uint64_t* removed) {
  if (Status status = load_meta(); !status.ok()) return status;
  changed_ = true;
  return log_.purge(nodes, description_, &*meta_, removed);
}

}  // namespace tkv::store
