// Recovery: completes the changes that other sessions have decided but not carried out (see claims.h and redo_log.h).
//
// Each batch of a redo log is carried out by one transaction that compares the claim and rewrites it with the number of
// the next batch. So every batch is carried out once and in its turn, however many sessions work on the same log, and
// whichever of them fail.
//
// Threads. Any number may call at once.
#ifndef TKV_PLATFORM_STORE_ETCD_RECOVERY_H
#define TKV_PLATFORM_STORE_ETCD_RECOVERY_H

#include <chrono>
#include <cstdint>

#include "store/etcd/claims.h"
#include "store/etcd/keys.h"
#include "store/etcd/kv.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {

class Recovery {
 public:
  Recovery(Kv& kv, const Keys& keys, Claims& claims) : kv_(kv), keys_(keys), claims_(claims) {}

  // Carries out this session's own decision.
  Status carry_out(const Claim& own);

  // Returns when nothing is left of another session's decision, whoever carried it out. Waits as long as others make
  // progress and helps if they do not, so that sessions do not race for each batch. Returns PRTKV_STORAGE_FAILED if the
  // claim or a batch is damaged, and PRTKV_BUSY if nobody made progress for `patience`.
  Status finish(const Claim& decided, std::chrono::milliseconds patience);

  // The same for every decision of the list. A damaged one ends it with PRTKV_STORAGE_FAILED, unless `damaged` is
  // given: then it is added there, and the others are carried out.
  Status finish_all(const ClaimList& claims, std::chrono::milliseconds patience, DamagedDecisions* damaged = nullptr);

  // Reads a range at a revision at which every decision has been carried out. On success `*revision` is that revision.
  // `damaged` as above: on success, it has the decisions that were not carried out.
  Reply read_settled(const RangeRequest& range, RangeResponse* response, std::int64_t* revision,
                     DamagedDecisions* damaged = nullptr);

 private:
  Kv& kv_;
  const Keys& keys_;
  Claims& claims_;
};

}  // namespace tkv::store::etcd

#endif
