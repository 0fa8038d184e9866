#include "store/etcd/tickets.h"

#include "store/etcd/token.h"

namespace tkv::store::etcd {
namespace {

constexpr std::size_t kMostKept = 65536;

Revision revision_of(std::int64_t decided_at, std::int64_t put_at) {
  return static_cast<Revision>(decided_at != 0 ? decided_at : put_at);
}

}  // namespace

Revision ticket_of(std::string_view token) { return kTicketBit | random_part_of(token); }

bool Tickets::find(Revision* revision, std::int64_t put_at) {
  const std::lock_guard lock(mutex_);
  const auto found = decided_.find(*revision);
  if (found == decided_.end()) return false;
  *revision = revision_of(found->second, put_at);
  return true;
}

void Tickets::keep(Revision ticket, std::int64_t decided_at) {
  const std::lock_guard lock(mutex_);
  if (decided_.size() >= kMostKept) decided_.clear();
  decided_[ticket] = decided_at;
}

void Tickets::learn(const RangeResponse& tickets) {
  for (const KeyValue& found : tickets.kvs()) {
    if (const auto ticket = keys_.parse_ticket(found.key())) keep(*ticket, found.create_revision());
  }
}

Reply Tickets::redeem(Revision* revision, std::int64_t put_at, Deadline deadline) {
  if (!is_ticket(*revision) || find(revision, put_at)) return {};
  RangeResponse found;
  Reply reply = kv_.range(get_one(keys_.ticket(*revision)), &found, deadline);
  if (!reply.ok()) return reply;
  const std::int64_t decided_at = found.kvs_size() == 0 ? 0 : found.kvs(0).create_revision();
  keep(*revision, decided_at);
  *revision = revision_of(decided_at, put_at);
  return reply;
}

}  // namespace tkv::store::etcd
