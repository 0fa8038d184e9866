// The end of a run: what it wrote is sent ahead, claimed, decided, made.
#include <algorithm>
#include <thread>

#include "store/etcd/redo_log.h"
#include "store/etcd/transaction.h"
#include "store/record.h"

namespace tkv::store::etcd {
namespace {

constexpr int kOperationsPerBatch = 100;
constexpr int kPatientAttempts = 3;
constexpr std::chrono::milliseconds kLongestCourtesy{1000};
constexpr std::chrono::milliseconds kLookAgain{5};

}  // namespace

// ---- claims

Status Transaction::start() {
  if (basis_.top) {
    if (Status status = lay_claim(*basis_.top); !status.ok()) return status;
  }
  const Claim* decided = claims_->decided_on(kRootNode);
  return decided == nullptr ? Status() : carry_out(*decided);
}

// The state at which the claim was laid is the one that this run reads.
Status Transaction::lay_claim(NodeId top) {
  long_ = true;
  build_ = std::make_unique<Build>(*core_.kv, core_.keys);
  Claim claim{top, build_->token(), 0, {}};
  claim.text.attempt = basis_.attempt;
  TxnRequest batch;
  compare_claims(&batch, core_.keys, *claims_);
  put(batch.add_success(), core_.keys.claim(top, claim.token), claim.text.print());
  *batch.add_failure()->mutable_request_range() = get_all(core_.keys.all_claims());
  Written written = build_->send(std::move(batch), fresh_);
  if (!written.status.ok()) return fail(std::move(written.status));
  if (!written.made) {
    basis_ = Basis{0, {}, {}, top, basis_.attempt};
    if (written.response.responses_size() > 0) {
      core_.claims.learn(written.response.responses(0).response_range(), written.response.header().revision());
    }
    return run_again(false);
  }
  claim.mod_revision = written.revision;
  revision_ = written.revision;
  claim_ = std::move(claim);
  return {};
}

// The next run claims the same, and reads the state at which it does.
void Transaction::claim_again() { basis_ = Basis{0, {}, {}, claim_->top, claim_->text.attempt + 1}; }

Status Transaction::carry_out(const Claim& claim) {
  const auto time = [this] { return deadline(); };
  if (Status status = carry_out_decision(core_, claim, time); !status.ok()) return fail(std::move(status));
  return run_again(true);
}

Status Transaction::carry_out_all() {
  for (const auto& [top, claim] : claims_->claims) {
    if (!claim.text.decided) continue;
    if (Status status = carry_out(claim); !again_) return status;
  }
  return run_again(true);
}

// Of a node that was not found from the root on, nothing tells what it hangs below.
Status Transaction::settle(NodeId id) {
  return id == kNoNode || lineage_.knows(id) || !claims_->has_decided() ? Status() : carry_out_all();
}

// ---- building aside

Status Transaction::make_room_ahead(std::size_t bytes) {
  if (ahead_operations_ >= kOperationsPerBatch || ahead_bytes_ + bytes > kMostBytes) {
    if (Status status = send_ahead(); !status.ok()) return status;
  }
  ++ahead_operations_;
  ahead_bytes_ += bytes;
  return {};
}

void Transaction::add_node_write(RequestOp* operation, const NodePlace& place, const std::optional<Node>& node) const {
  if (node) {
    put(operation, core_.keys.node(place), as_text(encode_node(place.parent, place.name, *node)));
  } else {
    erase(operation, core_.keys.node(place));
  }
}

Status Transaction::send_batch(TxnRequest* batch) {
  if (batch->success_size() == 0) return {};
  Written written = build_->send(std::move(*batch), fresh_);
  batch->Clear();
  if (!written.status.ok()) return fail(std::move(written.status));
  return written.made ? Status() : run_again(true);
}

Status Transaction::send_ahead() {
  if (!failure_.ok()) return failure_;
  if (again_) return run_again(false);
  if (!build_) build_ = std::make_unique<Build>(*core_.kv, core_.keys);
  long_ = true;
  TxnRequest batch;
  std::size_t bytes = 0;
  const auto make_room = [&](std::size_t more) {
    const bool full = batch.success_size() >= kOperationsPerBatch || bytes + more > kMostBytes;
    bytes = full ? more : bytes + more;
    return full ? send_batch(&batch) : Status();
  };
  for (auto at = node_writes_.begin(); at != node_writes_.end();) {
    const auto& [place, node] = *at;
    if (!goes_ahead(place, node)) {
      ++at;
      continue;
    }
    if (Status status = make_room(kOperationOverhead); !status.ok()) return status;
    add_node_write(batch.add_success(), place, node);
    sent_.insert(hash_of(place));
    at = node_writes_.erase(at);
  }
  for (auto at = value_writes_.begin(); at != value_writes_.end();) {
    auto& [id, record] = *at;
    if (!is_fresh(id)) {
      ++at;
      continue;
    }
    if (Status status = make_room(kOperationOverhead + (record ? record->size() : 0)); !status.ok()) return status;
    if (record) {
      put(batch.add_success(), core_.keys.value(id), std::move(*record));
    } else {
      erase(batch.add_success(), core_.keys.value(id));
    }
    at = value_writes_.erase(at);
  }
  ahead_operations_ = 0;
  ahead_bytes_ = 0;
  return send_batch(&batch);
}

// ---- the end

bool Transaction::has_written() const {
  return !node_writes_.empty() || !value_writes_.empty() || !discarded_.empty() || (build_ && build_->started());
}

bool Transaction::fits(const TxnRequest& request) const {
  return request.success_size() < kMostOperations && request.compare_size() < kMostOperations &&
         request.failure_size() + 1 < kMostOperations && request.ByteSizeLong() <= kMostBytes;
}

// Subtrees that are taken out, to be removed later. What had no subkeys is removed at once.
std::vector<std::string> Transaction::garbage() const {
  std::vector<std::string> keys;
  for (const NodeId id : discarded_) {
    if (!childless_.contains(id) || has_written_child(id)) keys.push_back(core_.keys.garbage(id));
  }
  return keys;
}

std::vector<RequestOp> Transaction::visible_writes() const {
  std::vector<RequestOp> operations;
  for (const auto& [place, node] : node_writes_) add_node_write(&operations.emplace_back(), place, node);
  for (const auto& [id, record] : value_writes_) {
    if (record) {
      put(&operations.emplace_back(), core_.keys.value(id), *record);
    } else {
      erase(&operations.emplace_back(), core_.keys.value(id));
    }
  }
  for (const NodeId id : discarded_) {
    if (childless_.contains(id) && !has_written_child(id)) erase(&operations.emplace_back(), core_.keys.value(id));
  }
  for (std::string& key : garbage()) put(&operations.emplace_back(), std::move(key), "");
  return operations;
}

// The way from the root to each node that others can see and that is written. One whose entry stays what it was but
// for its security can itself be the top of a change; where an entry comes or goes it is the node above.
std::vector<std::vector<NodeId>> Transaction::written_paths() const {
  std::vector<std::vector<NodeId>> paths;
  for (const auto& [place, node] : node_writes_) {
    if (is_fresh(place.parent)) continue;
    const auto read = nodes_.find(place);
    const bool stays =
        node && read != nodes_.end() && read->second.known.node && read->second.known.node->id == node->id;
    paths.push_back(lineage_.path(stays ? node->id : place.parent));
  }
  for (const auto& [id, record] : value_writes_) {
    if (!is_fresh(id)) paths.push_back(lineage_.path(id));
  }
  return paths;
}

// Whether what this run writes may be in the claimed subtree.
bool Transaction::concerns(const Claim& claim) const {
  if (claim_ && claim.token == claim_->token) return false;
  if (lineage_.knows(claim.top)) return true;
  const auto paths = written_paths();
  return std::any_of(paths.begin(), paths.end(), [](const auto& path) { return path.empty(); });
}

// A decision that must be carried out before this run's changes are made. What hangs below a subtree that goes was not
// read, so any decision may be about that.
const Claim* Transaction::decision_in_the_way() const {
  const bool any = !garbage().empty();
  for (const auto& [top, claim] : claims_->claims) {
    if (claim.text.decided && (any || concerns(claim))) return &claim;
  }
  return nullptr;
}

// Everything in one transaction, or the decision that what lies ready is made.
void Transaction::make_last(TxnRequest* request) const {
  add_comparisons(request);
  add_rereading(request);
  if (batches_ == 0) {
    for (RequestOp& operation : visible_writes()) *request->add_success() = std::move(operation);
  }
  for (const auto& [top, claim] : claims_->claims) {
    if (!claim.text.decided && concerns(claim)) erase(request->add_success(), core_.keys.claim(top, claim.token));
  }
  if (claim_) {
    const std::string key = core_.keys.claim(claim_->top, claim_->token);
    if (batches_ == 0) {
      erase(request->add_success(), key);
    } else {
      put(request->add_success(), key, ClaimText{true, 0, 0, batches_}.print());
    }
  }
  if (build_ && build_->started()) build_->finish_in(request);
}

bool Transaction::commit(Status* result) {
  if (surveying_) return run_again_with_claim();
  TxnRequest last;
  make_last(&last);
  Status status;
  if (!fits(last)) {
    status = send_ahead();
    last.Clear();
    make_last(&last);
  }
  if (status.ok() && !fits(last)) {
    if (!claim_ || !is_within_claim()) return run_again_with_claim();
    status = send_plan();
    last.Clear();
    make_last(&last);
  }
  if (!status.ok()) {
    *result = std::move(status);
    return !again_;
  }
  return send_last(std::move(last), result);
}

bool Transaction::is_within_claim() const {
  const auto paths = written_paths();
  return std::all_of(paths.begin(), paths.end(), [this](const auto& path) {
    return claim_->top == kRootNode || std::find(path.begin(), path.end(), claim_->top) != path.end();
  });
}

// A claim that was too small gives way to one of everything.
bool Transaction::run_again_with_claim() {
  const bool was_too_small = claim_ && (surveying_ || !is_within_claim());
  basis_ = Basis();
  basis_.top = was_too_small ? kRootNode : common_top(written_paths());
  long_ = true;
  return false;
}

Status Transaction::send_plan() {
  RedoLog plan;
  for (RequestOp& operation : visible_writes()) plan.add(std::move(operation));
  const std::vector<std::string> batches = plan.take_batches();
  TxnRequest request;
  std::size_t bytes = 0;
  for (std::uint64_t number = 0; number < batches.size(); ++number) {
    const std::string& batch = batches[number];
    if (request.success_size() >= kOperationsPerBatch || bytes + batch.size() > kMostBytes) {
      if (Status status = send_batch(&request); !status.ok()) return status;
      bytes = 0;
    }
    put(request.add_success(), core_.keys.plan(build_->token(), number), batch);
    bytes += batch.size() + kOperationOverhead;
  }
  batches_ = batches.size();
  return send_batch(&request);
}

// A large change takes longer than small ones, which would keep it from being made for ever.
void Transaction::let_claimants_finish() {
  if (claim_) return;
  const Deadline moment(std::min(kLongestCourtesy, deadline().left() / 2));
  for (const auto& [top, claim] : claims_->claims) {
    if (claim.text.decided || claim.text.attempt < kPatientAttempts || !concerns(claim)) continue;
    const RangeRequest look = get_one(core_.keys.claim(top, claim.token));
    RangeResponse found;
    while (moment.left().count() > 0 && core_.kv->range(look, &found, moment).ok() && found.kvs_size() > 0 &&
           !ClaimText::parse(found.kvs(0).value()).decided) {
      std::this_thread::sleep_for(kLookAgain);
    }
  }
}

bool Transaction::send_last(TxnRequest last, Status* result) {
  let_claimants_finish();
  while (true) {
    if (const Claim* decided = decision_in_the_way()) {
      *result = carry_out(*decided);
      return !again_;
    }
    Mark mark = core_.writers.take();
    Written written = write_once(*core_.kv, std::move(last), &mark, core_.writers.next_text(), deadline());
    core_.writers.give_back(std::move(mark));
    if (!written.status.ok() || written.made) {
      *result = std::move(written.status);
      if (result->ok()) remember(written.revision);
      return true;
    }
    if (!may_be_sent_again(written.response)) return false;
    last.Clear();
    make_last(&last);
  }
}

// Takes in why the comparisons did not hold. When it is only that others have laid claims meanwhile, to what this run
// changes or not, what it read still stands.
bool Transaction::may_be_sent_again(const TxnResponse& response) {
  learn(response, nullptr);
  const auto stands = [this](const auto& read) {
    const auto& [place, node] = read;
    return !node.compared || basis_.nodes[place].mod_revision == node.known.mod_revision;
  };
  const bool claim_stands = !claim_ || basis_.claims->find(claim_->top, claim_->token) != nullptr;
  if (claim_stands && std::all_of(nodes_.begin(), nodes_.end(), stands) &&
      basis_.claims->has_newer_than(claims_->revision)) {
    claims_ = basis_.claims;
    return true;
  }
  if (claim_) claim_again();
  return false;
}

void Transaction::remember(std::int64_t revision) {
  for (const auto& [place, node] : node_writes_) {
    if (node && batches_ == 0) {
      core_.cache.put(place, SeenNode{revision, node, {}});
    } else {
      core_.cache.erase(place);
    }
  }
  for (const auto& [top, claim] : claims_->claims) {
    if (!claim.text.decided && concerns(claim)) core_.claims.forget(claim);
  }
  if (batches_ != 0) carry_out_own();
  build_.reset();
  core_.sweeper.remove_garbage(garbage());
}

// The change is made already: what cannot be carried out now is left to whoever comes by.
void Transaction::carry_out_own() {
  const auto time = [this] { return core_.deadline(); };
  if (!carry_out_decision(core_, *claim_, time).ok()) core_.sweeper.look_around();
}

bool Transaction::finish(Status* result) {
  if (before_ && !before_->failure().ok()) {
    if (before_->failure().verdict == Verdict::kCompacted) (void)run_again(true);
    (void)fail(before_->failure().status);
  }
  if (again_) return false;
  if (!failure_.ok()) {
    *result = failure_;
    return true;
  }
  if (purpose_ == Purpose::kWrite && result->ok() && has_written()) return commit(result);
  if (Status status = validate(); !status.ok()) {
    *result = std::move(status);
    return !again_;
  }
  return true;
}

}  // namespace tkv::store::etcd
