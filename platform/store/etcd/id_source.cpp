#include "store/etcd/id_source.h"

#include <limits>

#include "store/etcd/owner.h"
#include "store/etcd/requests.h"
#include "store/etcd/writer.h"

namespace tkv::store::etcd {
namespace {

constexpr std::uint64_t kBlock = 256;

}  // namespace

IdSource::IdSource(History& kv, const Keys& keys)
    : kv_(kv), keys_(keys), claims_key_(keys.writer(random_token() + "-0")) {}

std::string IdSource::claims_key() const {
  const std::lock_guard lock(mutex_);
  return claimed_at_ == 0 ? "" : claims_key_;
}

Status IdSource::take(NodeId* id, Deadline deadline) {
  const std::lock_guard lock(mutex_);
  if (block_.first > block_.last) {
    if (Status status = claim(kBlock, &block_, deadline); !status.ok()) return status;
  }
  *id = block_.first++;
  return {};
}

Status IdSource::take_block(std::uint64_t size, IdRange* block, Deadline deadline) {
  const std::lock_guard lock(mutex_);
  return claim(size, block, deadline);
}

void IdSource::know(const Meta& meta, std::int64_t mod_revision) {
  const std::lock_guard lock(mutex_);
  meta_ = meta;
  mod_revision_ = mod_revision;
}

// A lost answer costs a block, no more: the repeated request finds the counter changed, and takes the next block.
Status IdSource::claim(std::uint64_t size, IdRange* block, Deadline deadline) {
  while (true) {
    if (meta_.next_id > std::numeric_limits<NodeId>::max() - size) {
      return {PRTKV_STORAGE_FULL, "the registry has no ids left"};
    }
    Meta next = meta_;
    next.next_id += size;
    TxnRequest request;
    compare_revision(&request, keys_.meta(), mod_revision_);
    compare_revision(&request, claims_key_, claimed_at_);
    put(request.add_success(), keys_.meta(), as_text(encode_meta(next)));
    put(request.add_success(), claims_key_, print_mark(++claims_, this_owner()));
    *request.add_failure()->mutable_request_range() = get_one(claims_key_);
    *request.add_failure()->mutable_request_range() = get_one(keys_.meta());
    TxnResponse response;
    if (Reply reply = kv_.txn(request, &response, deadline); !reply.ok()) return reply.status;
    if (response.succeeded()) {
      *block = {meta_.next_id, next.next_id - 1};
      meta_ = next;
      mod_revision_ = response.header().revision();
      claimed_at_ = mod_revision_;
      kv_.hold_ids(claims_key_, claimed_at_);
      return {};
    }
    const RangeResponse& claims = response.responses(0).response_range();
    const std::int64_t claimed_at = claims.kvs_size() == 0 ? 0 : claims.kvs(0).mod_revision();
    if (claimed_at < claimed_at_) return kv_.end().status;
    claimed_at_ = claimed_at;  // later: this claim was made before, and its answer was lost
    const RangeResponse& found = response.responses(1).response_range();
    if (found.kvs_size() == 0) return {PRTKV_UNUSABLE, "the registry on etcd is gone: its next id is not there"};
    if (Status status = decode_meta(as_bytes(found.kvs(0).value()), &meta_); !status.ok()) {
      return status.about("the registry's next id");
    }
    mod_revision_ = found.kvs(0).mod_revision();
    if (deadline.left().count() == 0) return {PRTKV_BUSY, "no new ids could be taken in time"};
  }
}

}  // namespace tkv::store::etcd
