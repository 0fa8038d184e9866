#include "store/etcd/redo_log.h"

#include <utility>

#include "store/etcd/limits.h"
#include "store/record.h"

namespace tkv::store::etcd {
namespace {

std::string seal(std::uint64_t number, const std::string& batch) {
  std::string record(value_record_size(batch.size()), '\0');
  encode_value(number, {0, as_bytes(batch)}, std::as_writable_bytes(std::span(record)));
  return record;
}

}  // namespace

std::string seal_empty_batch(std::uint64_t number) { return seal(number, TxnRequest().SerializeAsString()); }

Status unseal_batch(std::uint64_t number, const RangeResponse& found, TxnRequest* batch) {
  batch->Clear();
  if (found.kvs_size() == 0) return {PRTKV_STORAGE_FAILED, "it is missing"};
  return unseal_batch(number, found.kvs(0), batch);
}

Status unseal_batch(std::uint64_t number, const KeyValue& record, TxnRequest* batch) {
  batch->Clear();
  Value value;
  if (Status status = decode_value(number, as_bytes(record.value()), &value); !status.ok()) return status;
  if (batch->ParseFromArray(value.bytes.data(), static_cast<int>(value.bytes.size()))) return {};
  return {PRTKV_STORAGE_FAILED, "it cannot be parsed"};
}

void RedoLog::add(RequestOp operation) {
  const std::size_t bytes = operation.ByteSizeLong();
  if (open_.success_size() >= kBatchOperations || open_bytes_ + bytes > kMaxTxnBytes) close_batch();
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

}  // namespace tkv::store::etcd
