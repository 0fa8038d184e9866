#include "store/etcd/recovery.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

#include "store/etcd/redo_log.h"

namespace tkv::store::etcd {
namespace {

constexpr std::chrono::milliseconds kPollInterval{20};

// This session's part in carrying out one decision.
class Redo {
 public:
  Redo(Kv& kv, const Keys& keys, const Claim& claim, FunctionRef<Deadline()> deadline)
      : kv_(kv), keys_(keys), claim_(claim), key_(keys.claim(claim.top, claim.token)), deadline_(deadline) {}

  Status run();

 private:
  Status locate(bool* over);
  Status read_claim(bool* over);
  Status take_batch(const RangeResponse& found);
  Status step(bool* over);
  Status make_batch(bool* made);
  Status finish(bool* made);
  Status send(const TxnRequest& request, TxnResponse* response);
  std::string key_of(std::uint64_t batch) const { return keys_.plan(claim_.token, batch); }

  Kv& kv_;
  const Keys& keys_;
  Claim claim_;  // as it was last seen
  const std::string key_;
  const FunctionRef<Deadline()> deadline_;
  TxnRequest batch_;      // the next one
  bool located_ = false;  // `claim_` and `batch_` are up to date, as far as is known
};

// Finds out how far the others have come. Over: the claim is gone. If the next batch is not there, another session has
// just carried it out and the claim says so; if the claim still does not, the batch is lost.
Status Redo::locate(bool* over) {
  std::int64_t without_batch = 0;
  while (true) {
    if (Status status = read_claim(over); !status.ok() || *over) return status;
    if (claim_.text.next == claim_.text.batches) return {};
    RangeResponse batch;
    const Reply reply = kv_.range(get_one(key_of(claim_.text.next)), &batch, deadline_());
    if (!reply.ok()) return reply.status;
    if (batch.kvs_size() > 0 || claim_.mod_revision == without_batch) return take_batch(batch);
    without_batch = claim_.mod_revision;
  }
}

Status Redo::read_claim(bool* over) {
  TxnRequest request;
  *request.add_success()->mutable_request_range() = get_one(key_);
  TxnResponse response;
  if (Status status = send(request, &response); !status.ok()) return status;
  const RangeResponse& found = response.responses(0).response_range();
  *over = found.kvs_size() == 0;
  if (*over) return {};
  claim_.mod_revision = found.kvs(0).mod_revision();
  claim_.text = ClaimText::parse(found.kvs(0).value());
  if (claim_.text.decided && claim_.text.batches != 0) return {};
  return {PRTKV_STORAGE_FAILED, "an unfinished large change is damaged: its key '" + key_ + "' in etcd cannot be read"};
}

Status Redo::take_batch(const RangeResponse& found) {
  const Status status = unseal_batch(claim_.text.next, found, &batch_);
  return status.about("an unfinished large change, batch " + std::to_string(claim_.text.next) + " of '" + key_ +
                      "' in etcd");
}

Status Redo::send(const TxnRequest& request, TxnResponse* response) {
  const Deadline deadline = deadline_();
  if (deadline.left().count() == 0) return {PRTKV_BUSY, "a large change of another session is still being carried out"};
  return kv_.txn(request, response, deadline).status;
}

// Carries out the next batch, and reads the one after it.
Status Redo::make_batch(bool* made) {
  TxnRequest request = std::move(batch_);
  compare_revision(&request, key_, claim_.mod_revision);
  ClaimText text = claim_.text;
  ++text.next;
  put(request.add_success(), key_, text.print());
  const int following = request.success_size();
  *request.add_success()->mutable_request_range() = get_one(key_of(text.next));
  TxnResponse response;
  if (Status status = send(request, &response); !status.ok()) return status;
  *made = response.succeeded();
  if (!*made) return {};
  claim_.text = text;
  claim_.mod_revision = response.header().revision();
  if (text.next == text.batches) return {};
  return take_batch(response.responses(following).response_range());
}

Status Redo::finish(bool* made) {
  TxnRequest request;
  compare_revision(&request, key_, claim_.mod_revision);
  erase(request.add_success(), key_);
  erase(request.add_success(), keys_.all_of_plan(claim_.token));
  TxnResponse response;
  Status status = send(request, &response);
  *made = status.ok() && response.succeeded();
  return status;
}

Status Redo::step(bool* over) {
  Status status;
  if (!located_) {
    status = locate(over);
    located_ = status.ok();
  } else if (claim_.text.next < claim_.text.batches) {
    status = make_batch(&located_);
  } else {
    status = finish(over);
    located_ = *over;
  }
  return status;
}

Status Redo::run() {
  const Deadline patience = deadline_();
  bool over = false;
  while (!over) {
    const Status status = step(&over);
    if (status.ok()) continue;
    // A session that may only read waits for others to carry it out.
    if (!status.is(PRTKV_ACCESS_DENIED) || patience.left().count() == 0) return status;
    std::this_thread::sleep_for(kPollInterval);
    located_ = false;
  }
  return {};
}

}  // namespace

Status Recovery::finish(const Claim& decided, FunctionRef<Deadline()> deadline) {
  Status status = Redo(kv_, keys_, decided, deadline).run();
  if (status.ok()) claims_.forget(decided);
  return status;
}

Status Recovery::finish_all(const ClaimList& claims, FunctionRef<Deadline()> deadline) {
  for (const auto& [top, claim] : claims.claims) {
    if (!claim.text.decided) continue;
    if (Status status = finish(claim, deadline); !status.ok()) return status;
  }
  return {};
}

Reply Recovery::read_settled(const RangeRequest& range, RangeResponse* response, std::int64_t* revision) {
  const auto deadline = [this] { return Deadline(kv_.timeout()); };
  while (true) {
    const KnownClaims claims = claims_.known();
    if (Status status = finish_all(*claims, deadline); !status.ok()) return {Verdict::kFinal, std::move(status)};
    TxnRequest request;
    compare_claims(&request, keys_, *claims);
    *request.add_success()->mutable_request_range() = range;
    *request.add_failure()->mutable_request_range() = get_all(keys_.all_claims());
    TxnResponse answer;
    Reply reply = kv_.txn(request, &answer, deadline());
    if (!reply.ok()) return reply;
    if (!answer.succeeded()) {
      claims_.learn(answer.responses(0).response_range(), answer.header().revision());
      continue;
    }
    *response = std::move(*answer.mutable_responses(0)->mutable_response_range());
    *revision = answer.header().revision();
    return reply;
  }
}

}  // namespace tkv::store::etcd
