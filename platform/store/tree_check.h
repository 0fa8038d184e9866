// TreeCheck: finds the records of a store that do not form a tree. The records may come in any order.
#ifndef TKV_PLATFORM_STORE_TREE_CHECK_H
#define TKV_PLATFORM_STORE_TREE_CHECK_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "store/store.h"

namespace tkv::store {

// Used by one thread. Needs a few dozen bytes of memory per record.
class TreeCheck {
 public:
  // `report` receives damaged records as they are added, and all other findings from finish().
  explicit TreeCheck(FunctionRef<void(const Finding&)> report) : report_(report) {}

  void add_node(NodeId parent, std::string_view name, NodeId id);
  void add_damaged_node(NodeId parent, std::string_view name, std::string detail);
  void add_value(NodeId id, std::size_t size);
  void add_removed_value(NodeId id);  // a record that says when a value was removed
  void add_damaged_value(NodeId id, std::string detail);

  struct CheckedNode {
    NodeId parent;
    NodeId id;
    std::string name;
  };

  // Records that cannot be reached from the root, and so can be removed without guessing. What is below a damaged node
  // is among them: nobody can tell its id, and nothing leads there any more.
  struct Removable {
    std::vector<CheckedNode> nodes;
    std::vector<NodeId> values;
  };

  // Call once, after the last record. Fills `totals` and, unless it is null, `removable`.
  void finish(Totals* totals, Removable* removable);

 private:
  enum class Standing : std::uint8_t { kUnknown, kReached, kBelowOrphan, kOnLoop, kBelowLoop };

  void index_children();
  void mark_below(NodeId id, Standing standing);
  void mark_orphans();
  void mark_loops();
  void report_nodes();
  void report_values();
  std::string missing_text(const char* what) const;
  Removable find_removable() const;
  Totals count() const;

  FunctionRef<void(const Finding&)> report_;
  std::vector<CheckedNode> damaged_nodes_;  // without ids
  std::vector<NodeId> damaged_values_;
  std::vector<CheckedNode> nodes_;                                 // sorted by parent and name by index_children()
  std::vector<Standing> standings_;                                // of nodes_
  std::unordered_map<NodeId, std::size_t> ids_;                    // number of nodes with each id
  std::unordered_map<NodeId, std::optional<std::size_t>> values_;  // sizes; none of a removed value
  std::unordered_set<NodeId> reached_;
};

}  // namespace tkv::store

#endif
