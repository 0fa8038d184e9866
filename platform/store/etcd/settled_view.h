// SettledView: a former state of the tree in which every change that was decided by then shows as made, although its
// batches were carried out later (see redo_log.h). Between a decision and the last of its batches, nobody else writes
// in its subtree, so what is left of the batches at that revision completes the state. If that is damaged, the top of
// the change is shown as a damaged node.
//
// Used by one thread.
#ifndef TKV_PLATFORM_STORE_ETCD_SETTLED_VIEW_H
#define TKV_PLATFORM_STORE_ETCD_SETTLED_VIEW_H

#include <cstdint>
#include <map>
#include <optional>
#include <string_view>

#include "store/etcd/claims.h"
#include "store/etcd/core.h"
#include "store/etcd/keys.h"
#include "store/etcd/revision_view.h"
#include "store/etcd/seen_node.h"
#include "store/store.h"

namespace tkv::store::etcd {

class SettledView final : public View {
 public:
  SettledView(Core& core, std::int64_t revision) : core_(core), revision_(revision), view_(core, revision) {}

  // Reads what is left of the decided changes. Call first.
  Status load();

  Status find(NodeId parent, std::string_view name, Node* node) override;
  Status value(NodeId id, Value* value) override;
  Status children(NodeId parent, VisitNode visit) override { return children_with_damage(parent, visit, kEndAtDamage); }
  Status children_with_damage(NodeId parent, VisitNode visit, VisitDamage damaged) override;
  Status has_children(NodeId parent, bool* answer) override;
  std::uint64_t structure() override { return 0; }
  Status revision(Revision* revision) override { return view_.revision(revision); }
  Status change(Revision revision, ChangeRecord* record) override { return view_.change(revision, record); }

  // The first failure of the cluster, as that of a RevisionView.
  const Reply& failure() const { return view_.failure(); }

 private:
  using Nodes = std::map<NodePlace, SeenNode>;  // without a node or damage: removed

  Status load_batches(const Claim& decided);
  Status take_in(const RequestOp& operation);
  Status visit_node(std::string_view name, const Node& node, VisitNode visit, VisitDamage damaged) const;
  Status visit_pending(const Nodes::value_type& pending, VisitNode visit, VisitDamage damaged) const;

  Core& core_;
  const std::int64_t revision_;
  RevisionView view_;
  DamagedDecisions damaged_;
  Nodes nodes_;
  std::map<NodeId, std::optional<KeyValue>> values_;  // nothing: removed
};

}  // namespace tkv::store::etcd

#endif
