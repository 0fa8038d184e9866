#include "store/etcd/id_source.h"

#include <limits>

#include "store/etcd/requests.h"

namespace tkv::store::etcd {
namespace {

constexpr std::uint64_t kBlock = 256;

}  // namespace

Status IdSource::take(const Owner& owner, NodeId* id, bool* lost, Deadline deadline) {
  const std::lock_guard lock(mutex_);
  belong_to(owner);
  if (block_.first > block_.last) {
    if (Status status = claim(kBlock, &block_, lost, deadline); !status.ok() || *lost) return status;
  }
  *id = block_.first++;
  return {};
}

Status IdSource::take_block(const Owner& owner, std::uint64_t size, IdRange* block, bool* lost, Deadline deadline) {
  const std::lock_guard lock(mutex_);
  belong_to(owner);
  return claim(size, block, lost, deadline);
}

void IdSource::know(const Meta& meta, std::int64_t mod_revision) {
  const std::lock_guard lock(mutex_);
  meta_ = meta;
  mod_revision_ = mod_revision;
}

void IdSource::belong_to(const Owner& owner) {
  if (owner == owner_) return;
  owner_ = owner;
  claims_key_ = keys_.writer(owner.token + "-0");
  claimed_at_ = 0;
  block_ = {};
}

// A lost answer costs a block, no more: the repeated request finds the counter changed, and takes the next block.
Status IdSource::claim(std::uint64_t size, IdRange* block, bool* lost, Deadline deadline) {
  *lost = false;
  while (true) {
    if (meta_.next_id > std::numeric_limits<NodeId>::max() - size) {
      return {PRTKV_STORAGE_FULL, "the registry has no ids left"};
    }
    Meta next = meta_;
    next.next_id += size;
    TxnRequest request;
    compare_revision(&request, keys_.meta(), mod_revision_);
    compare_revision(&request, claims_key_, claimed_at_);
    compare_alive(&request, keys_, owner_);
    put(request.add_success(), keys_.meta(), as_text(encode_meta(next)));
    put(request.add_success(), claims_key_, std::to_string(++claims_), owner_.lease);
    *request.add_failure()->mutable_request_range() = get_one(keys_.session(owner_.token));
    *request.add_failure()->mutable_request_range() = get_one(claims_key_);
    *request.add_failure()->mutable_request_range() = get_one(keys_.meta());
    TxnResponse response;
    if (Reply reply = kv_.txn(request, &response, deadline); !reply.ok()) return reply.status;
    if (response.succeeded()) {
      *block = {meta_.next_id, next.next_id - 1};
      meta_ = next;
      mod_revision_ = response.header().revision();
      claimed_at_ = mod_revision_;
      kv_.hold_ids(claims_key_, claimed_at_, keys_.session(owner_.token));
      return {};
    }
    if (Status status = take_in(response, lost); !status.ok() || *lost) return status;
    if (deadline.left().count() == 0) return {PRTKV_BUSY, "no new ids could be taken in time"};
  }
}

// Learns from a claim that was not made how the counter stands now.
Status IdSource::take_in(const TxnResponse& failed, bool* lost) {
  *lost = !is_alive(failed.responses(0).response_range(), owner_);
  if (*lost) return {};
  const RangeResponse& claims = failed.responses(1).response_range();
  const std::int64_t claimed_at = claims.kvs_size() == 0 ? 0 : claims.kvs(0).mod_revision();
  if (claimed_at < claimed_at_) return kv_.end().status;
  claimed_at_ = claimed_at;  // later: this claim was made before, and its answer was lost
  const RangeResponse& found = failed.responses(2).response_range();
  if (found.kvs_size() == 0) return {PRTKV_UNUSABLE, "the registry on etcd is gone: its next id is not there"};
  if (Status status = decode_meta(as_bytes(found.kvs(0).value()), &meta_); !status.ok()) {
    return status.about("the registry's next id");
  }
  mod_revision_ = found.kvs(0).mod_revision();
  return {};
}

}  // namespace tkv::store::etcd
