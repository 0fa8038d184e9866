#include "store/etcd/history.h"

#include <algorithm>
#include <utility>

#include "store/etcd/registry_mark.h"

namespace tkv::store::etcd {
namespace {

bool writes(const TxnRequest& request) {
  return std::any_of(request.success().begin(), request.success().end(),
                     [](const RequestOp& operation) { return !operation.has_request_range(); });
}

}  // namespace

void History::hold_mark(std::string key, std::string value) {
  const std::lock_guard lock(mutex_);
  held_.mark = std::move(key);
  held_.value = std::move(value);
}

void History::hold_ids(std::string key, std::int64_t claimed_at, std::string session) {
  const std::lock_guard lock(mutex_);
  const bool same = held_.ids == key;
  held_.ids = std::move(key);
  held_.session = std::move(session);
  held_.claimed_at = same ? std::max(held_.claimed_at, claimed_at) : claimed_at;
}

History::Held History::held() const {
  const std::lock_guard lock(mutex_);
  return held_;
}

Reply History::end() {
  ended_ = true;
  return {Verdict::kFinal, Status(PRTKV_UNUSABLE,
                                  "this is another history of this cluster than the session began in: a snapshot has "
                                  "been restored. Open the registry again")};
}

Reply History::check(Reply reply, std::int64_t known, std::int64_t revision) {
  if (!reply.ok()) return reply;
  if (revision < known) return end();
  std::int64_t newest = newest_;
  while (newest < revision && !newest_.compare_exchange_weak(newest, revision)) {
  }
  return reply;
}

Reply History::range(const RangeRequest& request, RangeResponse* response, Deadline deadline) {
  if (ended_) return end();
  const std::int64_t known = newest_;
  Reply reply = kv_->range(request, response, deadline);
  return check(std::move(reply), known, response->header().revision());
}

Reply History::txn(const TxnRequest& request, TxnResponse* response, Deadline deadline, std::size_t expected) {
  while (true) {
    const Held fence = held();
    Reply reply = send(request, fence, response, deadline, expected);
    if (!reply.ok() || response->succeeded() || !fence.holds() || !writes(request)) return reply;
    bool ids_gone = false;
    if (Reply verdict = take_fence(fence, response, &ids_gone); !verdict.ok()) return verdict;
    if (!ids_gone) return reply;
    if (Reply released = release_ids(fence, deadline); !released.ok()) return released;
  }
}

Reply History::send(const TxnRequest& request, const Held& fence, TxnResponse* response, Deadline deadline,
                    std::size_t expected) {
  if (ended_) return end();
  const std::int64_t known = newest_;
  if (!fence.holds() || !writes(request)) {
    Reply reply = kv_->txn(request, response, deadline, expected);
    return check(std::move(reply), known, response->header().revision());
  }
  TxnRequest fenced = request;
  if (!fence.mark.empty()) {
    compare_value(&fenced, fence.mark, fence.value);
    *fenced.add_failure()->mutable_request_range() = get_one(fence.mark);
  }
  if (!fence.ids.empty()) {
    compare_not_removed(&fenced, fence.ids, fence.claimed_at);
    *fenced.add_failure()->mutable_request_range() = get_one(fence.ids);
  }
  Reply reply = kv_->txn(fenced, response, deadline, expected);
  return check(std::move(reply), known, response->header().revision());
}

// Takes what was added to the failure branch out of the answer, and judges it.
Reply History::take_fence(const Held& fence, TxnResponse* response, bool* ids_gone) {
  auto* responses = response->mutable_responses();
  bool holds = true;
  bool is_damaged = false;
  if (!fence.ids.empty()) {
    const RangeResponse& ids = responses->rbegin()->response_range();
    *ids_gone = ids.kvs_size() == 0;
    holds = *ids_gone || ids.kvs(0).mod_revision() >= fence.claimed_at;
    responses->RemoveLast();
  }
  if (!fence.mark.empty()) {
    const RangeResponse& mark = responses->rbegin()->response_range();
    is_damaged = mark.kvs_size() > 0 && !RegistryMark::parse(mark.kvs(0).value());
    holds = holds && mark.kvs_size() > 0 && (is_damaged || mark.kvs(0).value() == fence.value);
    responses->RemoveLast();
  }
  if (!holds) return end();
  return is_damaged ? Reply{Verdict::kFinal, damaged_mark(fence.mark)} : Reply();
}

// The key of the claims is gone. If the cluster remembers the claim, the key went with its session, whose lease ran
// out. If its history at that revision does not have the claim, a snapshot has been restored. If that part of the
// history has been compacted, the session tells: while it goes on, only another history can lack the key. No id of a
// session that has ended is used any more.
Reply History::release_ids(const Held& fence, Deadline deadline) {
  RangeRequest request = get_one(fence.ids);
  request.set_revision(fence.claimed_at);
  RangeResponse found;
  Reply reply = range(request, &found, deadline);
  const bool compacted = reply.verdict == Verdict::kCompacted;
  if (compacted) reply = range(get_one(fence.session), &found, deadline);
  if (!reply.ok()) return reply;
  if (compacted == (found.kvs_size() > 0)) return end();
  const std::lock_guard lock(mutex_);
  if (held_.ids == fence.ids) held_.ids.clear();
  return {};
}

Reply History::watch(const std::string& key, std::int64_t start, const std::stop_token& stop, WatchAnswer* answer,
                     Deadline deadline) {
  return ended_ ? end() : kv_->watch(key, start, stop, answer, deadline);
}

Reply History::grant_lease(std::int64_t ttl, Lease* lease, Deadline deadline) {
  return ended_ ? end() : kv_->grant_lease(ttl, lease, deadline);
}

Reply History::keep_lease_alive(Lease* lease, Deadline deadline) {
  return ended_ ? end() : kv_->keep_lease_alive(lease, deadline);
}

Reply History::revoke_lease(std::int64_t id, Deadline deadline) { return kv_->revoke_lease(id, deadline); }

Reply History::ask_members(ClusterAnswer* answer, Deadline deadline) {
  return ended_ ? end() : kv_->ask_members(answer, deadline);
}

}  // namespace tkv::store::etcd
