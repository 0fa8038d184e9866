// Reading the registry's tree in one state of the data file, through pages and records that are checked on the way.
//
// Damage yields PRTKV_STORAGE_FAILED with a message that names the page or the entry. It is never returned as data, nor
// as the absence of data.
#ifndef TKV_PLATFORM_STORE_LMDB_TREE_H
#define TKV_PLATFORM_STORE_LMDB_TREE_H

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "base/function_ref.h"
#include "store/lmdb/file.h"
#include "store/lmdb/file_state.h"
#include "store/lmdb/tree_cursor.h"
#include "store/record.h"

namespace tkv::store {

using VisitChild = FunctionRef<Status(std::string_view name, const Node& node)>;
using VisitDamagedChild = FunctionRef<Status(std::string_view name, const Status& damage)>;

// A VisitDamagedChild that ends the walk.
constexpr auto kEndAtDamage = [](std::string_view /*name*/, const Status& damage) { return damage; };

// See View. `checked`: see TreeCursor.
Status find_node(const FileState& state, NodeId parent, std::string_view name, Node* node);
Status find_value(const FileState& state, NodeId id, Value* value, CheckedPages* checked = nullptr);
Status find_value_up_to(const FileState& state, NodeId id, std::size_t capacity, Value* value, std::size_t* size,
                        ValuePlace* place);
ValuePlace place_of_value(const FileState& state, NodeId id);
Status find_meta(const FileState& state, Meta* meta);
Status has_children(const FileState& state, NodeId parent, bool* answer, CheckedPages* checked = nullptr);
// Tells whether `walk`, a walk over the children of a node, meets one. A sound child is proof that there are children.
// A damaged one is not: it may belong elsewhere. If there are only damaged ones, the result is their failure.
Status meets_child(FunctionRef<Status(VisitChild, VisitDamagedChild)> walk, bool* answer);
Status visit_children(const FileState& state, NodeId parent, VisitChild visit, VisitDamagedChild damaged,
                      CheckedPages* checked = nullptr);

// Makes sure that there is no record under `key`: for a cursor that has searched for it in vain. A damaged record
// beside the gap, under a key of the same length, may be the one sought. Readers cannot tell, and report it; a writer
// passes over it, so that a key can be written again beside it.
enum class DamageBeside { kReport, kIgnore };
PageDamage confirm_absence(TreeCursor& cursor, const Key& key, DamageBeside beside);

// Whether a key is that of a child of `parent`. `*name` then is the child's name, within the key.
bool is_child(std::span<const std::byte> key, NodeId parent, std::string_view* name);

// Decode a record under its key. A failure's message names the entry by its parent's id and its name.
Status decode_child(NodeId parent, std::string_view name, std::span<const std::byte> record, Node* node);
Status decode_value_of(NodeId id, std::span<const std::byte> record, Value* value);

// "entry 'a' below node 5"
std::string entry_text(NodeId parent, std::string_view name);

}  // namespace tkv::store

#endif
