#include "store/etcd/recovery.h"

#include <string>
#include <utility>

#include "store/etcd/claim_watch.h"
#include "store/etcd/redo_log.h"

namespace tkv::store::etcd {
namespace {

// Without progress for so long, a session helps to carry out what another one has decided.
constexpr std::chrono::milliseconds kStall{300};

enum class Role { kDecided, kHelps };

// This session's part in carrying out one decision.
class Redo {
 public:
  Redo(Kv& kv, const Keys& keys, const Claim& claim, Role role, std::chrono::milliseconds patience)
      : kv_(kv),
        keys_(keys),
        claim_(claim),
        role_(role),
        key_(keys.claim(claim.top, claim.token)),
        patience_(patience),
        deadline_(patience) {}

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
  const Role role_;
  const std::string key_;
  const std::chrono::milliseconds patience_;
  Deadline deadline_;     // for the next progress, whoever makes it
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
    const Reply reply = kv_.range(get_one(key_of(claim_.text.next)), &batch, deadline_);
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
  if (claim_.mod_revision != found.kvs(0).mod_revision()) deadline_ = Deadline(patience_);
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
  if (deadline_.left().count() == 0) {
    return {PRTKV_BUSY, "a large change of another session is still being carried out"};
  }
  return kv_.txn(request, response, deadline_).status;
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
  deadline_ = Deadline(patience_);
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

// Nobody makes progress with a decision that cannot be read.
Status Redo::run() {
  bool over = false;
  while (!over) {
    const bool waits = role_ == Role::kHelps && !located_ && claim_.text.is_readable();
    if (waits && wait_for_claim(kv_, keys_, claim_, ClaimStage::kOver, kStall)) return {};
    Status status = step(&over);
    if (status.ok()) continue;
    // A session that may only read waits for others to carry it out.
    if (!status.is(PRTKV_ACCESS_DENIED) || role_ == Role::kDecided || deadline_.left().count() == 0) return status;
    located_ = false;
  }
  return {};
}

}  // namespace

Status Recovery::carry_out(const Claim& own) {
  Status status = Redo(kv_, keys_, own, Role::kDecided, kv_.timeout()).run();
  if (status.ok()) claims_.forget(own);
  return status;
}

Status Recovery::finish(const Claim& decided, std::chrono::milliseconds patience) {
  Status status = Redo(kv_, keys_, decided, Role::kHelps, patience).run();
  if (status.ok()) claims_.forget(decided);
  return status;
}

Status Recovery::finish_all(const ClaimList& claims, std::chrono::milliseconds patience, DamagedDecisions* damaged) {
  for (const auto& [top, claim] : claims.claims) {
    if (!claim.text.decided) continue;
    Status status = finish(claim, patience);
    if (status.ok()) continue;
    if (damaged == nullptr || !status.is(PRTKV_STORAGE_FAILED)) return status;
    damaged->insert_or_assign(top, std::move(status));
  }
  return {};
}

Reply Recovery::read_settled(const RangeRequest& range, RangeResponse* response, std::int64_t* revision,
                             DamagedDecisions* damaged) {
  while (true) {
    const KnownClaims claims = claims_.known();
    if (damaged != nullptr) damaged->clear();
    Status status = finish_all(*claims, kv_.timeout(), damaged);
    if (!status.ok()) return {Verdict::kFinal, std::move(status)};
    TxnRequest request;
    compare_claims(&request, keys_, *claims);
    *request.add_success()->mutable_request_range() = range;
    *request.add_failure()->mutable_request_range() = get_all(keys_.all_claims());
    TxnResponse answer;
    Reply reply = kv_.txn(request, &answer, Deadline(kv_.timeout()));
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
