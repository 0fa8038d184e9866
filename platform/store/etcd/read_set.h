// ReadSet: what one run has read from the cluster, and the comparisons that make sure that it still holds.
//
// A run reads one state. Nodes are taken from the session's cache first and are then unvalidated. What is not cached is
// fetched, and the same request compares everything that has been read so far; from then on all of it stands at one
// revision, and further requests simply read at that revision. When the comparisons of a request fail, the request
// reads the compared nodes again, and the next run starts from this prefetch.
//
// The commit compares whatever is in the read set. Two kinds of reads are not compared one by one:
//   - A survey reads more than one transaction can compare, only to find out what the run is about. A run that
//     surveyed cannot commit; the next one claims what was surveyed.
//   - Below the top of this run's own claim, the commit compares the claim instead (see claims.h).
//
// Where a decision of another session is met, it is carried out first, and the run repeats. If it is damaged, the run
// fails; only a list of children that a run reads goes on, and shows its top as a damaged node.
//
// Used by one thread. Failures of the cluster are recorded in the Run.
#ifndef TKV_PLATFORM_STORE_ETCD_READ_SET_H
#define TKV_PLATFORM_STORE_ETCD_READ_SET_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/function_ref.h"
#include "store/etcd/core.h"
#include "store/etcd/lineage.h"
#include "store/etcd/revision_view.h"
#include "store/etcd/run.h"
#include "store/store.h"

namespace tkv::store::etcd {

// A child in a list. Without a node, its record is damaged.
struct ListedNode {
  std::string name;
  std::optional<Node> node;
  Status damage;
};

using ListedNodes = std::vector<ListedNode>;

class ReadSet {
 public:
  enum class Purpose { kRead, kWrite };

  // Reads on from `start`. `run`, `core` and `start` are used as long as this lives.
  ReadSet(Core& core, Run& run, const NextRun& start, Purpose purpose);
  ReadSet(const ReadSet&) = delete;
  ReadSet& operator=(const ReadSet&) = delete;

  // --- Reading

  // Reads a node. `*seen` stays valid as long as the read set.
  Status get(const NodePlace& place, const SeenNode** seen);

  // Reads the node of a place that the caller expects to be free. If nothing is known of the place, takes it to be
  // free; the commit's comparison finds out if it is not.
  Status get_probably_free(const NodePlace& place, const SeenNode** seen);

  Status get_value(NodeId id, Value* value);

  // Lists all children; nobody may add one before the commit.
  Status list(NodeId parent, ListedNodes* children);

  // Lists children without keeping them, for a run that only reads.
  Status scan(NodeId parent, VisitNode visit, VisitDamage damaged);

  // Finds out whether a node has a child that `ignored` is false for, which is true for at most `most_ignored`.
  Status has_child(NodeId parent, std::int64_t most_ignored, FunctionRef<bool(const NodePlace&)> ignored, bool* answer);

  // Reads a range as it stands now. For what hangs below fresh nodes, which nobody else changes.
  Status read_fresh(const RangeRequest& range, RangeResponse* response);

  // --- What was read

  // The record read at a place, null if it was not read.
  const SeenNode* find(const NodePlace& place) const;
  const std::set<NodeId>& childless() const { return childless_; }
  const Lineage& lineage() const { return lineage_; }

  // The path from the root to the lowest node above everything that was only surveyed; empty if nothing was.
  const std::vector<NodeId>& surveyed() const { return surveyed_.nodes(); }

  // The revision at which everything validated stands. 0: nothing is.
  std::int64_t revision() const { return revision_; }

  // --- Comparing

  // Makes sure that everything read stands at one revision. `*revision` is that one, or zero if nothing was read.
  Status validate(std::int64_t* revision = nullptr);

  // Adds the comparisons of all that was read, and, to the failure branch, the reads that prefetch() takes in.
  void add_compares(TxnRequest* request) const;
  void add_gets(TxnRequest* request) const;

  // Takes in the answer of a transaction whose comparisons failed, as the prefetch of the next run. `also` is one more
  // place that was read after those of add_gets().
  void prefetch(const TxnResponse& response, const NodePlace* also = nullptr);

  // The paths from the root to the parents of the nodes compared that, as the prefetch shows, are no longer what they
  // were.
  std::vector<std::vector<NodeId>> changed() const;

  // --- Claims

  const ClaimList& claims() const { return *claims_; }
  void set_claims(KnownClaims claims) { claims_ = std::move(claims); }

  // What the run does for its claim.
  struct Claimant {
    // Called when a list of children does not fit, with the subtree that the run seems to be about: is to lay a claim
    // of it that compares what was read, and pass it to set_claim(). Without it, the run surveys.
    std::function<Status(NodeId top)> lay_claim;
    // Called often: is to show that the run makes progress if it holds a claim (see claims.h).
    std::function<Status()> show_progress = [] { return Status(); };
  };
  void set_claimant(Claimant claimant) { claimant_ = std::move(claimant); }

  // This run has laid a claim, and all that was read compared equal then. From here on it reads the state at that
  // revision.
  void set_claim(Claim claim);
  const std::optional<Claim>& claim() const { return claim_; }
  bool is_surveying() const { return surveying_; }

  // Sees to it that another session's decision is carried out. The run ends then: it has to repeat, or failed.
  Status recover(const Claim& decided);

 private:
  // What is not `compared` was surveyed, or is covered by the claim.
  struct ReadNode {
    SeenNode seen;
    bool compared = true;
  };
  struct ReadValue {
    std::int64_t mod_revision = 0;
    KeyValue record;
    Value value;
    Status damage;
    bool compared = true;
  };
  struct ReadRange {
    NodeId parent = kNoNode;
    std::int64_t revision = 0;  // no key may have been added after it
  };

  Status pin();
  Status recover_above(NodeId id);
  bool is_covered(NodeId parent) const;
  Status survey();
  Status make_room();
  Status add_node(const NodePlace& place, SeenNode seen, bool validated, const SeenNode** added);
  Status add_range(NodeId parent, std::int64_t revision);
  Status get_with_siblings(const NodePlace& place, const SeenNode** seen);
  Status fetch(RangeRequest range, RangeResponse* response, const NodePlace* node = nullptr);
  Status fetch_at_revision(RangeRequest range, RangeResponse* response);
  Status list_at_revision(NodeId parent, ListedNodes* children, bool* overflow);
  Status list_under_claim(NodeId parent, ListedNodes* children);
  bool can_claim() const;
  Status add_child(const NodePlace& place, SeenNode seen, ListedNodes* children);
  RevisionView& view();
  Status take_failure();

  Core& core_;
  Run& run_;
  const NextRun& start_;
  const Purpose purpose_;
  bool use_cache_;

  KnownClaims claims_;         // as they stood at the revision, but for those that are over
  std::int64_t revision_ = 0;  // at which everything validated stands
  Lineage lineage_;
  std::map<NodePlace, ReadNode> nodes_;
  std::map<NodeId, ReadValue> values_;
  std::vector<ReadRange> ranges_;
  std::set<NodeId> childless_;
  std::size_t compared_ = 0;
  std::size_t unvalidated_ = 0;
  bool surveying_ = false;
  CommonPath surveyed_;
  std::optional<Claim> claim_;
  Claimant claimant_;
  std::unique_ptr<RevisionView> view_;  // of a revision at which everything read still held
  std::int64_t view_revision_ = 0;
};

}  // namespace tkv::store::etcd

#endif
