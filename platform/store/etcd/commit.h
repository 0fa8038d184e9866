// Commit: makes what a run has written, all or nothing, provided that everything it has read still holds.
//
// What fits is one transaction that compares the read set and makes the write set. What does not fit takes the steps
// that claims.h describes: the run is repeated under a claim, its writes are staged as a redo log, and the transaction
// turns the claim into a decision instead of making the writes itself.
//
// While etcd's space alarm is raised, a change that only deletes, and that fits one transaction, is made without a mark
// and without garbage keys, which could not be put. So a lost answer leaves it undecided; and if the session dies
// before it has removed what hung below a deleted key, or if another key is created in its place before that, keys and
// values without a parent remain. No session reaches those, and no id is given out again, so nobody misreads them. They
// take space until `tkv verify --repair` finds and removes them. The log cannot describe the change either (see
// change_log.h).
//
// Used by one thread, once. Failures of the cluster are recorded in the Run.
#ifndef TKV_PLATFORM_STORE_ETCD_COMMIT_H
#define TKV_PLATFORM_STORE_ETCD_COMMIT_H

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "store/etcd/core.h"
#include "store/etcd/read_set.h"
#include "store/etcd/run.h"
#include "store/etcd/staging.h"
#include "store/etcd/write_set.h"

namespace tkv::store::etcd {

class Commit {
 public:
  // `log_record` is what the log is to tell of the change.
  Commit(Core& core, Run& run, ReadSet& reads, WriteSet& writes, Staging& staging, std::string log_record)
      : core_(core), run_(run), reads_(reads), writes_(writes), staging_(staging), log_record_(std::move(log_record)) {}
  Commit(const Commit&) = delete;
  Commit& operator=(const Commit&) = delete;

  // Success: the change has been made. A failure if nothing has been made, or if it is unknown whether it has
  // (PRTKV_UNDECIDED). When run.repeats(), the function must run again.
  Status make();

  // Of the change that was made, or zero if nothing visible was written.
  Revision revision() const { return revision_; }

 private:
  using Paths = std::vector<std::vector<NodeId>>;

  Status repeat_with_claim(bool writes_fit);
  Status repeat_with_claim_of(Paths paths);
  Status stage_log();
  Status send();
  void build_request(TxnRequest* request) const;
  static bool fits(const TxnRequest& request);
  Paths written_paths() const;
  bool concerns(const Claim& claim) const;
  bool is_within_claim() const;
  const Claim* decision_in_the_way() const;
  void wait_for_turn();
  Status remove_without_space(Status refusal);
  bool may_be_sent_again(const TxnResponse& response);
  bool claim_stands() const;
  Status repeat_changed();
  void committed(std::int64_t revision);
  std::vector<Sweeper::Unmarked> unlinked_at(std::int64_t revision) const;

  Core& core_;
  Run& run_;
  ReadSet& reads_;
  WriteSet& writes_;
  Staging& staging_;
  const std::string log_record_;
  Revision revision_ = 0;
  std::uint64_t batches_ = 0;  // of the redo log; 0: the transaction makes all writes itself
};

}  // namespace tkv::store::etcd

#endif
