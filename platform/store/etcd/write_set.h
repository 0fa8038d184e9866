// WriteSet: what one run has written, kept in memory until it is committed or staged.
//
// Some of the nodes are fresh: their ids were made by this run, so nobody else can see them or what hangs below them.
// Writes that concern fresh nodes only can be staged, that is, sent before the commit (see staging.h); they leave the
// write set then. All other writes are visible and belong to the commit.
//
// Sends no requests. Used by one thread.
#ifndef TKV_PLATFORM_STORE_ETCD_WRITE_SET_H
#define TKV_PLATFORM_STORE_ETCD_WRITE_SET_H

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "store/etcd/id_source.h"
#include "store/etcd/keys.h"
#include "store/etcd/requests.h"
#include "store/store.h"

namespace tkv::store::etcd {

class WriteSet {
 public:
  using Nodes = std::map<NodePlace, std::optional<Node>>;       // nothing: removed
  using Values = std::map<NodeId, std::optional<std::string>>;  // records; nothing: removed

  explicit WriteSet(const Keys& keys) : keys_(keys) {}
  WriteSet(const WriteSet&) = delete;
  WriteSet& operator=(const WriteSet&) = delete;

  // --- Fresh nodes

  void add_fresh(NodeId id);
  bool is_fresh(NodeId id) const;
  const std::vector<IdRange>& fresh() const { return fresh_; }

  // --- Writing

  void put_node(NodePlace place, std::optional<Node> node) { nodes_.insert_or_assign(std::move(place), node); }

  // As if nothing had been written there.
  void forget_node(const NodePlace& place) { nodes_.erase(place); }

  void put_value(NodeId id, std::optional<std::string> record) { values_[id] = std::move(record); }

  // Gives up a node with all that hangs below it.
  void discard(NodeId id);

  // --- What was written

  // Null if nothing was written there, or it has been staged.
  const std::optional<Node>* find_node(const NodePlace& place) const;
  const std::optional<std::string>* find_value(NodeId id) const;
  bool is_discarded(NodeId id) const { return discarded_.contains(id); }

  // Whether something was staged at this place. May be true by mistake, with the odds of a hash collision.
  bool is_staged(const NodePlace& place) const { return staged_.contains(hash_of(place)); }

  const Nodes& nodes() const { return nodes_; }
  const Values& values() const { return values_; }
  bool has_child(NodeId parent) const;
  std::int64_t removed_below(NodeId parent) const;
  bool is_empty() const { return nodes_.empty() && values_.empty() && discarded_.empty(); }

  // --- Staging

  // Whether a node of this id, or none, written at this place concerns fresh nodes only.
  bool can_be_staged(const NodePlace& place, const std::optional<Node>& node) const;

  // Counts an operation that can be staged. False if there is enough to be staged for a full batch; the count then
  // begins anew.
  bool has_room(std::size_t bytes);

  // Takes out all that can be staged, in transactions of up to one batch, with this ticket (see tickets.h).
  std::vector<TxnRequest> take_staged(Revision ticket);

  // --- Commit

  // The operations that make all visible writes. Discarded nodes known to have no children are removed at once; for
  // the others a garbage key is put. `ticket` is for operations that are not made by the deciding transaction itself.
  std::vector<RequestOp> puts(const std::set<NodeId>& childless, Revision ticket = 0) const;

  // Those garbage keys.
  std::vector<std::string> garbage(const std::set<NodeId>& childless) const;

 private:
  static std::size_t hash_of(const NodePlace& place);
  RequestOp node_operation(const NodePlace& place, const std::optional<Node>& node, Revision ticket) const;
  RequestOp value_operation(NodeId id, const std::optional<std::string>& record, Revision ticket) const;
  bool is_removed_at_once(NodeId discarded, const std::set<NodeId>& childless) const;

  const Keys& keys_;
  Nodes nodes_;
  Values values_;
  std::set<NodeId> discarded_;
  std::vector<IdRange> fresh_;
  std::unordered_set<std::size_t> staged_;  // hashes of places
  int staged_operations_ = 0;
  std::size_t staged_bytes_ = 0;
};

}  // namespace tkv::store::etcd

#endif
