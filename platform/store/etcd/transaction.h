// One run of a caller's function on one state of the tree, made of what is known of it and asked for as little as
// possible.
//
// A run takes what it needs from the cache first. What is not there is fetched, and the same request compares all that
// was read so far: afterwards everything read stands at one revision, and further fetching just reads at that one. A
// run whose comparisons fail is repeated on the fresh records that the failing request brings back, all of one
// revision again. So a function that only reads runs twice at the most (three times when etcd compacts meanwhile), and
// one that writes is repeated only as often as another writer comes before it.
//
// What a run writes is kept here until the end and made by one transaction that compares all that was read.
//
// What one transaction cannot compare, or cannot change, takes two runs. The first surveys: it reads on without
// comparing, only to find out which subtree the change is about. The second lays claim to that subtree (see claims.h),
// reads it as it stood then, and compares the claim instead of what it read there. When it changes more than fits, the
// changes are laid ready in batches, and the last transaction decides that they are made.
#ifndef TKV_PLATFORM_STORE_ETCD_TRANSACTION_H
#define TKV_PLATFORM_STORE_ETCD_TRANSACTION_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "store/etcd/core.h"
#include "store/etcd/lineage.h"
#include "store/etcd/revision_view.h"
#include "store/etcd/staging.h"
#include "store/store.h"

namespace tkv::store::etcd {

// What the run before brought back.
struct Basis {
  std::int64_t revision = 0;  // of the nodes and claims; 0: nothing
  std::map<NodePlace, SeenNode> nodes;
  KnownClaims claims;
  std::optional<NodeId> top;  // of the subtree that the next run must lay claim to
  int attempt = 1;            // at that
};

class Transaction final : public Update {
 public:
  enum class Purpose { kRead, kWrite };

  Transaction(Core& core, Purpose purpose, Basis basis, Deadline deadline);
  ~Transaction();

  Status find(NodeId parent, std::string_view name, Node* node) override;
  Status value(NodeId id, Value* value) override;
  Status children(NodeId parent, FunctionRef<Status(std::string_view name, const Node& node)> visit) override;
  Status has_children(NodeId parent, bool* answer) override;
  std::uint64_t structure() override { return 0; }

  Status new_id(NodeId* id) override;
  Status insert(NodeId parent, std::string_view name, const Node& node) override;
  Status set_security(NodeId parent, std::string_view name, const sec_attr& security) override;
  Status unlink(NodeId parent, std::string_view name) override;
  Status discard(NodeId id) override;
  Status set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) override;
  View& before() override;

  // Begins the run: lays claim to what the run before asked for. A failure is for `finish`.
  Status start();

  // Ends a run whose function returned `*result`: makes sure that it stood on one state and makes what it wrote.
  // False: the function must run again, on `take_basis()`. True: `*result` is the answer.
  bool finish(Status* result);

  Basis take_basis() { return std::move(basis_); }

  // Whether this run was a long one, to which no limit of time applies as a whole.
  bool is_long() const { return long_; }

 private:
  // `compared`: by the last transaction. What is not stands by itself: it is surveyed, or claimed.
  struct ReadNode {
    SeenNode known;
    bool compared = true;
  };
  struct ReadValue {
    std::int64_t mod_revision = 0;
    std::string record;
    Value value;
    bool compared = true;
  };
  struct Listing {
    KeyRange range;
    std::int64_t revision = 0;  // after which no newcomer may have appeared
  };

  Deadline deadline() const;
  Status fail(Status status);
  Status run_again(bool from_scratch);

  Status lay_claim(NodeId top);
  void claim_again();
  Status carry_out(const Claim& claim);
  Status carry_out_all();
  Status settle(NodeId id);
  Status survey();
  bool stands_by_itself(NodeId parent) const;
  bool is_large() const { return surveying_ || claim_.has_value(); }

  static std::size_t hash_of(const NodePlace& place);
  bool is_fresh(NodeId id) const;
  bool is_sent_ahead(const NodePlace& place) const;

  Status look_up(const NodePlace& place, const SeenNode** known);
  Status look_up_written(const NodePlace& place, bool* written, std::optional<Node>* node);
  Status look_up_ahead(const NodePlace& place, const SeenNode** known);
  Status fetch(RangeRequest range, RangeResponse* response, const NodePlace* node);
  Status fetch_at_revision(RangeRequest range, RangeResponse* response);
  Status read_newest(const RangeRequest& range, RangeResponse* response);
  Status add_read(const NodePlace& place, SeenNode known, bool validated, const SeenNode** added);
  void add_comparisons(TxnRequest* request) const;
  void add_rereading(TxnRequest* request) const;
  void learn(const TxnResponse& response, const NodePlace* also);
  Status make_room_to_compare();
  Status validate();

  Status list_below_fresh(NodeId parent, std::vector<std::pair<std::string, Node>>* list);
  Status list_for_update(NodeId parent, std::vector<std::pair<std::string, Node>>* list);
  Status add_listed(const RangeResponse& page, std::vector<std::pair<std::string, Node>>* list);
  void add_listing(NodeId parent);
  Status list_uncompared(NodeId parent, std::vector<std::pair<std::string, Node>>* list);
  Status visit_pages(NodeId parent, FunctionRef<Status(std::string_view name, const Node& node)> visit);
  Status visit_merged(NodeId parent, const std::vector<std::pair<std::string, Node>>& list,
                      FunctionRef<Status(std::string_view name, const Node& node)> visit);
  std::int64_t removed_below(NodeId parent) const;
  bool has_written_child(NodeId parent) const;

  void write(NodePlace place, std::optional<Node> node);
  Status make_room_ahead(std::size_t bytes);
  bool goes_ahead(const NodePlace& place, const std::optional<Node>& node) const;
  Status send_ahead();
  Status send_batch(TxnRequest* batch);
  bool has_written() const;
  std::string value_record(NodeId id, std::int32_t type, std::span<const std::byte> bytes) const;
  void add_node_write(RequestOp* operation, const NodePlace& place, const std::optional<Node>& node) const;
  std::vector<RequestOp> visible_writes() const;
  std::vector<std::vector<NodeId>> written_paths() const;
  std::vector<std::string> garbage() const;
  bool concerns(const Claim& claim) const;
  const Claim* decision_in_the_way() const;
  void make_last(TxnRequest* request) const;
  bool fits(const TxnRequest& request) const;
  bool commit(Status* result);
  bool run_again_with_claim();
  bool is_within_claim() const;
  Status send_plan();
  void let_claimants_finish();
  bool send_last(TxnRequest last, Status* result);
  bool may_be_sent_again(const TxnResponse& response);
  void remember(std::int64_t revision);
  void carry_out_own();

  Core& core_;
  const Purpose purpose_;
  Basis basis_;
  const Deadline deadline_;
  const bool first_run_;

  KnownClaims claims_;         // as they stand at the revision, but for those that are over
  std::int64_t revision_ = 0;  // at which all that was read stands, but for what is not validated
  Lineage lineage_;
  std::map<NodePlace, ReadNode> nodes_;
  std::map<NodeId, ReadValue> values_;
  std::vector<Listing> listings_;
  std::set<NodeId> childless_;  // found without children in `listings_`
  std::size_t compared_ = 0;
  std::size_t unvalidated_ = 0;
  bool use_cache_;

  std::map<NodePlace, std::optional<Node>> node_writes_;
  std::map<NodeId, std::optional<std::string>> value_writes_;  // records; none: removed
  std::set<NodeId> discarded_;
  std::vector<IdRange> fresh_;
  IdRange reserved_;  // ids taken for this run alone
  std::uint64_t next_block_;
  std::size_t ahead_operations_ = 0;
  std::size_t ahead_bytes_ = 0;
  std::unique_ptr<Build> build_;
  std::unordered_set<std::size_t> sent_;  // hashes of places that were sent ahead
  std::unique_ptr<RevisionView> before_;

  bool surveying_ = false;
  std::optional<Claim> claim_;
  std::uint64_t batches_ = 0;  // of what is to be decided; 0: all fits the last transaction

  bool again_ = false;
  bool long_ = false;
  Status failure_;
};

}  // namespace tkv::store::etcd

#endif
