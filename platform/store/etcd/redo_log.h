// A change that lies ready in batches, to be carried out once it is decided (see claims.h).
//
// Each batch is made by one transaction that compares the claim and rewrites it with the number of the next batch: it
// is made once, and in its turn, however many sessions are at it.
#ifndef TKV_PLATFORM_STORE_ETCD_REDO_LOG_H
#define TKV_PLATFORM_STORE_ETCD_REDO_LOG_H

#include <cstdint>
#include <string>
#include <vector>

#include "base/function_ref.h"
#include "store/etcd/claims.h"
#include "store/etcd/kv.h"

namespace tkv::store::etcd {

// The batches of a change, as they are kept until they are carried out: each a sealed record.
class RedoLog {
 public:
  // Takes over the operations.
  void add(RequestOp operation);

  // The batches so far, in their order; afterwards the plan is empty.
  std::vector<std::string> take_batches();

 private:
  void close_batch();

  TxnRequest open_;
  std::size_t open_bytes_ = 0;
  std::vector<std::string> batches_;
};

// Carries out what is left of a decision. `deadline` gives the time by which the next request must have ended. Success
// when nothing is left, whoever did it; 7 when the claim or a batch is damaged.
Status carry_out_decision(Kv& kv, const Keys& keys, const Claim& claim, FunctionRef<Deadline()> deadline);

}  // namespace tkv::store::etcd

#endif
