#include "store/etcd/change_repair.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>

#include "store/etcd/build.h"
#include "store/etcd/limits.h"
#include "store/etcd/pager.h"
#include "store/etcd/redo_log.h"

namespace tkv::store::etcd {
namespace {

constexpr int kMostPasses = 5;
constexpr std::int64_t kFirstBatchesPerPage = 2;

struct FoundBatch {
  std::int64_t mod_revision = 0;
  bool is_sound = false;
  bool is_empty = false;  // a repair has put it in place of a damaged one
};

// A change whose claim is a decision or cannot be read, as it stands at one revision.
struct Unfinished {
  std::string key;  // of the claim
  Claim claim;
  std::int64_t build_revision = 0;  // 0: the build is over
  std::map<std::uint64_t, FoundBatch> batches;

  std::uint64_t found_end() const { return batches.empty() ? 0 : batches.rbegin()->first + 1; }

  // One that is missing is not sound.
  FoundBatch batch(std::uint64_t number) const {
    const auto found = batches.find(number);
    return found == batches.end() ? FoundBatch() : found->second;
  }
};

class ChangeRepair {
 public:
  ChangeRepair(Core& core, const ChangeDescription& description)
      : core_(core), log_record_(ChangeLog::encode(description)) {}

  Status run();
  std::vector<HalfMadeChange> half_made() const;

 private:
  Status repair_claims();
  Status read(Unfinished* change, std::int64_t revision);
  Status read_batches(Unfinished* change, std::int64_t revision);
  Status repair(const Unfinished& change);
  Status complete(const Unfinished& change);
  Status replace(const Unfinished& change, const std::vector<std::uint64_t>& damaged);
  Status put_decision(const Unfinished& change, std::uint64_t next, std::uint64_t batches);
  Status remove_claim(const Unfinished& change);
  Status repair_builds();
  void note_loss(const Unfinished& change, std::uint64_t lost, std::uint64_t batches);
  TxnRequest request_about(const Unfinished& change) const;
  Status send(TxnRequest request);

  Core& core_;
  const std::string log_record_;
  std::map<std::string, HalfMadeChange> half_made_;  // by tokens
  bool overtaken_ = false;                           // in this pass, or an answer was lost
};

Status ChangeRepair::run() {
  for (int pass = 0; pass < kMostPasses; ++pass) {
    overtaken_ = false;
    Status status = repair_claims();
    if (status.ok()) status = repair_builds();
    if (!status.ok() || !overtaken_) return status;
  }
  return {PRTKV_BUSY, "other sessions changed what was to be repaired each time"};
}

std::vector<HalfMadeChange> ChangeRepair::half_made() const {
  std::vector<HalfMadeChange> changes;
  for (const auto& [token, change] : half_made_) changes.push_back(change);
  return changes;
}

Status ChangeRepair::repair_claims() {
  RangeResponse claims;
  const Reply reply = core_.kv->range(get_all(core_.keys.all_claims()), &claims, core_.deadline());
  if (!reply.ok()) return reply.status;
  for (const KeyValue& record : claims.kvs()) {
    auto place = core_.keys.parse_claim(record.key());
    if (!place) continue;
    Claim claim{place->top, std::move(place->token), record.mod_revision(), ClaimText::parse(record.value())};
    if (!claim.text.decided) continue;
    Unfinished change{.key = record.key(), .claim = std::move(claim), .batches = {}};
    Status status = read(&change, claims.header().revision());
    if (status.ok()) status = repair(change);
    if (!status.ok()) return status;
  }
  return {};
}

Status ChangeRepair::read(Unfinished* change, std::int64_t revision) {
  RangeRequest request = get_one(core_.keys.staging(change->claim.token));
  request.set_revision(revision);
  RangeResponse build;
  if (Reply reply = core_.kv->range(request, &build, core_.deadline()); !reply.ok()) return reply.status;
  if (build.kvs_size() > 0) change->build_revision = build.kvs(0).mod_revision();
  return read_batches(change, revision);
}

Status ChangeRepair::read_batches(Unfinished* change, std::int64_t revision) {
  RangeRequest request = get_range(core_.keys.all_of_plan(change->claim.token), kFirstBatchesPerPage);
  request.set_revision(revision);
  Pager pager(*core_.kv, std::move(request));
  while (pager.more()) {
    RangeResponse page;
    if (Reply reply = pager.next(&page); !reply.ok()) return reply.status;
    for (const KeyValue& record : page.kvs()) {
      const auto place = core_.keys.parse_plan(record.key());
      if (!place || place->token != change->claim.token) continue;
      TxnRequest batch;
      const bool is_sound = unseal_batch(place->number, record, &batch).ok();
      change->batches[place->number] = {record.mod_revision(), is_sound, batch.success_size() == 0};
    }
  }
  return {};
}

Status ChangeRepair::repair(const Unfinished& change) {
  const bool is_readable = change.claim.text.is_readable();
  if (change.build_revision != 0) return is_readable ? Status() : remove_claim(change);
  if (!is_readable && change.batches.empty()) return remove_claim(change);
  return complete(change);
}

// Batches before the first one to be carried out are not needed any more. Of those at the end, only a readable decision
// tells that they are missing.
Status ChangeRepair::complete(const Unfinished& change) {
  const ClaimText& text = change.claim.text;
  const bool is_readable = text.is_readable();
  const std::uint64_t first = is_readable ? text.next : 0;
  const std::uint64_t batches = is_readable ? text.batches : change.found_end();
  const std::uint64_t end = std::max(first, std::min(batches, change.found_end()));
  std::vector<std::uint64_t> damaged;
  std::uint64_t lost = batches - end;
  for (std::uint64_t number = first; number < end; ++number) {
    const FoundBatch batch = change.batch(number);
    if (!batch.is_sound || batch.is_empty) ++lost;
    if (!batch.is_sound) damaged.push_back(number);
  }
  if (lost != 0) note_loss(change, lost, batches);
  if (end == 0) return remove_claim(change);
  if (Status status = replace(change, damaged); !status.ok()) return status;
  return is_readable && end == batches ? Status() : put_decision(change, first, end);
}

Status ChangeRepair::replace(const Unfinished& change, const std::vector<std::uint64_t>& damaged) {
  TxnRequest request = request_about(change);
  for (const std::uint64_t number : damaged) {
    const std::string key = core_.keys.plan(change.claim.token, number);
    compare_revision(&request, key, change.batch(number).mod_revision);
    put(request.add_success(), key, seal_empty_batch(number));
    if (request.success_size() < kBatchOperations) continue;
    if (Status status = send(std::exchange(request, request_about(change))); !status.ok()) return status;
  }
  return request.success_size() == 0 ? Status() : send(std::move(request));
}

Status ChangeRepair::put_decision(const Unfinished& change, std::uint64_t next, std::uint64_t batches) {
  TxnRequest request = request_about(change);
  put(request.add_success(), change.key, ClaimText{true, 0, next, batches}.print());
  return send(std::move(request));
}

// The batches of a change that was not decided are removed with its build.
Status ChangeRepair::remove_claim(const Unfinished& change) {
  TxnRequest request = request_about(change);
  erase(request.add_success(), change.key);
  return send(std::move(request));
}

void ChangeRepair::note_loss(const Unfinished& change, std::uint64_t lost, std::uint64_t batches) {
  const Claim& claim = change.claim;
  half_made_[claim.token] = {claim.top, ticket_of(claim.token),
                             std::to_string(lost) + " of the " + std::to_string(batches) +
                                 " batches of a large change cannot be read: a repair makes the rest of the change, so "
                                 "some of the keys at and below this one are changed and others are not; restore this "
                                 "key from a backup"};
}

TxnRequest ChangeRepair::request_about(const Unfinished& change) const {
  TxnRequest request;
  compare_revision(&request, change.key, change.claim.mod_revision);
  compare_revision(&request, core_.keys.staging(change.claim.token), change.build_revision);
  return request;
}

// Whatever is put in place of something damaged is a change, and is logged.
Status ChangeRepair::send(TxnRequest request) {
  const auto puts = [](const RequestOp& operation) { return operation.has_request_put(); };
  if (std::any_of(request.success().begin(), request.success().end(), puts)) {
    put(request.add_success(), core_.keys.log(), log_record_);
  }
  TxnResponse response;
  const Reply reply = core_.kv->txn(request, &response, core_.deadline());
  if (!reply.ok()) return reply.status;
  overtaken_ = overtaken_ || !response.succeeded();
  return {};
}

Status ChangeRepair::repair_builds() {
  Pager builds(*core_.kv, get_range(core_.keys.all_staging(), kMarkersPerPage));
  while (builds.more()) {
    RangeResponse page;
    if (Reply reply = builds.next(&page); !reply.ok()) return reply.status;
    for (const KeyValue& build : page.kvs()) {
      const auto token = core_.keys.parse_staging(build.key());
      if (!token || BuildText::parse(build.value())) continue;
      TxnRequest request;
      compare_revision(&request, build.key(), build.mod_revision());
      erase(request.add_success(), build.key());
      erase(request.add_success(), core_.keys.all_of_plan(*token));
      if (Status status = send(std::move(request)); !status.ok()) return status;
    }
  }
  return {};
}

}  // namespace

Status repair_changes(Core& core, const ChangeDescription& description, std::vector<HalfMadeChange>* half_made) {
  ChangeRepair repair(core, description);
  Status status = repair.run();
  *half_made = repair.half_made();
  return status;
}

}  // namespace tkv::store::etcd
