#include "store/lmdb/lmdb_update.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <memory>

#include "store/lmdb/log.h"
#include "store/lmdb/tree.h"

namespace tkv::store {
namespace {

std::uint32_t parts_of(std::size_t content_size) {
  return static_cast<std::uint32_t>((content_size + kMaxChangePart - 1) / kMaxChangePart);
}

std::string_view text_of(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

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
  const Key key = Key::value(id);
  bool found = false;
  std::span<const std::byte> record;
  if (Status status = get(key, &found, &record); !status.ok()) return status;
  return found ? erase(key) : Status();
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
  if (Status status = load_meta(); !status.ok()) return status;
  return read_change(former_, *meta_, revision, record);
}

// What hangs below a node that this update creates needs no former record: nothing leads there in an earlier state.
Status LmdbUpdate::keep_former(const Key& key) {
  KeyParts parts;
  if (Status status = load_meta(); !status.ok()) return status;
  const bool is_new = read_key(key.bytes(), &parts) && parts.id >= first_new_id_;
  if (retention_.off || hides_past_ || is_new) return {};
  if (!kept_.emplace(text_of(key.bytes())).second) return {};
  bool found = false;
  std::span<const std::byte> record;
  if (Status status = get(key, &found, &record); !status.ok()) return status;
  formers_.add(key.bytes(), found ? std::optional(record) : std::nullopt);
  hides_past_ = formers_.bytes().size() > retention_.bytes;
  if (hides_past_) {
    formers_.clear();
    kept_.clear();
  }
  return {};
}

Status LmdbUpdate::replace(const Key& key, std::span<const std::byte> record, unsigned flags) {
  if (Status status = keep_former(key); !status.ok()) return status;
  Status status = put(key, record, flags);
  changed_ = changed_ || status.ok();
  return status;
}

Status LmdbUpdate::erase(const Key& key) {
  if (Status status = keep_former(key); !status.ok()) return status;
  Status status = remove(key);
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
  if (Status status = get(Key::node(parent, name), &found, &record); !status.ok()) return status;
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
    if (Status status = get(Key::value(id), &found, &record); !status.ok() || !found) return status;
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
  if (revision_is_lost) meta_->revision = meta_->log_after = meta_->oldest_state = revision + kBeyond;
  former_revision_ = meta_->revision;
  meta_changed_ = changed_ = true;
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
    if (Status status = log_change(); !status.ok()) return status;
  }
  return put(Key::meta(), encode_meta(*meta_), 0);
}

Status LmdbUpdate::log_change() {
  std::uint32_t parts = 0;
  const Revision revision = ++meta_->revision;
  if (retention_.off) {
    meta_->log_after = meta_->oldest_state = revision;
    return trim(parts);
  }
  if (hides_past_) meta_->oldest_state = revision;
  Bytes content = encode_description(description_, hides_past_);
  content.insert(content.end(), formers_.bytes().begin(), formers_.bytes().end());
  if (Status status = put_content(revision, content, &parts); !status.ok()) return status;
  if (revision > retention_.changes) meta_->log_after = std::max(meta_->log_after, revision - retention_.changes);
  return trim(parts);
}

Status LmdbUpdate::put_content(Revision revision, std::span<const std::byte> content, std::uint32_t* parts) {
  *parts = parts_of(content.size());
  for (std::uint32_t number = 0; number < *parts; ++number) {
    const auto bytes =
        content.subspan(number * kMaxChangePart, std::min(kMaxChangePart, content.size() - number * kMaxChangePart));
    const Key key = Key::change(revision, number);
    record_.resize(bytes.size() + kChangeRecordOverhead);
    encode_change(revision, number, {*parts, bytes}, record_);
    if (Status status = put(key, record_, 0); !status.ok()) return status;
    meta_->history_bytes += key.bytes().size() + record_.size();
  }
  return {};
}

// Removes some of the oldest changes that nobody may read any longer: now and then a batch, which is cheaper than a few
// with each write, and always more than a large change has added.
Status LmdbUpdate::trim(std::uint32_t parts) {
  constexpr Revision kInterval = 16;
  constexpr std::uint32_t kBatch = 64;
  std::uint32_t most = parts > 1 ? 2 * parts : 0;
  if (meta_->revision % kInterval == 0 || retention_.bytes == 0) most += kBatch;
  for (std::uint32_t removed = 0; removed < most;) {
    std::uint32_t parts_of_next = 0;
    if (Status status = trim_next(&parts_of_next); !status.ok()) return status;
    if (parts_of_next == 0) break;
    removed += parts_of_next;
  }
  meta_->oldest_state = std::max(meta_->oldest_state, meta_->log_after);
  return {};
}

// Removes the oldest change that is stored, if it is not to be retained. `*parts` is 0 if it is; a change that was
// never stored, since no history was kept then, counts as one part.
Status LmdbUpdate::trim_next(std::uint32_t* parts) {
  const Revision oldest = meta_->oldest_stored;
  *parts = 0;
  if (oldest >= meta_->revision) return {};
  if (oldest > meta_->log_after) {
    bool retained = true;
    if (Status status = check_retained(oldest, &retained); !status.ok() || retained) return status;
    meta_->log_after = oldest;
  }
  std::uint32_t removed = 0;
  if (Status status = remove_content(oldest, &removed); !status.ok()) return status;
  *parts = std::max(removed, 1u);
  ++meta_->oldest_stored;
  return {};
}

// Tells whether size and age allow a change of the log to stay.
Status LmdbUpdate::check_retained(Revision revision, bool* retained) {
  *retained = meta_->history_bytes <= retention_.bytes;
  if (!*retained || description_.time == 0) return {};
  bool found = false;
  std::span<const std::byte> record;
  ChangePart part;
  std::int64_t time = 0;
  if (Status status = get(Key::change(revision, 0), &found, &record); !status.ok()) return status;
  // What is damaged stays for a check to find.
  if (!found || !decode_change(revision, 0, record, &part).ok() || !decode_time(part.bytes, &time).ok()) return {};
  *retained = time >= description_.time - std::chrono::microseconds(retention_.age).count();
  return {};
}

// Rewrites the changes that hold a former value of one of the nodes.
Status LmdbUpdate::purge(std::span<const NodeId> nodes, std::uint64_t* removed) {
  std::set<std::string, std::less<>> keys;
  *removed = 0;
  if (Status status = load_meta(); !status.ok()) return status;
  for (const NodeId id : nodes) {
    const Key key = Key::value(id);
    keys.emplace(text_of(key.bytes()));
  }
  for (std::uint32_t parts = 1; parts != 0;) {  // what nobody may read any longer may still be in the file
    if (Status status = trim_next(&parts); !status.ok()) return status;
  }
  for (Revision revision = meta_->log_after + 1; revision <= former_revision_; ++revision) {
    if (Status status = purge_change(revision, keys, removed); !status.ok()) return status;
  }
  changed_ = true;
  return {};
}

Status LmdbUpdate::purge_change(Revision revision, const std::set<std::string, std::less<>>& keys,
                                std::uint64_t* removed) {
  Bytes buffer;
  std::span<const std::byte> content;
  FormerRecords kept;
  std::uint64_t found = 0;
  if (Status status = read_content(former_, revision, ContentPart::kWhole, &buffer, &content); !status.ok()) {
    return status;
  }
  const auto keep = [&](std::span<const std::byte> key, std::optional<std::span<const std::byte>> record) {
    const bool is_purged = record && keys.contains(text_of(key));
    if (is_purged) ++found;
    kept.add(key, is_purged ? std::nullopt : record);
    return Status();
  };
  if (Status status = visit_former_records(content, keep).about(change_text(revision)); !status.ok()) return status;
  if (found == 0) return {};
  *removed += found;
  const auto description = content.first(description_end(content));
  Bytes purged(description.begin(), description.end());
  purged.insert(purged.end(), kept.bytes().begin(), kept.bytes().end());
  std::uint32_t parts = 0;
  if (Status status = remove_content(revision, &parts); !status.ok()) return status;
  return put_content(revision, purged, &parts);
}

// Removes the parts of a change, and counts them.
Status LmdbUpdate::remove_content(Revision revision, std::uint32_t* parts) {
  for (*parts = 0;; ++*parts) {
    const Key key = Key::change(revision, *parts);
    bool found = false;
    std::span<const std::byte> record;
    if (Status status = get(key, &found, &record); !status.ok() || !found) return status;
    const std::uint64_t bytes = key.bytes().size() + record.size();
    if (Status status = remove(key); !status.ok()) return status;
    meta_->history_bytes -= std::min(meta_->history_bytes, bytes);
  }
}

}  // namespace tkv::store
