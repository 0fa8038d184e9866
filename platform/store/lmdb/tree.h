// Reading the registry's tree within an LMDB transaction, of whichever kind.
#ifndef TKV_PLATFORM_STORE_LMDB_TREE_H
#define TKV_PLATFORM_STORE_LMDB_TREE_H

#include <lmdb.h>

#include <memory>
#include <string>
#include <string_view>

#include "store/lmdb/error.h"
#include "store/lmdb/file.h"
#include "store/record.h"

namespace tkv::store {

using Cursor = std::unique_ptr<MDB_cursor, decltype(&mdb_cursor_close)>;

inline std::span<const std::byte> bytes_of(const MDB_val& val) {
  return {static_cast<const std::byte*>(val.mv_data), val.mv_size};
}

// As View; each looks at its transaction's state. A failure's text names the entry by its parent's id and its name.
Status find_node(MDB_txn* txn, NodeId parent, std::string_view name, Node* node);
Status find_value(MDB_txn* txn, NodeId id, Value* value);
Status find_meta(MDB_txn* txn, Meta* meta);
Status has_children(MDB_txn* txn, NodeId parent, bool* answer);

// Whether `visit` may change the tree: then the walk goes on with the first child behind the visited one.
enum class Walk { kOfFixedTree, kOfChangingTree };
Status visit_children(MDB_txn* txn, NodeId parent, Walk walk,
                      FunctionRef<Status(std::string_view name, const Node& node)> visit);

// Translates how a call within a transaction ended; as lmdb_status.
Status failure(MDB_txn* txn, LmdbOutcome outcome, const char* doing);
Status failure(MDB_txn* txn, int code, const char* doing);

// Opens a cursor, which must be gone before the transaction ends.
Status open_cursor(MDB_txn* txn, Cursor* cursor);

// "entry 'a' below node 5"
std::string entry_text(NodeId parent, std::string_view name);

}  // namespace tkv::store

#endif
