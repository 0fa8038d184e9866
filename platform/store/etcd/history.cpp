#include "store/etcd/history.h"

#include <algorithm>
#include <utility>

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

void History::hold_ids(std::string key, std::int64_t claimed_at) {
  const std::lock_guard lock(mutex_);
  held_.ids = std::move(key);
  held_.claimed_at = std::max(held_.claimed_at, claimed_at);
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
  if (ended_) return end();
  const std::int64_t known = newest_;
  const Held fence = held();
  if ((fence.mark.empty() && fence.ids.empty()) || !writes(request)) {
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
  reply = check(std::move(reply), known, response->header().revision());
  if (!reply.ok() || response->succeeded()) return reply;
  const Reply verdict = take_fence(fence, response);
  return verdict.ok() ? reply : verdict;
}

// Takes what was added to the failure branch out of the answer, and judges it.
Reply History::take_fence(const Held& fence, TxnResponse* response) {
  auto* responses = response->mutable_responses();
  bool holds = true;
  if (!fence.ids.empty()) {
    const RangeResponse& ids = responses->rbegin()->response_range();
    holds = ids.kvs_size() > 0 && ids.kvs(0).mod_revision() >= fence.claimed_at;
    responses->RemoveLast();
  }
  if (!fence.mark.empty()) {
    const RangeResponse& mark = responses->rbegin()->response_range();
    holds = holds && mark.kvs_size() > 0 && mark.kvs(0).value() == fence.value;
    responses->RemoveLast();
  }
  return holds ? Reply() : end();
}

}  // namespace tkv::store::etcd
