// RevisionView: the tree at one revision, for reading any number of nodes. Nothing is compared afterwards: the state
// stays readable, whatever is written meanwhile, until etcd compacts it. A depth-first walk gets most nodes from
// requests that fetch many at once (see read_ahead.h). The top of a large change that cannot be carried out, since it
// is damaged, is shown as a damaged node.
//
// Used by one thread.
#ifndef TKV_PLATFORM_STORE_ETCD_REVISION_VIEW_H
#define TKV_PLATFORM_STORE_ETCD_REVISION_VIEW_H

#include <cstdint>
#include <string>

#include "store/etcd/core.h"
#include "store/etcd/read_ahead.h"
#include "store/store.h"

namespace tkv::store::etcd {

class RevisionView final : public View {
 public:
  // `revision` 0: the newest as of the first request.
  RevisionView(Core& core, std::int64_t revision) : core_(core), revision_(revision), ahead_(core.keys) {}

  Status find(NodeId parent, std::string_view name, Node* node) override;
  Status value(NodeId id, Value* value) override;
  Status children(NodeId parent, VisitNode visit) override;
  Status children_with_damage(NodeId parent, VisitNode visit, VisitDamage damaged) override;
  Status has_children(NodeId parent, bool* answer) override;
  std::uint64_t structure() override { return 0; }
  Status revision(Revision* revision) override;
  Status change(Revision revision, ChangeRecord* record) override { return core_.log.find(revision, record); }

  // As children, with what is known of each record; a damaged one is visited as well.
  Status list(NodeId parent, FunctionRef<Status(const Child& child)> visit);

  // The first failure of the cluster. A node that does not exist or is damaged is not one.
  const Reply& failure() const { return failure_; }

 private:
  Status get(RangeRequest request, RangeResponse* response);
  Status get_first(const RangeRequest& request, RangeResponse* response);
  Status get_page(NodeId parent, std::string begin, ChildPage* page);
  Status look_ahead(NodeId id, Sought sought);
  Status redeem(Revision* revision, std::int64_t put_at);
  void hide(SeenNode* seen) const;
  Status fail(const Reply& reply);

  Core& core_;
  std::int64_t revision_;
  DamagedDecisions damaged_;  // at that revision, if this view has chosen it
  ReadAhead ahead_;
  KeyValue record_;  // of the value read last
  Reply failure_;
};

}  // namespace tkv::store::etcd

#endif
