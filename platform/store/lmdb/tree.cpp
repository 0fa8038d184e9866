#include "store/lmdb/tree.h"

#include <cstring>

namespace tkv::store {
namespace {

// Whether a key is that of a child of `parent`; then its name.
bool is_child(const MDB_val& key, NodeId parent, std::string_view* name) {
  const Key prefix = Key::node(parent);
  const MDB_val common = prefix.val();
  if (key.mv_size < common.mv_size || std::memcmp(key.mv_data, common.mv_data, common.mv_size) != 0) return false;
  *name = {static_cast<const char*>(key.mv_data) + common.mv_size, key.mv_size - common.mv_size};
  return true;
}

int get(MDB_txn* txn, const Key& key, MDB_val* data) {
  MDB_val key_val = key.val();
  return mdb_get(txn, kDatabase, &key_val, data);
}

// Puts the cursor on the first entry behind the named child of `parent`.
int seek_behind(MDB_cursor* cursor, NodeId parent, std::string_view name, MDB_val* key, MDB_val* data) {
  const Key visited = Key::node(parent, name);
  *key = visited.val();
  const int code = mdb_cursor_get(cursor, key, data, MDB_SET_RANGE);
  if (code != 0) return code;
  std::string_view found;
  if (is_child(*key, parent, &found) && found == name) return mdb_cursor_get(cursor, key, data, MDB_NEXT);
  return 0;
}

}  // namespace

std::string entry_text(NodeId parent, std::string_view name) {
  return "entry '" + std::string(name) + "' below node " + std::to_string(parent);
}

Status failure(MDB_txn* txn, LmdbOutcome outcome, const char* doing) {
  const char* path = "";
  mdb_env_get_path(mdb_txn_env(txn), &path);
  return lmdb_status(outcome, std::string(doing) + " in '" + path + "'");
}

Status failure(MDB_txn* txn, int code, const char* doing) { return failure(txn, LmdbOutcome{code, code}, doing); }

Status open_cursor(MDB_txn* txn, Cursor* cursor) {
  MDB_cursor* raw = nullptr;
  if (const int code = mdb_cursor_open(txn, kDatabase, &raw); code != 0)
    return failure(txn, code, "cannot walk through the registry");
  cursor->reset(raw);
  return {};
}

Status find_node(MDB_txn* txn, NodeId parent, std::string_view name, Node* node) {
  if (name.size() > kMaxLevelName) return PRTKV_NO_SUCH_KEY;
  MDB_val data{};
  const int code = get(txn, Key::node(parent, name), &data);
  if (code == MDB_NOTFOUND) return PRTKV_NO_SUCH_KEY;
  if (code != 0) return failure(txn, code, "cannot read the registry");
  Status status = decode_node(parent, name, bytes_of(data), node);
  return status.ok() ? status : status.about(entry_text(parent, name));
}

Status find_value(MDB_txn* txn, NodeId id, Value* value) {
  MDB_val data{};
  const int code = get(txn, Key::value(id), &data);
  if (code == MDB_NOTFOUND) {
    *value = Value{};
    return {};
  }
  if (code != 0) return failure(txn, code, "cannot read the registry");
  Status status = decode_value(id, bytes_of(data), value);
  return status.ok() ? status : status.about("value of node " + std::to_string(id));
}

Status find_meta(MDB_txn* txn, Meta* meta) {
  MDB_val data{};
  const int code = get(txn, Key::meta(), &data);
  if (code == MDB_NOTFOUND) return {PRTKV_STORAGE_FAILED, "it lacks a registry's record of itself"};
  if (code != 0) return failure(txn, code, "cannot read the registry");
  Status status = decode_meta(bytes_of(data), meta);
  return status.ok() ? status : status.about("the record of the registry itself");
}

Status has_children(MDB_txn* txn, NodeId parent, bool* answer) {
  Cursor cursor(nullptr, &mdb_cursor_close);
  if (Status status = open_cursor(txn, &cursor); !status.ok()) return status;
  const Key first = Key::node(parent);
  MDB_val key = first.val();
  MDB_val data{};
  const int code = mdb_cursor_get(cursor.get(), &key, &data, MDB_SET_RANGE);
  if (code != 0 && code != MDB_NOTFOUND) return failure(txn, code, "cannot read the registry");
  std::string_view name;
  *answer = code == 0 && is_child(key, parent, &name);
  return {};
}

Status visit_children(MDB_txn* txn, NodeId parent, Walk walk,
                      FunctionRef<Status(std::string_view, const Node&)> visit) {
  Cursor cursor(nullptr, &mdb_cursor_close);
  if (Status status = open_cursor(txn, &cursor); !status.ok()) return status;
  const Key first = Key::node(parent);
  MDB_val key = first.val();
  MDB_val data{};
  std::array<char, kMaxLevelName> copy;
  int code = mdb_cursor_get(cursor.get(), &key, &data, MDB_SET_RANGE);
  for (std::string_view name; code == 0 && is_child(key, parent, &name);) {
    if (name.size() > kMaxLevelName) return {PRTKV_STORAGE_FAILED, entry_text(parent, name) + ": its name is too long"};
    Node node;
    if (Status status = decode_node(parent, name, bytes_of(data), &node); !status.ok())
      return status.about(entry_text(parent, name));
    if (walk == Walk::kOfChangingTree) {  // the name lies in a page that the visit may move
      std::memcpy(copy.data(), name.data(), name.size());
      name = {copy.data(), name.size()};
    }
    if (Status status = visit(name, node); !status.ok()) return status;
    code = walk == Walk::kOfChangingTree ? seek_behind(cursor.get(), parent, name, &key, &data)
                                         : mdb_cursor_get(cursor.get(), &key, &data, MDB_NEXT);
  }
  return code == 0 || code == MDB_NOTFOUND ? Status() : failure(txn, code, "cannot read the registry");
}

}  // namespace tkv::store
