#include "store/etcd/staging.h"

#include <algorithm>
#include <utility>

#include "store/etcd/limits.h"
#include "store/etcd/token.h"

namespace tkv::store::etcd {
namespace {

constexpr std::chrono::milliseconds kProgressInterval{200};

}  // namespace

Staging::~Staging() {
  if (started()) core_.sweeper.give_up_build(build_->key());
}

Status Staging::owner(Owner* owner) {
  if (!owner_) {
    Owner found;
    if (Status status = core_.session.owner(&found, run_.deadline()); !status.ok()) return status;
    owner_ = std::move(found);
  }
  *owner = *owner_;
  return {};
}

Status Staging::lost() {
  if (owner_) core_.session.lost(*owner_);
  return run_.repeat_from_scratch();
}

Status Staging::begin(std::optional<std::int64_t> began) {
  if (build_) return {};
  Owner found;
  if (Status status = owner(&found); !status.ok()) return run_.fail(std::move(status));
  build_.emplace(*core_.kv, core_.keys, core_.writers, found, began ? claim_token(*began) : random_token());
  return {};
}

Status Staging::token_since(std::int64_t began, std::string* token) {
  Status status = begin(began);
  if (status.ok()) *token = build_->token();
  return status;
}

Status Staging::ticket(Revision* ticket) {
  Status status = begin();
  if (!status.ok()) return status;
  *ticket = ticket_ = ticket_of(build_->token());
  return status;
}

void Staging::finish_in(TxnRequest* commit) const {
  if (!started()) return;
  build_->finish_in(commit);
  if (ticket_ != 0) put(commit->add_success(), core_.keys.ticket(ticket_), "");
}

Status Staging::new_id(NodeId* id) {
  if (reserved_.first > reserved_.last) {
    if (Status status = reserve(); !status.ok()) return status;
  }
  *id = reserved_.first++;
  writes_.add_fresh(*id);
  return {};
}

Status Staging::reserve() {
  Owner found;
  if (Status status = owner(&found); !status.ok()) return run_.fail(std::move(status));
  bool lost_session = false;
  Status status;
  if (!started()) {
    NodeId id = kNoNode;
    status = core_.ids.take(found, &id, &lost_session, run_.deadline());
    if (status.ok()) reserved_ = {id, id};
  } else {
    status = core_.ids.take_block(found, block_size_, &reserved_, &lost_session, run_.deadline());
    if (status.ok()) block_size_ = std::min(block_size_ * 2, kLargestBlock);
  }
  if (!status.ok()) return run_.fail(std::move(status));
  return lost_session ? lost() : Status();
}

Status Staging::make_room(std::size_t bytes) { return writes_.has_room(bytes) ? Status() : send(); }

Status Staging::send() {
  if (Status status = run_.check(); !status.ok()) return status;
  run_.become_long();
  Revision ticket = 0;
  if (Status status = this->ticket(&ticket); !status.ok()) return status;
  for (TxnRequest& batch : writes_.take_staged(ticket)) {
    if (Status status = send(std::move(batch)); !status.ok()) return status;
  }
  return {};
}

Written Staging::try_send(TxnRequest batch) {
  Written written;
  written.status = begin();
  if (!written.status.ok()) return written;
  written = build_->send(std::move(batch), writes_.fresh());
  if (written.went_back) written.status = core_.kv->end().status;
  last_sent_ = std::chrono::steady_clock::now();
  return written;
}

Status Staging::send(TxnRequest batch) {
  Written written = try_send(std::move(batch));
  if (!written.status.ok()) return run_.fail(std::move(written.status));
  if (written.lost) return lost();
  return written.made ? Status() : run_.repeat_from_scratch();
}

Status Staging::validate() {
  if (!started()) return {};
  TxnRequest request;
  build_->compare_in(&request);
  *request.add_failure()->mutable_request_range() = get_one(core_.keys.session(owner_->token));
  TxnResponse response;
  if (Reply reply = core_.kv->txn(request, &response, run_.deadline()); !reply.ok()) return run_.fail(reply.status);
  if (response.succeeded()) return {};
  return is_alive(response.responses(0).response_range(), *owner_) ? run_.repeat_from_scratch() : lost();
}

Status Staging::show_progress(const Claim& claim) {
  if (std::chrono::steady_clock::now() - last_sent_ < kProgressInterval) return {};
  TxnRequest batch;
  compare_revision(&batch, core_.keys.claim(claim.top, claim.token), claim.mod_revision);
  Written written = try_send(std::move(batch));
  if (!written.status.ok()) return run_.fail(std::move(written.status));
  if (written.lost) return lost();
  return written.made ? Status() : run_.give_way();
}

Status Staging::send_log(std::vector<std::string> batches) {
  if (Status status = begin(); !status.ok()) return status;
  TxnRequest request;
  std::size_t bytes = 0;
  for (std::uint64_t number = 0; number < batches.size(); ++number) {
    std::string& batch = batches[number];
    const std::size_t size = batch.size() + kOperationOverhead;
    if (request.success_size() >= kBatchOperations || bytes + size > kMaxTxnBytes) {
      if (Status status = send(std::exchange(request, {})); !status.ok()) return status;
      bytes = 0;
    }
    put(request.add_success(), core_.keys.plan(build_->token(), number), std::move(batch));
    bytes += size;
  }
  return request.success_size() == 0 ? Status() : send(std::move(request));
}

}  // namespace tkv::store::etcd
