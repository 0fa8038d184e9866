#include "store/etcd/staging.h"

#include <algorithm>
#include <utility>

#include "store/etcd/limits.h"

namespace tkv::store::etcd {
namespace {

constexpr std::chrono::milliseconds kProgressInterval{200};

}  // namespace

Staging::~Staging() {
  if (started()) core_.sweeper.give_up_build(build_->key());
}

Build& Staging::build() {
  if (!build_) build_.emplace(*core_.kv, core_.keys);
  return *build_;
}

const std::string& Staging::token() { return build().token(); }

void Staging::finish_in(TxnRequest* commit) const {
  if (started()) build_->finish_in(commit);
}

Status Staging::new_id(NodeId* id) {
  if (reserved_.first > reserved_.last) {
    if (Status status = reserve(); !status.ok()) return run_.fail(std::move(status));
  }
  *id = reserved_.first++;
  writes_.add_fresh(*id);
  return {};
}

Status Staging::reserve() {
  if (!started()) {
    NodeId id = kNoNode;
    Status status = core_.ids.take(&id, run_.deadline());
    if (status.ok()) reserved_ = {id, id};
    return status;
  }
  Status status = core_.ids.take_block(block_size_, &reserved_, run_.deadline());
  if (status.ok()) block_size_ = std::min(block_size_ * 2, kLargestBlock);
  return status;
}

Status Staging::make_room(std::size_t bytes) { return writes_.has_room(bytes) ? Status() : send(); }

Status Staging::send() {
  if (Status status = run_.check(); !status.ok()) return status;
  run_.become_long();
  (void)build();
  for (TxnRequest& batch : writes_.take_staged()) {
    if (Status status = send(std::move(batch)); !status.ok()) return status;
  }
  return {};
}

Written Staging::try_send(TxnRequest batch) {
  Written written = build().send(std::move(batch), writes_.fresh());
  last_sent_ = std::chrono::steady_clock::now();
  return written;
}

Status Staging::send(TxnRequest batch) {
  Written written = try_send(std::move(batch));
  if (!written.status.ok()) return run_.fail(std::move(written.status));
  return written.made ? Status() : run_.repeat_from_scratch();
}

Status Staging::show_progress(const Claim& claim) {
  if (std::chrono::steady_clock::now() - last_sent_ < kProgressInterval) return {};
  TxnRequest batch;
  compare_revision(&batch, core_.keys.claim(claim.top, claim.token), claim.mod_revision);
  return send(std::move(batch));
}

Status Staging::send_log(std::vector<std::string> batches) {
  TxnRequest request;
  std::size_t bytes = 0;
  for (std::uint64_t number = 0; number < batches.size(); ++number) {
    std::string& batch = batches[number];
    const std::size_t size = batch.size() + kOperationOverhead;
    if (request.success_size() >= kBatchOperations || bytes + size > kMaxTxnBytes) {
      if (Status status = send(std::exchange(request, {})); !status.ok()) return status;
      bytes = 0;
    }
    put(request.add_success(), core_.keys.plan(build().token(), number), std::move(batch));
    bytes += size;
  }
  return request.success_size() == 0 ? Status() : send(std::move(request));
}

}  // namespace tkv::store::etcd
