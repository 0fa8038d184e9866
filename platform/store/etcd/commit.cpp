#include "store/etcd/commit.h"

#include <algorithm>
#include <utility>

#include "store/etcd/claim_watch.h"
#include "store/etcd/limits.h"
#include "store/etcd/redo_log.h"

namespace tkv::store::etcd {
namespace {

// Removing most unlinked subtrees takes less. The rest is left to the sweeper.
constexpr std::chrono::milliseconds kMoment{250};

// Takes the puts of garbage keys out of a transaction, and has it remove the key of the log instead of putting it.
// False if it does anything besides that and deleting.
bool leave_only_removals(const Keys& keys, TxnRequest* request) {
  auto* operations = request->mutable_success();
  for (int i = operations->size(); i-- > 0;) {
    if (!operations->Get(i).has_request_put()) continue;
    const std::string& key = operations->Get(i).request_put().key();
    if (key == keys.log()) {
      erase(operations->Mutable(i), keys.log());
    } else if (keys.parse_garbage(key)) {
      operations->DeleteSubrange(i, 1);
    } else {
      return false;
    }
  }
  return !operations->empty();
}

Status unknown_outcome(const Status& reason) {
  return {PRTKV_UNDECIDED, reason.text() + "; it is not known whether the change was made"};
}

}  // namespace

Status Commit::make() {
  TxnRequest request;
  build_request(&request);
  if (reads_.is_surveying()) return repeat_with_claim(fits(request));
  if (!fits(request)) {
    if (Status status = staging_.send(); !status.ok()) return status;
    request.Clear();
    build_request(&request);
  }
  if (!fits(request)) {
    if (!reads_.claim() || !is_within_claim()) return repeat_with_claim(false);
    if (Status status = stage_log(); !status.ok()) return status;
  }
  return send();
}

bool Commit::fits(const TxnRequest& request) {
  return request.success_size() < kMaxTxnOperations && request.compare_size() + kAddedCompares <= kMaxTxnOperations &&
         request.failure_size() + kAddedCompares <= kMaxTxnOperations && request.ByteSizeLong() <= kMaxTxnBytes;
}

// All writes in one transaction, or the decision to carry out the redo log.
void Commit::build_request(TxnRequest* request) const {
  reads_.add_compares(request);
  reads_.add_gets(request);
  if (batches_ == 0) {
    for (RequestOp& operation : writes_.puts(reads_.childless())) *request->add_success() = std::move(operation);
  }
  if (!writes_.is_empty()) put(request->add_success(), core_.keys.log(), log_record_);
  for (const auto& [top, claim] : reads_.claims().claims) {
    if (!claim.text.decided && concerns(claim)) erase(request->add_success(), core_.keys.claim(top, claim.token));
  }
  if (const auto& own = reads_.claim()) {
    std::string key = core_.keys.claim(own->top, own->token);
    if (batches_ == 0) {
      erase(request->add_success(), std::move(key));
    } else {
      put(request->add_success(), std::move(key), ClaimText{true, 0, 0, batches_}.print());
    }
  }
  staging_.finish_in(request);
}

// The path from the root to each visible node that is written. If only the record of a node changes, the node itself
// can be the top of the change; if a node appears or goes, its parent is.
Commit::Paths Commit::written_paths() const {
  Paths paths;
  for (const auto& [place, node] : writes_.nodes()) {
    if (writes_.is_fresh(place.parent)) continue;
    const SeenNode* read = reads_.find(place);
    const bool stays = node && read != nullptr && read->node && read->node->id == node->id;
    paths.push_back(reads_.lineage().path(stays ? node->id : place.parent));
  }
  for (const auto& [id, record] : writes_.values()) {
    if (!writes_.is_fresh(id)) paths.push_back(reads_.lineage().path(id));
  }
  return paths;
}

// Whether this run may write within the subtree of another session's claim.
bool Commit::concerns(const Claim& claim) const {
  if (reads_.claim() && claim.token == reads_.claim()->token) return false;
  if (reads_.lineage().knows(claim.top)) return true;
  const Paths paths = written_paths();
  return std::any_of(paths.begin(), paths.end(), [](const auto& path) { return path.empty(); });
}

bool Commit::is_within_claim() const {
  const NodeId top = reads_.claim()->top;
  const Paths paths = written_paths();
  return std::all_of(paths.begin(), paths.end(), [top](const auto& path) {
    return top == kRootNode || std::find(path.begin(), path.end(), top) != path.end();
  });
}

// The next run claims what this one has surveyed and, unless it fits one transaction, what this one has written. A
// claim that was too small is replaced by a larger one.
Status Commit::repeat_with_claim(bool writes_fit) {
  Paths paths = writes_fit ? Paths() : written_paths();
  if (reads_.is_surveying()) paths.push_back(reads_.surveyed());
  return repeat_with_claim_of(std::move(paths));
}

Status Commit::repeat_with_claim_of(Paths paths) {
  const auto& own = reads_.claim();
  if (own) paths.push_back(reads_.lineage().path(own->top));
  NodeId top = common_top(paths);
  if (own && top == own->top) top = kRootNode;
  run_.become_long();
  Status status = run_.repeat_from_scratch();
  run_.next.claim =
      own ? ClaimOrder{top, own->began(), own->text.attempt + 1, own} : ClaimOrder{top, reads_.revision(), 1, {}};
  return status;
}

Status Commit::stage_log() {
  RedoLog log;
  Revision ticket = 0;
  if (Status status = staging_.ticket(&ticket); !status.ok()) return status;
  for (RequestOp& operation : writes_.puts(reads_.childless(), ticket)) {
    log.add(std::move(operation));
    if (Status status = staging_.show_progress(*reads_.claim()); !status.ok()) return status;
  }
  std::vector<std::string> batches = log.take_batches();
  batches_ = batches.size();
  return staging_.send_log(std::move(batches));
}

// A decision that must be carried out before this change is made. What hangs below a subtree that goes was not read,
// so any decision may concern that.
const Claim* Commit::decision_in_the_way() const {
  const bool any = !writes_.garbage(reads_.childless()).empty();
  for (const auto& [top, claim] : reads_.claims().claims) {
    if (claim.text.decided && (any || concerns(claim))) return &claim;
  }
  return nullptr;
}

// Waits for the claims of changes that began before this one (see claims.h).
void Commit::wait_for_turn() {
  Turns& turns = run_.next.turns;
  for (const auto& [top, claim] : reads_.claims().claims) {
    if (claim.text.decided || !concerns(claim)) continue;
    if (turns.began == 0) turns.began = reads_.claims().revision;
    const std::int64_t began = reads_.claim() ? reads_.claim()->began() : turns.began;
    if (claim.began() > began || !turns.awaited.insert(claim.token).second) continue;
    run_.wait([&, &other = claim] {
      return wait_for_claim(*core_.kv, core_.keys, other, ClaimStage::kDecided, patience_with(other));
    });
  }
}

Status Commit::send() {
  while (true) {
    if (const Claim* decided = decision_in_the_way()) return reads_.recover(*decided);
    wait_for_turn();
    TxnRequest request;
    build_request(&request);
    Owner owner;
    if (Status status = staging_.owner(&owner); !status.ok()) return remove_without_space(std::move(status));
    Mark mark = core_.writers.take(owner);
    Written written =
        write_once(*core_.kv, core_.keys, std::move(request), &mark, core_.writers.next_text(), run_.deadline());
    core_.writers.give_back(std::move(mark));
    if (written.went_back) return run_.fail(core_.kv->end().status);
    if (!written.status.ok()) return remove_without_space(std::move(written.status));
    if (written.lost) return staging_.lost();
    if (written.made) {
      committed(written.revision);
      core_.sweeper.remove_garbage(writes_.garbage(reads_.childless()), kMoment);
      return {};
    }
    if (!may_be_sent_again(written.response)) return repeat_changed();
  }
}

// etcd refuses leases and puts while it has no space, but not deletions. What hangs below a deleted key is removed
// right after the transaction. Other failures are returned as they are.
Status Commit::remove_without_space(Status refusal) {
  if (!refusal.is(PRTKV_STORAGE_FULL) || staging_.started()) return refusal;
  TxnRequest request;
  build_request(&request);
  if (!leave_only_removals(core_.keys, &request)) return refusal;
  TxnResponse response;
  const Reply reply = core_.kv->txn(request, &response, run_.deadline());
  if (!reply.ok()) return reply.repeated ? unknown_outcome(reply.status) : reply.status;
  if (response.succeeded()) {
    committed(response.header().revision());
    core_.sweeper.remove_unmarked(unlinked_at(response.header().revision()), core_.kv->timeout());
    return {};
  }
  if (reply.repeated) return unknown_outcome(refusal);
  reads_.prefetch(response);
  return run_.repeat();
}

// If the comparisons failed only because others have laid claims meanwhile, what this run has read still holds.
bool Commit::may_be_sent_again(const TxnResponse& response) {
  reads_.prefetch(response);
  const KnownClaims& claims = run_.next.prefetch.claims;
  if (!claim_stands() || !reads_.changed().empty() || !claims->has_newer_than(reads_.claims().revision)) return false;
  reads_.set_claims(claims);
  return true;
}

bool Commit::claim_stands() const {
  const auto& own = reads_.claim();
  return !own || run_.next.prefetch.claims->find(own->top, own->token) != nullptr;
}

// What others have changed outside of the claim, they may change again and again: the next run claims that as well.
Status Commit::repeat_changed() {
  if (!claim_stands()) return run_.give_way();
  return reads_.claim() ? repeat_with_claim_of(reads_.changed()) : run_.repeat();
}

// The change has been made. What cannot be carried out now is left to whoever comes by.
void Commit::committed(std::int64_t revision) {
  if (!writes_.is_empty()) revision_ = static_cast<Revision>(revision);
  for (const auto& [place, node] : writes_.nodes()) {
    if (node && batches_ == 0) {
      core_.cache.put(place, SeenNode{revision, Node{node->id, node->security, revision_, node->moves}, {}});
    } else {
      core_.cache.erase(place);
    }
  }
  for (const auto& [top, claim] : reads_.claims().claims) {
    if (!claim.text.decided && concerns(claim)) core_.claims.forget(claim);
  }
  if (batches_ != 0 && !core_.recovery.carry_out(*reads_.claim()).ok()) core_.sweeper.look_around();
  staging_.committed();
}

// What has to be removed after a change that only deletes.
std::vector<Sweeper::Unmarked> Commit::unlinked_at(std::int64_t revision) const {
  const std::vector<std::string> garbage = writes_.garbage(reads_.childless());
  std::vector<Sweeper::Unmarked> unlinked;
  for (const auto& [place, node] : writes_.nodes()) {
    const SeenNode* read = reads_.find(place);
    if (node || read == nullptr || !read->node) continue;
    const NodeId top = read->node->id;
    const bool is_left = std::find(garbage.begin(), garbage.end(), core_.keys.garbage(top)) != garbage.end();
    if (is_left) unlinked.push_back({top, place, revision});
  }
  return unlinked;
}

}  // namespace tkv::store::etcd
