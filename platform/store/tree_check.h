// TreeCheck: given all records of a store, in any order, finds those that do not fit together.
#ifndef TKV_PLATFORM_STORE_TREE_CHECK_H
#define TKV_PLATFORM_STORE_TREE_CHECK_H

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "store/store.h"

namespace tkv::store {

// Used by one thread. Keeps a few dozen bytes a record, not the records.
class TreeCheck {
 public:
  // `report` is called with each finding: with damaged records at once, with the rest by finish().
  explicit TreeCheck(FunctionRef<void(const Finding&)> report) : report_(report) {}

  void add_node(NodeId parent, std::string_view name, NodeId id);
  void add_damaged_node(NodeId parent, std::string_view name, std::string detail);
  void add_value(NodeId id, std::size_t size);
  void add_damaged_value(NodeId id, std::string detail);

  struct Entry {
    NodeId parent;
    NodeId id;
    std::string name;
  };

  // What the root does not reach, and so can be removed without guessing. While the id of a damaged node is unknown,
  // what hangs on an unknown id may be that node's: it is reported, and left alone.
  struct Removable {
    std::vector<Entry> nodes;
    std::vector<NodeId> values;
  };

  // Call once, after all records. Fills `totals`, and `removable` unless null.
  void finish(Totals* totals, Removable* removable);

 private:
  enum class Standing : std::uint8_t { kUnknown, kReached, kBelowOrphan, kOnLoop, kBelowLoop };

  void index_children();
  void mark_below(NodeId id, Standing standing);
  void mark_orphans();
  void mark_loops();
  void report_nodes();
  void report_values(Removable* removable);
  Totals count() const;

  FunctionRef<void(const Finding&)> report_;
  bool unknown_ids_ = false;                        // damaged nodes
  std::vector<Entry> nodes_;                        // ordered by parent once indexed
  std::vector<Standing> standings_;                 // of nodes_
  std::unordered_map<NodeId, std::size_t> ids_;     // how many nodes have an id
  std::unordered_map<NodeId, std::size_t> values_;  // sizes
  std::unordered_set<NodeId> reached_;
};

}  // namespace tkv::store

#endif
