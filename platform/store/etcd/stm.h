// Stm: one run of a caller's function as a software transaction, after the client of that name in etcd's own libraries.
//
// The function reads and writes as if it were alone. Reads go to the read set and writes to the write set; the commit
// makes the writes in one transaction of etcd that compares what was read. If that fails, the function runs again on
// what the failed transaction prefetched. So a function that only reads runs at most twice (three times if etcd
// compacts meanwhile), and one that writes runs again only if another writer got ahead of it.
//
// A change larger than one transaction takes two runs: one that surveys which subtree it is about, and one that holds a
// claim of that subtree (see claims.h).
//
// Used by one thread, for one run.
#ifndef TKV_PLATFORM_STORE_ETCD_STM_H
#define TKV_PLATFORM_STORE_ETCD_STM_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "store/etcd/commit.h"
#include "store/etcd/core.h"
#include "store/etcd/read_set.h"
#include "store/etcd/run.h"
#include "store/etcd/staging.h"
#include "store/etcd/write_set.h"
#include "store/store.h"

namespace tkv::store::etcd {

class Stm final : public Update {
 public:
  using Purpose = ReadSet::Purpose;

  Stm(Core& core, Purpose purpose, NextRun start, Deadline deadline);
  Stm(const Stm&) = delete;
  Stm& operator=(const Stm&) = delete;

  // --- View and Update

  Status find(NodeId parent, std::string_view name, Node* node) override;
  Status value(NodeId id, Value* value) override;
  Status children(NodeId parent, VisitNode visit) override;
  Status children_with_damage(NodeId parent, VisitNode visit, VisitDamage damaged) override;
  Status has_children(NodeId parent, bool* answer) override;
  std::uint64_t structure() override { return 0; }
  Status revision(Revision* revision) override;
  Status change(Revision revision, ChangeRecord* record) override { return core_.log.find(revision, record); }
  void describe(ChangeDescription description) override { description_ = std::move(description); }

  Status new_id(NodeId* id) override { return staging_.new_id(id); }
  Status insert(NodeId parent, std::string_view name, const Node& node) override;
  Status set_security(NodeId parent, std::string_view name, const sec_attr& security) override;
  Status unlink(NodeId parent, std::string_view name) override;
  Status discard(NodeId id) override;
  Status remove_damaged(NodeId parent, std::string_view name) override;
  Status set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) override;
  View& before() override { return before_; }

  // --- The run

  // Begins the run: lays the claim that the run before ordered. A failure is to be passed to finish().
  Status start();

  // Ends a run whose function returned `*result`: makes sure that it saw one state, and commits what it wrote. Returns
  // false if the function must run again, in an Stm that starts from take_next(). Otherwise `*result` is the answer.
  bool finish(Status* result);
  NextRun take_next();

  // After finish(): that of the change, or zero if none was made.
  Revision committed() const { return committed_; }

  // Whether this run was a long one, which is not limited by the operation's deadline.
  bool is_long() const { return run_.is_long(); }

  // Whether this run has to be repeated because another session came first.
  bool gives_way() const { return run_.gives_way(); }

  // The deadline of the operation, put off by the time in which this run waited for other sessions.
  Deadline deadline() const { return run_.deadline_of_operation(); }

 private:
  // The tree as this run found it: what is read here becomes part of the read set.
  class Before final : public View {
   public:
    explicit Before(Stm& stm) : stm_(stm), reads_(stm.reads_) {}
    Status find(NodeId parent, std::string_view name, Node* node) override;
    Status value(NodeId id, Value* value) override { return reads_.get_value(id, value); }
    Status children(NodeId parent, VisitNode visit) override {
      return children_with_damage(parent, visit, kEndAtDamage);
    }
    Status children_with_damage(NodeId parent, VisitNode visit, VisitDamage damaged) override;
    Status has_children(NodeId parent, bool* answer) override;
    std::uint64_t structure() override { return 0; }
    Status revision(Revision* revision) override { return stm_.revision(revision); }
    Status change(Revision revision, ChangeRecord* record) override { return stm_.change(revision, record); }

   private:
    Stm& stm_;
    ReadSet& reads_;
  };

  Status end(bool succeeded);
  Status validate_revision(std::int64_t read_at);
  Status lay_claim(ClaimOrder order);
  Status begin_now(ClaimOrder* order);
  bool is_in_the_way(const Claim& claim, const ClaimOrder& order) const;
  void wait_for_turn(const ClaimOrder& order);
  TxnRequest batch_of(const Claim& claim, const ClaimOrder& order) const;
  bool others_laid_claims(const TxnResponse& response);
  Status find_written(const NodePlace& place, bool* written, std::optional<Node>* node);
  Status value_of_fresh(NodeId id, Value* value);
  Status list_fresh(NodeId parent, ListedNodes* children);
  Status visit_merged(NodeId parent, const ListedNodes& children, VisitNode visit, VisitDamage damaged);

  Core& core_;
  const Purpose purpose_;
  const NextRun start_;
  Run run_;
  ReadSet reads_;
  WriteSet writes_;
  Staging staging_;
  std::string fresh_value_;  // a staged value that was read again
  ChangeDescription description_;
  std::optional<Revision> revision_;  // of the state that is read, once it was asked for
  Revision committed_ = 0;
  Before before_;
};

}  // namespace tkv::store::etcd

#endif
