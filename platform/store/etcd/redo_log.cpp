#include "store/etcd/redo_log.h"

#include <thread>

#include "store/record.h"

namespace tkv::store::etcd {
namespace {

constexpr int kOperationsPerBatch = 100;
constexpr std::chrono::milliseconds kLookAgain{20};

std::string seal(std::uint64_t number, const std::string& batch) {
  std::string record(value_record_size(batch.size()), '\0');
  encode_value(number, 0, as_bytes(batch), std::as_writable_bytes(std::span(record)));
  return record;
}

Status unseal(std::uint64_t number, const RangeResponse& found, TxnRequest* batch) {
  if (found.kvs_size() == 0) return {PRTKV_STORAGE_FAILED, "it is missing"};
  Value value;
  if (Status status = decode_value(number, as_bytes(found.kvs(0).value()), &value); !status.ok()) return status;
  if (batch->ParseFromArray(value.bytes.data(), static_cast<int>(value.bytes.size()))) return {};
  return {PRTKV_STORAGE_FAILED, "it cannot be read"};
}

// One session's part in carrying out a decision.
class Carrying {
 public:
  Carrying(Kv& kv, const Keys& keys, const Claim& claim, FunctionRef<Deadline()> deadline)
      : kv_(kv), keys_(keys), claim_(claim), key_(keys.claim(claim.top, claim.token)), deadline_(deadline) {}

  Status run();

 private:
  Status look(bool* over);
  Status look_at_claim(bool* over);
  Status take_batch(const RangeResponse& found);
  Status make_batch(bool* made);
  Status finish(bool* made);
  Status send(const TxnRequest& request, TxnResponse* response);
  std::string key_of(std::uint64_t batch) const { return keys_.plan(claim_.token, batch); }

  Kv& kv_;
  const Keys& keys_;
  Claim claim_;  // as it was last seen
  const std::string key_;
  const FunctionRef<Deadline()> deadline_;
  TxnRequest batch_;  // the next one
};

// Where the others are by now. Over: the claim is gone. A batch that is not there has been made meanwhile, and the
// claim tells so; when it does not, the batch is lost.
Status Carrying::look(bool* over) {
  std::int64_t without_batch = 0;
  while (true) {
    if (Status status = look_at_claim(over); !status.ok() || *over) return status;
    if (claim_.text.next == claim_.text.batches) return {};
    RangeResponse batch;
    Reply reply = kv_.range(get_one(key_of(claim_.text.next)), &batch, deadline_());
    if (!reply.ok()) return reply.status;
    if (batch.kvs_size() > 0 || claim_.mod_revision == without_batch) return take_batch(batch);
    without_batch = claim_.mod_revision;
  }
}

Status Carrying::look_at_claim(bool* over) {
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
  return {PRTKV_STORAGE_FAILED,
          "a large change that was left unfinished is damaged: its key '" + key_ + "' in etcd cannot be read"};
}

Status Carrying::take_batch(const RangeResponse& found) {
  batch_.Clear();
  const Status status = unseal(claim_.text.next, found, &batch_);
  return status.ok() ? status
                     : status.about("a large change that was left unfinished, batch " +
                                    std::to_string(claim_.text.next) + " of '" + key_ + "' in etcd");
}

Status Carrying::send(const TxnRequest& request, TxnResponse* response) {
  const Deadline deadline = deadline_();
  if (deadline.left().count() == 0) {
    return {PRTKV_UNREACHABLE, "a large change of another session is still being carried out"};
  }
  return kv_.txn(request, response, deadline).status;
}

// Makes the next batch and brings the one after it.
Status Carrying::make_batch(bool* made) {
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

Status Carrying::finish(bool* made) {
  TxnRequest request;
  compare_revision(&request, key_, claim_.mod_revision);
  erase(request.add_success(), key_);
  erase(request.add_success(), keys_.all_of_plan(claim_.token));
  TxnResponse response;
  Status status = send(request, &response);
  *made = status.ok() && response.succeeded();
  return status;
}

Status Carrying::run() {
  const Deadline patience = deadline_();
  bool over = false;
  bool known = false;
  while (!over) {
    bool made = true;
    Status status;
    if (!known) {
      status = look(&over);
    } else if (claim_.text.next < claim_.text.batches) {
      status = make_batch(&made);
    } else {
      status = finish(&made);
      over = made;
    }
    // Who may only read waits for others to do it.
    if (status.is(PRTKV_ACCESS_DENIED) && patience.left().count() > 0) {
      std::this_thread::sleep_for(kLookAgain);
      made = false;
    } else if (!status.ok()) {
      return status;
    }
    known = made;
  }
  return {};
}

}  // namespace

void RedoLog::add(RequestOp operation) {
  const std::size_t bytes = operation.ByteSizeLong();
  if (open_.success_size() >= kOperationsPerBatch || open_bytes_ + bytes > kMostBytes) close_batch();
  *open_.add_success() = std::move(operation);
  open_bytes_ += bytes;
}

void RedoLog::close_batch() {
  if (open_.success_size() == 0) return;
  batches_.push_back(seal(batches_.size(), open_.SerializeAsString()));
  open_.Clear();
  open_bytes_ = 0;
}

std::vector<std::string> RedoLog::take_batches() {
  close_batch();
  return std::move(batches_);
}

Status carry_out_decision(Kv& kv, const Keys& keys, const Claim& claim, FunctionRef<Deadline()> deadline) {
  return Carrying(kv, keys, claim, deadline).run();
}

}  // namespace tkv::store::etcd
