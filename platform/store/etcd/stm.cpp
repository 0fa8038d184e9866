#include "store/etcd/stm.h"

#include <utility>

#include "store/etcd/claim_watch.h"
#include "store/etcd/limits.h"
#include "store/etcd/pager.h"
#include "store/record.h"
#include "store/store_limits.h"

namespace tkv::store::etcd {

Stm::Stm(Core& core, Purpose purpose, NextRun start, Deadline deadline)
    : core_(core),
      purpose_(purpose),
      start_(std::move(start)),
      run_(deadline, core.kv->timeout()),
      reads_(core, run_, start_, purpose),
      writes_(core.keys),
      staging_(core, run_, writes_),
      before_(*this) {}

// ---- the run

Status Stm::start() {
  run_.next.turns = start_.turns;
  reads_.set_claimant({[this](NodeId top) {
                         return lay_claim({top, reads_.revision(), 1, {}});
                       },
                       [this] { return reads_.claim() ? staging_.show_progress(*reads_.claim()) : Status(); }});
  if (start_.claim) {
    if (Status status = lay_claim(*start_.claim); !status.ok()) return status;
  }
  const Claim* decided = reads_.claims().decided_on(kRootNode);
  return decided == nullptr ? Status() : reads_.recover(*decided);
}

bool Stm::is_in_the_way(const Claim& claim, const ClaimOrder& order) const {
  if (claim.text.decided || (order.former && claim.token == order.former->token)) return false;
  return reads_.lineage().is_below(order.top, claim.top) || reads_.lineage().is_below(claim.top, order.top);
}

// Waits for the claims of changes that began before this one (see claims.h).
void Stm::wait_for_turn(const ClaimOrder& order) {
  for (const auto& [top, claim] : reads_.claims().claims) {
    if (!is_in_the_way(claim, order) || claim.began() > order.began) continue;
    if (!run_.next.turns.awaited.insert(claim.token).second) continue;
    run_.wait([&, &other = claim] {
      return wait_for_claim(*core_.kv, core_.keys, other, ClaimStage::kDecided, patience_with(other));
    });
  }
}

// Puts the claim in place of the run's former one and of those that have been waited for in vain, or began later.
TxnRequest Stm::batch_of(const Claim& claim, const ClaimOrder& order) const {
  TxnRequest batch;
  reads_.add_compares(&batch);
  reads_.add_gets(&batch);
  put(batch.add_success(), core_.keys.claim(claim.top, claim.token), claim.text.print());
  if (order.former) erase(batch.add_success(), core_.keys.claim(order.former->top, order.former->token));
  for (const auto& [top, other] : reads_.claims().claims) {
    const bool has_room = batch.success_size() < kBatchRemovals;
    if (has_room && is_in_the_way(other, order)) erase(batch.add_success(), core_.keys.claim(top, other.token));
  }
  return batch;
}

// For a change that has read nothing yet.
Status Stm::begin_now(ClaimOrder* order) {
  RangeResponse claims;
  if (Status status = reads_.read_fresh(get_all(core_.keys.all_claims()), &claims); !status.ok()) return status;
  order->began = claims.header().revision();
  reads_.set_claims(core_.claims.learn(claims, order->began));
  return {};
}

Status Stm::lay_claim(ClaimOrder order) {
  run_.become_long();
  if (order.began == 0) {
    if (Status status = begin_now(&order); !status.ok()) return status;
  }
  Claim claim{order.top, {}, 0, {}};
  if (Status status = staging_.token_since(order.began, &claim.token); !status.ok()) return status;
  claim.text.attempt = order.attempt;
  while (true) {
    wait_for_turn(order);
    const Written written = staging_.try_send(batch_of(claim, order));
    if (!written.status.ok()) return run_.fail(written.status);
    if (written.made) {
      claim.mod_revision = written.revision;
      reads_.set_claim(std::move(claim));
      return {};
    }
    if (!written.lost && staging_.goes_on() && others_laid_claims(written.response)) continue;
    Status status = written.lost ? staging_.lost() : run_.give_way();
    run_.next.claim = order;
    return status;
  }
}

// Whether that is the only reason why a claim could not be laid, so that it can be after their turns.
bool Stm::others_laid_claims(const TxnResponse& response) {
  if (response.responses_size() == 0) return false;
  reads_.prefetch(response);
  const KnownClaims& claims = run_.next.prefetch.claims;
  const bool newer = claims->has_newer_than(reads_.claims().revision);
  if (!newer || claims->has_decided() || !reads_.changed().empty()) return false;
  reads_.set_claims(claims);
  return true;
}

bool Stm::finish(Status* result) {
  if (run_.repeats()) return false;
  if (!run_.failure().ok()) {
    *result = run_.failure();
    return true;
  }
  Status status = end(result->ok());
  if (run_.repeats()) return false;
  if (!status.ok()) *result = std::move(status);
  return true;
}

Status Stm::end(bool succeeded) {
  const bool has_written = !writes_.is_empty() || staging_.started();
  if (purpose_ == Purpose::kRead || !succeeded || !has_written) {
    std::int64_t read_at = 0;
    Status status = reads_.validate(&read_at);
    if (status.ok()) status = staging_.validate();
    return status.ok() ? validate_revision(read_at) : status;
  }
  Commit commit(core_, run_, reads_, writes_, staging_, ChangeLog::encode(description_));
  Status status = commit.make();
  committed_ = commit.revision();
  return status;
}

// The log is not compared, since every change writes it: it is read again at the revision of everything else.
Status Stm::validate_revision(std::int64_t read_at) {
  if (!revision_ || purpose_ == Purpose::kWrite || read_at == 0 || run_.repeats()) return {};
  Revision found = 0;
  const Reply reply = core_.log.revision(read_at, &found);
  if (reply.verdict == Verdict::kCompacted) return run_.repeat_from_scratch();
  if (!reply.ok()) return run_.fail(reply.status);
  return found == *revision_ ? Status() : run_.repeat_from_scratch();
}

// A run that held a claim is followed by one that lays the same claim again, and reads the state at which it does.
NextRun Stm::take_next() {
  if (reads_.claim() && !run_.next.claim) {
    run_.next.prefetch = {};
    const Claim& own = *reads_.claim();
    run_.next.claim = ClaimOrder{own.top, own.began(), own.text.attempt + 1, own};
  }
  return std::move(run_.next);
}

// ---- reading

// What this run itself has made of a place, in memory or staged.
Status Stm::find_written(const NodePlace& place, bool* written, std::optional<Node>* node) {
  *written = true;
  if (const std::optional<Node>* found = writes_.find_node(place)) {
    *node = *found;
    return {};
  }
  node->reset();
  if (writes_.is_discarded(place.parent)) return {};
  *written = writes_.is_fresh(place.parent);
  if (!*written || !writes_.is_staged(place)) return {};
  RangeResponse response;
  if (Status status = reads_.read_fresh(get_one(core_.keys.node(place)), &response); !status.ok()) return status;
  const SeenNode seen = seen_node(response, place);
  *node = seen.node;
  if (*node) (*node)->revision = 0;  // not known before the commit
  return seen.damage;
}

Status Stm::find(NodeId parent, std::string_view name, Node* node) {
  const NodePlace place{parent, std::string(name)};
  bool written = false;
  std::optional<Node> own;
  if (Status status = find_written(place, &written, &own); !status.ok()) return status;
  if (written) {
    if (!own) return PRTKV_NO_SUCH_KEY;
    *node = *own;
    return {};
  }
  return before_.find(parent, name, node);
}

Status Stm::value(NodeId id, Value* value) {
  *value = Value{};
  if (const std::optional<std::string>* written = writes_.find_value(id)) {
    return *written ? decode_value(id, as_bytes(**written), value) : Status();
  }
  if (writes_.is_discarded(id)) return {};
  return writes_.is_fresh(id) ? value_of_fresh(id, value) : reads_.get_value(id, value);
}

Status Stm::value_of_fresh(NodeId id, Value* value) {
  if (!staging_.started()) return {};
  RangeResponse response;
  if (Status status = reads_.read_fresh(get_one(core_.keys.value(id)), &response); !status.ok()) return status;
  if (response.kvs_size() == 0) return {};
  fresh_value_ = std::move(*response.mutable_kvs(0)->mutable_value());
  Status status = decode_value(id, as_bytes(fresh_value_), value);
  value->revision = 0;
  return status;
}

Status Stm::has_children(NodeId parent, bool* answer) {
  *answer = writes_.has_child(parent);
  if (*answer || writes_.is_discarded(parent)) return {};
  const std::int64_t removed = writes_.removed_below(parent);
  const auto is_written = [this](const NodePlace& place) { return writes_.find_node(place) != nullptr; };
  if (!writes_.is_fresh(parent)) return reads_.has_child(parent, removed, is_written, answer);
  if (!staging_.started()) return {};
  RangeResponse response;
  const RangeRequest request = get_range(core_.keys.children(parent), 1 + removed);
  if (Status status = reads_.read_fresh(request, &response); !status.ok()) return status;
  for (const KeyValue& record : response.kvs()) {
    const auto place = core_.keys.parse_node(record.key());
    *answer = *answer || (place && !is_written(*place));
  }
  return {};
}

Status Stm::revision(Revision* revision) {
  if (!revision_) {
    Revision found = 0;
    if (Reply reply = core_.log.revision(0, &found); !reply.ok()) return run_.fail(reply.status);
    revision_ = found;
  }
  *revision = *revision_;
  return {};
}

Status Stm::children(NodeId parent, VisitNode visit) { return children_with_damage(parent, visit, kEndAtDamage); }

Status Stm::children_with_damage(NodeId parent, VisitNode visit, VisitDamage damaged) {
  if (purpose_ == Purpose::kRead) return reads_.scan(parent, visit, damaged);
  if (writes_.is_discarded(parent)) return {};
  ListedNodes children;
  Status status = writes_.is_fresh(parent) ? list_fresh(parent, &children) : reads_.list(parent, &children);
  return status.ok() ? visit_merged(parent, children, visit, damaged) : status;
}

Status Stm::list_fresh(NodeId parent, ListedNodes* children) {
  if (!staging_.started()) return {};
  Pager pager(*core_.kv, get_range(core_.keys.children(parent), kNodesPerPage));
  while (pager.more()) {
    RangeResponse page;
    if (Reply reply = pager.next(&page); !reply.ok()) return run_.fail(reply.status);
    for (const KeyValue& record : page.kvs()) {
      const auto place = core_.keys.parse_node(record.key());
      if (!place) continue;
      SeenNode seen = seen_node(record, *place);
      if (seen.node) seen.node->revision = 0;
      children->push_back({place->name, seen.node, seen.damage});
    }
  }
  return {};
}

// Visits what was listed, with what this run has written since. The visit may write more.
Status Stm::visit_merged(NodeId parent, const ListedNodes& children, VisitNode visit, VisitDamage damaged) {
  auto listed = children.begin();
  auto written = writes_.nodes().lower_bound(NodePlace{parent, ""});
  while (true) {
    const bool own = written != writes_.nodes().end() && written->first.parent == parent;
    if (!own && listed == children.end()) return {};
    if (own && (listed == children.end() || written->first.name <= listed->name)) {
      const NodePlace place = written->first;
      const std::optional<Node> node = written->second;
      if (listed != children.end() && listed->name == place.name) ++listed;
      if (node) {
        if (Status status = visit(place.name, *node); !status.ok()) return status;
      }
      written = writes_.nodes().upper_bound(place);
      continue;
    }
    const auto& [name, node, damage] = *listed;
    if (Status status = node ? visit(name, *node) : damaged(name, damage); !status.ok()) return status;
    written = writes_.nodes().upper_bound(NodePlace{parent, name});
    ++listed;
  }
}

// ---- writing

Status Stm::insert(NodeId parent, std::string_view name, const Node& node) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  if (node.id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a node needs an id"};
  NodePlace place{parent, std::string(name)};
  bool written = false;
  std::optional<Node> own;
  if (Status status = find_written(place, &written, &own); !status.ok()) return status;
  if (own) return PRTKV_KEY_EXISTS;
  if (!written) {
    const SeenNode* seen = nullptr;
    if (Status status = reads_.get_probably_free(place, &seen); !status.ok()) return status;
    if (seen->node || !seen->damage.ok()) return PRTKV_KEY_EXISTS;
  }
  if (writes_.can_be_staged(place, node)) {
    if (Status status = staging_.make_room(kOperationOverhead); !status.ok()) return status;
  }
  writes_.put_node(std::move(place), node);
  return {};
}

Status Stm::set_security(NodeId parent, std::string_view name, const sec_attr& security) {
  Node node;
  if (Status status = find(parent, name, &node); !status.ok()) return status;
  node.security = security;
  writes_.put_node({parent, std::string(name)}, node);
  return {};
}

// A damaged entry can be removed as well: what hangs below it is then found by a check.
Status Stm::unlink(NodeId parent, std::string_view name) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  NodePlace place{parent, std::string(name)};
  bool written = false;
  std::optional<Node> own;
  const Status damage = find_written(place, &written, &own);
  if (!run_.failure().ok()) return run_.failure();
  if (written && !own && damage.ok()) return PRTKV_NO_SUCH_KEY;
  if (!written) {
    const SeenNode* seen = nullptr;
    if (Status status = reads_.get(place, &seen); !status.ok()) return status;
    if (seen->mod_revision == 0) return PRTKV_NO_SUCH_KEY;
  }
  const SeenNode* read = reads_.find(place);
  const bool was_there = writes_.is_staged(place) || (read != nullptr && read->mod_revision != 0);
  if (was_there) {
    writes_.put_node(std::move(place), {});
  } else {
    writes_.forget_node(place);
  }
  return {};
}

Status Stm::discard(NodeId id) {
  if (id == kNoNode || id == kRootNode) return {PRTKV_INVALID_ARGUMENT, "the root cannot be moved or removed"};
  writes_.discard(id);
  return {};
}

Status Stm::remove_damaged(NodeId parent, std::string_view name) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  Node node;
  const Status found = find(parent, name, &node);
  if (!run_.failure().ok()) return run_.failure();
  if (found.ok()) return PRTKV_KEY_EXISTS;
  return found.is(PRTKV_STORAGE_FAILED) ? unlink(parent, name) : found;
}

Status Stm::set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) {
  if (id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a value needs a node"};
  if (Status status = check_value_size(bytes.size()); !status.ok()) return status;
  if (writes_.is_discarded(id)) return {};
  if (type == 0 && bytes.empty()) {
    if (writes_.is_fresh(id)) {
      writes_.put_value(id, {});
      return {};
    }
    // A record without a value stays, which tells when the value was removed.
    Value former;
    const Status found = value(id, &former);
    if (!run_.failure().ok()) return run_.failure();
    if (found.ok() && former.type == 0 && former.bytes.empty()) return {};
  }
  std::string record(value_record_size(bytes.size()), '\0');
  encode_value(id, {type, bytes}, std::as_writable_bytes(std::span(record)));
  if (writes_.is_fresh(id)) {
    if (Status status = staging_.make_room(record.size() + kOperationOverhead); !status.ok()) return status;
  }
  writes_.put_value(id, std::move(record));
  return {};
}

// ---- before

Status Stm::Before::find(NodeId parent, std::string_view name, Node* node) {
  const SeenNode* seen = nullptr;
  if (Status status = reads_.get({parent, std::string(name)}, &seen); !status.ok()) return status;
  if (!seen->damage.ok()) return seen->damage;
  if (!seen->node) return PRTKV_NO_SUCH_KEY;
  *node = *seen->node;
  return {};
}

Status Stm::Before::children_with_damage(NodeId parent, VisitNode visit, VisitDamage damaged) {
  ListedNodes children;
  if (Status status = reads_.list(parent, &children); !status.ok()) return status;
  for (const auto& [name, node, damage] : children) {
    if (Status status = node ? visit(name, *node) : damaged(name, damage); !status.ok()) return status;
  }
  return {};
}

Status Stm::Before::has_children(NodeId parent, bool* answer) {
  return reads_.has_child(
      parent, 0, [](const NodePlace&) { return false; }, answer);
}

}  // namespace tkv::store::etcd
