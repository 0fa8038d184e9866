#include "store/lmdb/tree.h"

#include <cstring>
#include <limits>

namespace tkv::store {
namespace {

constexpr std::size_t kPrefixSize = 1 + 8;  // of the keys of a node's children

// Whether a record is the one that belongs under `wanted`. The registry's record of itself is never sought for.
bool belongs_under(const KeyParts& wanted, std::span<const std::byte> record) {
  switch (wanted.kind) {
    case KeyParts::Kind::kNode:
      return is_node_under(wanted.id, wanted.name, record);
    case KeyParts::Kind::kValue:
      return is_value_under(wanted.id, record);
    case KeyParts::Kind::kChange:
      return is_change_under(wanted.id, wanted.part, record);
    case KeyParts::Kind::kMeta:
      return false;
  }
  return false;
}

// Records of short names that are alike may fit under each other's keys: the seed of a checksum tells less than a key.
bool belongs_under_its_key(std::span<const std::byte> key, std::span<const std::byte> record) {
  KeyParts parts;
  return read_key(key, &parts) && belongs_under(parts, record);
}

// Whether a record is that of a child of `parent` whose key no longer says so.
bool is_lost_child(NodeId parent, std::span<const std::byte> key, std::span<const std::byte> record) {
  if (key.size() < kPrefixSize) return false;
  KeyParts parts{KeyParts::Kind::kNode, parent, {reinterpret_cast<const char*>(key.data()), key.size()}, 0};
  parts.name.remove_prefix(kPrefixSize);
  std::string_view name;
  return !is_child(key, parent, &name) && belongs_under(parts, record) && !belongs_under_its_key(key, record);
}

// Whether a key begins with `prefix`, that of a node's children. `*name` then is what follows.
bool is_below(std::span<const std::byte> key, const Key& prefix, std::string_view* name) {
  if (key.size() < kPrefixSize || std::memcmp(key.data(), prefix.bytes().data(), kPrefixSize) != 0) return false;
  *name = {reinterpret_cast<const char*>(key.data()) + kPrefixSize, key.size() - kPrefixSize};
  return true;
}

Status failed(const FileState& state, PageDamage damage) { return damaged_page(state.map, damage); }

// Puts the cursor on the first child of `parent`, or on what follows where it would be.
PageDamage seek_children(TreeCursor* cursor, const Key& prefix, NodeId parent) {
  bool found = false;
  if (PageDamage damage = cursor->seek(prefix.bytes(), &found)) return damage;
  if (found) return cursor->check_pages();
  const auto is_lost = [&](std::span<const std::byte> key, std::span<const std::byte> record) {
    return is_lost_child(parent, key, record);
  };
  if (PageDamage damage = cursor->confirm_absence(prefix.bytes(), is_lost)) return damage;
  return cursor->enter_gap();
}

}  // namespace

std::string entry_text(NodeId parent, std::string_view name) {
  return "entry '" + std::string(name) + "' below node " + std::to_string(parent);
}

bool is_child(std::span<const std::byte> key, NodeId parent, std::string_view* name) {
  return is_below(key, Key::node(parent), name);
}

PageDamage confirm_absence(TreeCursor& cursor, const Key& key, DamageBeside beside) {
  KeyParts wanted;
  read_key(key.bytes(), &wanted);
  const auto may_be_it = [&](std::span<const std::byte> other, std::span<const std::byte> record) {
    if (belongs_under_its_key(other, record)) return false;
    const bool is_alike = beside == DamageBeside::kReport && other.size() == key.bytes().size();
    return is_alike || belongs_under(wanted, record);
  };
  return cursor.confirm_absence(key.bytes(), may_be_it);
}

Status decode_child(NodeId parent, std::string_view name, std::span<const std::byte> record, Node* node) {
  if (name.size() > kMaxLevelSize) return {PRTKV_STORAGE_FAILED, entry_text(parent, name) + ": its name is too long"};
  Status status = decode_node(parent, name, record, node);
  return status.ok() ? status : status.about(entry_text(parent, name));
}

Status decode_value_of(NodeId id, std::span<const std::byte> record, Value* value) {
  Status status = decode_value(id, record, value);
  return status.ok() ? status : status.about("value of node " + std::to_string(id));
}

namespace {

// The leaf page that a search ended on, for a ValuePlace. 0, which is "not known", also stands for the pages that only
// a registry of more than 2 TiB can have.
std::uint32_t number_in_place(const TreeCursor& cursor) {
  const std::uint64_t page = cursor.at_end() ? 0 : cursor.page_number();
  return page > std::numeric_limits<std::uint32_t>::max() ? 0 : static_cast<std::uint32_t>(page);
}

}  // namespace

Status find_node(const FileState& state, NodeId parent, std::string_view name, Node* node) {
  if (name.size() > kMaxLevelSize) return PRTKV_NO_SUCH_KEY;
  const Key key = Key::node(parent, name);
  TreeCursor cursor(state);
  bool found = false;
  if (PageDamage damage = cursor.seek(key.bytes(), &found)) return failed(state, damage);
  if (!found) {
    if (PageDamage damage = confirm_absence(cursor, key, DamageBeside::kReport)) return failed(state, damage);
    return PRTKV_NO_SUCH_KEY;
  }
  std::span<const std::byte> record;
  if (PageDamage damage = cursor.record(&record)) return failed(state, damage);
  Status status = decode_child(parent, name, record, node);
  if (status.ok()) node->page = number_in_place(cursor);
  return status;
}

namespace {

// A record that is absent has no bytes.
Status find_value_record(const FileState& state, NodeId id, std::span<const std::byte>* record,
                         CheckedPages* checked = nullptr, std::uint32_t* page = nullptr) {
  const Key key = Key::value(id);
  TreeCursor cursor(state, checked);
  bool found = false;
  *record = {};
  if (PageDamage damage = cursor.seek(key.bytes(), &found)) return failed(state, damage);
  if (page != nullptr) *page = number_in_place(cursor);
  const PageDamage damage = found ? cursor.record(record) : confirm_absence(cursor, key, DamageBeside::kReport);
  if (damage) return failed(state, damage);
  if (found && record->empty()) return decode_value_of(id, *record, nullptr);
  return {};
}

ValuePlace place_of_record(const FileState& state, std::span<const std::byte> record, std::size_t size) {
  ValuePlace place;
  place.offset = state.offset_of(record.data());
  place.record_size = static_cast<std::uint32_t>(record.size());
  place.value_size = static_cast<std::uint32_t>(size);
  return place;
}

}  // namespace

Status find_value(const FileState& state, NodeId id, Value* value, CheckedPages* checked) {
  std::span<const std::byte> record;
  if (Status status = find_value_record(state, id, &record, checked); !status.ok()) return status;
  if (!record.empty()) return decode_value_of(id, record, value);
  *value = Value{};
  return {};
}

Status find_value_up_to(const FileState& state, NodeId id, std::size_t capacity, Value* value, std::size_t* size,
                        ValuePlace* place) {
  std::span<const std::byte> record;
  std::size_t found = 0;
  std::uint32_t page = 0;
  if (Status status = find_value_record(state, id, &record, nullptr, &page); !status.ok()) return status;
  *value = Value{};
  *size = 0;
  *place = kNoValue;
  place->value_page = page;
  if (record.empty()) return {};
  if (!read_value_size(record, &found) || found <= capacity) {
    if (Status status = decode_value_of(id, record, value); !status.ok()) return status;
  }
  *size = found;
  *place = place_of_record(state, record, found);
  place->value_page = page;
  return {};
}

ValuePlace place_of_value(const FileState& state, NodeId id) {
  const Key key = Key::value(id);
  TreeCursor cursor(state);
  std::span<const std::byte> record;
  bool found = false;
  std::size_t size = 0;
  ValuePlace place;
  if (cursor.seek(key.bytes(), &found)) return place;
  if (found && !cursor.record(&record) && read_value_size(record, &size)) place = place_of_record(state, record, size);
  place.value_page = number_in_place(cursor);
  return place;
}

Status find_meta(const FileState& state, Meta* meta) {
  const Key key = Key::meta();
  TreeCursor cursor(state);
  std::span<const std::byte> record;
  bool found = false;
  if (PageDamage damage = cursor.seek(key.bytes(), &found)) return failed(state, damage);
  if (!found) return {PRTKV_STORAGE_FAILED, "it lacks a registry's record of itself"};
  if (PageDamage damage = cursor.record(&record)) return failed(state, damage);
  Status status = decode_meta(record, meta);
  return status.ok() ? status : status.about("the record of the registry itself");
}

Status has_children(const FileState& state, NodeId parent, bool* answer, CheckedPages* checked) {
  const auto walk = [&](VisitChild visit, VisitDamagedChild damaged) {
    return visit_children(state, parent, visit, damaged, checked);
  };
  return meets_child(walk, answer);
}

Status meets_child(FunctionRef<Status(VisitChild, VisitDamagedChild)> walk, bool* answer) {
  constexpr prtkv_result kEnough = PRTKV_KEY_EXISTS;
  Status doubt;
  const auto visit = [](std::string_view, const Node&) { return Status(kEnough); };
  const auto doubtful = [&](std::string_view, const Status& damage) {
    doubt = damage;
    return Status();
  };
  Status status = walk(visit, doubtful);
  if (!status.ok() && !status.is(kEnough)) return status;
  *answer = !status.ok();
  return *answer ? Status() : doubt;
}

Status visit_children(const FileState& state, NodeId parent, VisitChild visit, VisitDamagedChild damaged,
                      CheckedPages* checked) {
  const Key prefix = Key::node(parent);
  TreeCursor cursor(state, checked);
  Node node;
  PageDamage damage = seek_children(&cursor, prefix, parent);
  for (; !damage && !cursor.at_end(); damage = cursor.next()) {
    std::span<const std::byte> key;
    std::span<const std::byte> record;
    std::string_view name;
    damage = cursor.read(&key, &record);
    if (!is_below(key, prefix, &name)) {
      if (damage || !is_lost_child(parent, key, record)) return {};
      return {PRTKV_STORAGE_FAILED, entry_text(parent, "?") + ": its key is damaged"};
    }
    if (damage) break;
    const Status decoded = decode_child(parent, name, record, &node);
    if (Status status = decoded.ok() ? visit(name, node) : damaged(name, decoded); !status.ok()) return status;
  }
  return damage ? failed(state, damage) : Status();
}

}  // namespace tkv::store
