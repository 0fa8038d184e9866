// Tickets: how a record that was written before its change was decided gets the revision of that change.
//
// Most of a large change is sent ahead of its deciding transaction: in the batches of a build, or as a redo log. Nobody
// knows its revision by then, so those records carry a ticket in place of a revision. The deciding transaction puts the
// ticket's key, once and for good. The revision at which that key was created is that of the change.
//
// Any other record carries no revision: its own is the one at which etcd put it. So a small write of a key, which puts
// a record without a ticket, gives it the revision of that write.
//
// Threads. Any number may call at once.
#ifndef TKV_PLATFORM_STORE_ETCD_TICKETS_H
#define TKV_PLATFORM_STORE_ETCD_TICKETS_H

#include <cstdint>
#include <mutex>
#include <string_view>
#include <unordered_map>

#include "store/etcd/keys.h"
#include "store/etcd/kv.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {

// Revisions of etcd are never negative as signed numbers; tickets always are.
constexpr Revision kTicketBit = Revision{1} << 63;
constexpr bool is_ticket(Revision revision) { return (revision & kTicketBit) != 0; }

// Makes the ticket of the change whose build has this token.
Revision ticket_of(std::string_view token);

class Tickets {
 public:
  Tickets(Kv& kv, const Keys& keys) : kv_(kv), keys_(keys) {}

  // Replaces the ticket in `*revision` by the revision of its change, with one request at most for each ticket. Any
  // other revision stays as it is. `put_at` is the revision at which the record was put, which it gets if its ticket
  // has no key.
  Reply redeem(Revision* revision, std::int64_t put_at, Deadline deadline);

  // Takes in keys of tickets that were read anyway.
  void learn(const RangeResponse& tickets);

 private:
  bool find(Revision* revision, std::int64_t put_at);
  void keep(Revision ticket, std::int64_t decided_at);

  Kv& kv_;
  const Keys& keys_;
  std::mutex mutex_;
  std::unordered_map<Revision, std::int64_t> decided_;  // by tickets; 0: the ticket has no key
};

}  // namespace tkv::store::etcd

#endif
