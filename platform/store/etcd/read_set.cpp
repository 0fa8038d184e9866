#include "store/etcd/read_set.h"

#include <algorithm>

#include "store/etcd/limits.h"
#include "store/etcd/pager.h"
#include "store/record.h"

namespace tkv::store::etcd {
namespace {

// Replaces a ticket by the revision that it stands for.
Status redeem(Core& core, Run& run, Revision* revision, std::int64_t put_at) {
  const Reply reply = core.tickets.redeem(revision, put_at, run.deadline());
  return reply.ok() ? Status() : run.fail(reply.status);
}

Status carry_out(Core& core, Run& run, const Claim& decided) {
  return run.wait([&] { return core.recovery.finish(decided, run.deadline().left()); });
}

}  // namespace

ReadSet::ReadSet(Core& core, Run& run, const NextRun& start, Purpose purpose)
    : core_(core),
      run_(run),
      start_(start),
      purpose_(purpose),
      use_cache_(start.prefetch.revision == 0 && !start.claim),
      claims_(start.prefetch.claims ? start.prefetch.claims : core.claims.known()),
      revision_(start.prefetch.revision) {}

void ReadSet::set_claim(Claim claim) {
  revision_ = claim.mod_revision;
  unvalidated_ = 0;
  use_cache_ = false;
  view_.reset();
  claim_ = std::move(claim);
}

const SeenNode* ReadSet::find(const NodePlace& place) const {
  const auto found = nodes_.find(place);
  return found == nodes_.end() ? nullptr : &found->second.seen;
}

Status ReadSet::recover(const Claim& decided) {
  Status status = carry_out(core_, run_, decided);
  return status.ok() ? run_.give_way() : run_.fail(std::move(status));
}

// What a node hangs below is known only if it was reached from the root. Of any other, every decision may be about it.
Status ReadSet::recover_above(NodeId id) {
  if (id == kNoNode || lineage_.knows(id) || !claims_->has_decided()) return {};
  Status status = run_.wait([&] { return core_.recovery.finish_all(*claims_, run_.deadline().left()); });
  return status.ok() ? run_.give_way() : run_.fail(std::move(status));
}

bool ReadSet::is_covered(NodeId parent) const {
  return surveying_ || (claim_ && lineage_.is_below(parent, claim_->top));
}

Status ReadSet::survey() {
  if (Status status = validate(); !status.ok()) return status;
  surveying_ = true;
  run_.become_long();
  return {};
}

// Begins to survey when there is no room for one more comparison.
Status ReadSet::make_room() {
  const bool full = purpose_ == Purpose::kWrite && !surveying_ && compared_ >= kMaxCompared;
  return full ? survey() : Status();
}

Status ReadSet::add_node(const NodePlace& place, SeenNode seen, bool validated, const SeenNode** added) {
  if (Status status = claimant_.show_progress(); !status.ok()) return status;
  bool compared = !is_covered(place.parent);
  if (compared) {
    if (Status status = make_room(); !status.ok()) return status;
    compared = !surveying_;
  }
  if (compared) ++compared_;
  if (surveying_) surveyed_.add(place.parent, lineage_);
  if (!validated) ++unvalidated_;
  if (seen.node) {
    if (Status status = redeem(core_, run_, &seen.node->revision, seen.mod_revision); !status.ok()) return status;
    lineage_.add(place.parent, seen.node->id);
    if (const Claim* decided = claims_->decided_on(seen.node->id)) return recover(*decided);
  }
  *added = &nodes_.insert_or_assign(place, ReadNode{std::move(seen), compared}).first->second.seen;
  return {};
}

Status ReadSet::get(const NodePlace& place, const SeenNode** seen) {
  if (const SeenNode* known = find(place)) {
    *seen = known;
    return {};
  }
  if (Status status = recover_above(place.parent); !status.ok()) return status;
  if (is_covered(place.parent)) return get_with_siblings(place, seen);
  if (const auto found = start_.prefetch.nodes.find(place); found != start_.prefetch.nodes.end()) {
    return add_node(place, found->second, true, seen);
  }
  if (use_cache_ && nodes_.size() + values_.size() < kMaxFromCache) {
    if (const auto cached = core_.cache.get(place)) return add_node(place, *cached, false, seen);
  }
  RangeResponse response;
  if (Status status = fetch(get_one(core_.keys.node(place)), &response, &place); !status.ok()) return status;
  SeenNode fetched = seen_node(response, place);
  core_.cache.put(place, fetched);
  return add_node(place, std::move(fetched), true, seen);
}

Status ReadSet::get_probably_free(const NodePlace& place, const SeenNode** seen) {
  const bool is_known = is_covered(place.parent) || nodes_.contains(place) || start_.prefetch.nodes.contains(place) ||
                        (use_cache_ && core_.cache.get(place).has_value());
  return is_known ? get(place, seen) : add_node(place, SeenNode{}, false, seen);
}

// Large changes go from one child to the next, so the children that follow are read as well.
Status ReadSet::get_with_siblings(const NodePlace& place, const SeenNode** seen) {
  RangeResponse response;
  const KeyRange rest{core_.keys.node(place), core_.keys.children(place.parent).end};
  if (Status status = fetch(get_range(rest, kNodesAhead), &response); !status.ok()) return status;
  if (Status status = add_node(place, SeenNode{}, true, seen); !status.ok()) return status;
  for (const KeyValue& record : response.kvs()) {
    const auto found = core_.keys.parse_node(record.key());
    if (!found || (*found != place && nodes_.contains(*found))) continue;
    const SeenNode* added = nullptr;
    if (Status status = add_node(*found, seen_node(record, *found), true, &added); !status.ok()) return status;
    if (*found == place) *seen = added;
  }
  return {};
}

Status ReadSet::get_value(NodeId id, Value* value) {
  if (const auto read = values_.find(id); read != values_.end()) {
    *value = read->second.value;
    return read->second.damage;
  }
  if (Status status = recover_above(id); !status.ok()) return status;
  if (Status status = claimant_.show_progress(); !status.ok()) return status;
  bool compared = !is_covered(id);
  if (compared) {
    if (Status status = make_room(); !status.ok()) return status;
    compared = !surveying_;
  }
  if (surveying_) surveyed_.add(id, lineage_);
  if (!compared) {
    if (Status status = validate(); !status.ok()) return status;
    Status status = view().value(id, value);
    return view_->failure().ok() ? status : take_failure();
  }
  RangeResponse response;
  if (Status status = fetch(get_one(core_.keys.value(id)), &response); !status.ok()) return status;
  ReadValue& read = values_[id];
  read.compared = compared;
  compared_ += compared ? 1 : 0;
  *value = Value{};
  if (response.kvs_size() == 0) return {};
  read.mod_revision = response.kvs(0).mod_revision();
  read.record = std::move(*response.mutable_kvs(0));
  read.damage = decode_found_value(id, read.record, &read.value);
  if (Status status = redeem(core_, run_, &read.value.revision, read.mod_revision); !status.ok()) return status;
  *value = read.value;
  return read.damage;
}

// ---- requests

// Reads a range on the state that everything else was read on.
Status ReadSet::fetch(RangeRequest range, RangeResponse* response, const NodePlace* node) {
  if (Status status = run_.check(); !status.ok()) return status;
  if (revision_ != 0 && unvalidated_ == 0) return fetch_at_revision(std::move(range), response);
  TxnRequest request;
  add_compares(&request);
  *request.add_success()->mutable_request_range() = range;
  add_gets(&request);
  if (node != nullptr) *request.add_failure()->mutable_request_range() = range;
  TxnResponse answer;
  if (Reply reply = core_.kv->txn(request, &answer, run_.deadline()); !reply.ok()) return run_.fail(reply.status);
  if (!answer.succeeded()) {
    prefetch(answer, node);
    return run_.repeat();
  }
  revision_ = answer.header().revision();
  unvalidated_ = 0;
  *response = std::move(*answer.mutable_responses(0)->mutable_response_range());
  return {};
}

Status ReadSet::fetch_at_revision(RangeRequest range, RangeResponse* response) {
  range.set_revision(revision_);
  const Reply reply = core_.kv->range(range, response, run_.deadline());
  if (reply.verdict == Verdict::kCompacted) return run_.repeat_from_scratch();
  return reply.ok() ? Status() : run_.fail(reply.status);
}

Status ReadSet::read_fresh(const RangeRequest& range, RangeResponse* response) {
  if (!run_.failure().ok()) return run_.failure();
  const Reply reply = core_.kv->range(range, response, run_.deadline());
  return reply.ok() ? Status() : run_.fail(reply.status);
}

// ---- comparing

void ReadSet::add_compares(TxnRequest* request) const {
  compare_claims(request, core_.keys, *claims_);
  if (claim_) compare_revision(request, core_.keys.claim(claim_->top, claim_->token), claim_->mod_revision);
  for (const auto& [place, read] : nodes_) {
    if (read.compared) compare_revision(request, core_.keys.node(place), read.seen.mod_revision);
  }
  for (const auto& [id, read] : values_) {
    if (read.compared) compare_revision(request, core_.keys.value(id), read.mod_revision);
  }
  for (const ReadRange& read : ranges_) compare_no_newcomer(request, core_.keys.children(read.parent), read.revision);
}

void ReadSet::add_gets(TxnRequest* request) const {
  *request->add_failure()->mutable_request_range() = get_all(core_.keys.all_claims());
  for (const auto& [place, read] : nodes_) {
    if (read.compared) *request->add_failure()->mutable_request_range() = get_one(core_.keys.node(place));
  }
}

void ReadSet::prefetch(const TxnResponse& response, const NodePlace* also) {
  run_.next.prefetch = {};
  run_.next.claim.reset();
  Prefetch& fetched = run_.next.prefetch;
  fetched.revision = response.header().revision();
  int at = 0;
  fetched.claims = core_.claims.learn(response.responses(at++).response_range(), fetched.revision);
  const auto take = [&](const NodePlace& place) {
    const SeenNode seen = seen_node(response.responses(at++).response_range(), place);
    if (seen.node) {
      core_.cache.put(place, seen);
    } else {
      core_.cache.erase(place);
    }
    fetched.nodes[place] = seen;
  };
  for (const auto& [place, read] : nodes_) {
    if (read.compared) take(place);
  }
  if (also != nullptr) take(*also);
}

std::vector<std::vector<NodeId>> ReadSet::changed() const {
  std::vector<std::vector<NodeId>> paths;
  for (const auto& [place, read] : nodes_) {
    if (!read.compared || run_.next.prefetch.nodes.at(place).mod_revision == read.seen.mod_revision) continue;
    paths.push_back(lineage_.path(place.parent));
  }
  return paths;
}

Status ReadSet::validate(std::int64_t* revision) {
  Status status = unvalidated_ == 0 ? Status() : pin();
  if (revision != nullptr) *revision = revision_;
  return status;
}

// The same, and makes sure that there is a revision.
Status ReadSet::pin() {
  if (revision_ != 0 && unvalidated_ == 0) return {};
  TxnRequest request;
  add_compares(&request);
  add_gets(&request);
  TxnResponse answer;
  if (Reply reply = core_.kv->txn(request, &answer, run_.deadline()); !reply.ok()) return run_.fail(reply.status);
  if (!answer.succeeded()) {
    prefetch(answer);
    return run_.repeat();
  }
  revision_ = answer.header().revision();
  unvalidated_ = 0;
  return {};
}

// ---- listing

// No child may have been added since `revision`.
Status ReadSet::add_range(NodeId parent, std::int64_t revision) {
  bool compared = !is_covered(parent);
  if (compared) {
    if (Status status = make_room(); !status.ok()) return status;
    compared = !surveying_;
  }
  if (surveying_) surveyed_.add(parent, lineage_);
  if (!compared) return {};
  ranges_.push_back({parent, revision});
  ++compared_;
  return {};
}

RevisionView& ReadSet::view() {
  if (!view_) {
    view_ = std::make_unique<RevisionView>(core_, revision_);
    view_revision_ = revision_;
  }
  return *view_;
}

// What a failure of the view means for the run.
Status ReadSet::take_failure() {
  const Reply& failure = view_->failure();
  return failure.verdict == Verdict::kCompacted ? run_.repeat_from_scratch() : run_.fail(failure.status);
}

Status ReadSet::has_child(NodeId parent, std::int64_t most_ignored, FunctionRef<bool(const NodePlace&)> ignored,
                          bool* answer) {
  if (Status status = recover_above(parent); !status.ok()) return status;
  if (Status status = claimant_.show_progress(); !status.ok()) return status;
  if (is_covered(parent) && most_ignored == 0) {
    if (Status status = validate(); !status.ok()) return status;
    if (surveying_) surveyed_.add(parent, lineage_);
    Status status = view().has_children(parent, answer);
    if (!view_->failure().ok()) return take_failure();
    if (!*answer) childless_.insert(parent);
    return status;
  }
  RangeResponse response;
  const RangeRequest request = get_range(core_.keys.children(parent), 1 + most_ignored);
  if (Status status = fetch(request, &response); !status.ok()) return status;
  const auto child = std::find_if(response.kvs().begin(), response.kvs().end(), [&](const KeyValue& record) {
    const auto place = core_.keys.parse_node(record.key());
    return place && !ignored(*place);
  });
  *answer = child != response.kvs().end();
  if (purpose_ == Purpose::kRead) {
    use_cache_ = false;  // the rest is read at this revision, so that the answer holds
    return {};
  }
  if (Status status = add_range(parent, revision_); !status.ok()) return status;
  if (!*answer) {
    childless_.insert(parent);
    return {};
  }
  const NodePlace place = *core_.keys.parse_node(child->key());
  const SeenNode* seen = nullptr;
  return nodes_.contains(place) ? Status() : add_node(place, seen_node(*child, place), true, &seen);
}

Status ReadSet::scan(NodeId parent, VisitNode visit, VisitDamage damaged) {
  if (Status status = recover_above(parent); !status.ok()) return status;
  RangeRequest request = get_range(core_.keys.children(parent), kNodesPerPage);
  const std::size_t before_name = request.key().size();
  Node child;
  RangeResponse page;
  if (Status status = fetch(request, &page); !status.ok()) return status;
  use_cache_ = false;  // the rest is read at this revision
  request.set_revision(revision_);
  Pager pager(*core_.kv, request);
  pager.continue_after(page);
  while (true) {
    for (const KeyValue& record : page.kvs()) {
      const std::string_view name = std::string_view(record.key()).substr(before_name);
      if (const Status damage = decode_found_node(parent, name, record, &child); !damage.ok()) {
        if (Status status = damaged(name, damage); !status.ok()) return status;
        continue;
      }
      if (Status status = redeem(core_, run_, &child.revision, record.mod_revision()); !status.ok()) return status;
      if (const Claim* decided = claims_->decided_on(child.id)) {
        const Status damage = carry_out(core_, run_, *decided);
        if (damage.ok()) return run_.give_way();
        if (!damage.is(PRTKV_STORAGE_FAILED)) return run_.fail(damage);
        if (Status status = damaged(name, damage); !status.ok()) return status;
        continue;
      }
      if (claims_->has_decided()) lineage_.add(parent, child.id);  // nobody asks for it otherwise
      if (Status status = visit(name, child); !status.ok()) return status;
    }
    if (!pager.more()) return {};
    run_.become_long();
    const Reply reply = pager.next(&page);
    if (reply.verdict == Verdict::kCompacted) return run_.repeat_from_scratch();
    if (!reply.ok()) return run_.fail(reply.status);
  }
}

// Compares each child, and that there are no others. If that is too much, claims what has been listed so far.
Status ReadSet::list(NodeId parent, ListedNodes* children) {
  if (Status status = recover_above(parent); !status.ok()) return status;
  if (Status status = run_.check(); !status.ok()) return status;
  bool overflow = false;
  Status status = list_at_revision(parent, children, &overflow);
  return overflow ? list_under_claim(parent, children) : status;
}

// Whether a claim can be laid in the middle of this run.
bool ReadSet::can_claim() const { return claimant_.lay_claim && !claim_ && !surveying_; }

Status ReadSet::list_at_revision(NodeId parent, ListedNodes* children, bool* overflow) {
  if (Status status = pin(); !status.ok()) return status;
  RevisionView& at_revision = view();
  *overflow = compared_ >= kMaxCompared && !is_covered(parent) && can_claim();
  if (*overflow) return {};
  if (Status status = add_range(parent, view_revision_); !status.ok()) return status;
  Status status = at_revision.list(parent, [&](const Child& child) -> Status {
    *overflow = compared_ >= kMaxCompared && !is_covered(parent) && can_claim();
    return *overflow ? Status(PRTKV_BUSY) : add_child({parent, child.name}, child.seen, children);
  });
  return at_revision.failure().ok() ? status : take_failure();
}

// The subtree that the run seems to be about is what it has listed.
Status ReadSet::list_under_claim(NodeId parent, ListedNodes* children) {
  std::vector<std::vector<NodeId>> paths{lineage_.path(parent)};
  for (const ReadRange& read : ranges_) paths.push_back(lineage_.path(read.parent));
  if (Status status = claimant_.lay_claim(common_top(paths)); !status.ok()) return status;
  children->clear();
  bool overflow = false;
  return list_at_revision(parent, children, &overflow);
}

Status ReadSet::add_child(const NodePlace& place, SeenNode seen, ListedNodes* children) {
  const SeenNode* known = find(place);
  if (known == nullptr) {
    if (Status status = add_node(place, std::move(seen), true, &known); !status.ok()) return status;
  }
  if (known->node || !known->damage.ok()) children->push_back({place.name, known->node, known->damage});
  return {};
}

}  // namespace tkv::store::etcd
