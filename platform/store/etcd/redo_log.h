// A change too large for one transaction, recorded in batches, to be carried out once it is decided (see claims.h).
// What the batches put has the revision of the decision, whoever carries them out and when (see tickets.h).
//
// Pure functions and a class that sends nothing.
#ifndef TKV_PLATFORM_STORE_ETCD_REDO_LOG_H
#define TKV_PLATFORM_STORE_ETCD_REDO_LOG_H

#include <cstdint>
#include <string>
#include <vector>

#include "store/etcd/requests.h"

namespace tkv::store::etcd {

class RedoLog {
 public:
  // Takes over the operations.
  void add(RequestOp operation);

  // The batches so far, in order, each a sealed record; afterwards the log is empty.
  std::vector<std::string> take_batches();

 private:
  void close_batch();

  TxnRequest open_;
  std::size_t open_bytes_ = 0;
  std::vector<std::string> batches_;
};

// Reads batch `number` from its record. Returns PRTKV_STORAGE_FAILED if it is damaged.
Status unseal_batch(std::uint64_t number, const KeyValue& record, TxnRequest* batch);

// The same from the answer to a request for its key. Returns PRTKV_STORAGE_FAILED also if it is missing.
Status unseal_batch(std::uint64_t number, const RangeResponse& found, TxnRequest* batch);

// The record of a batch that changes nothing, which no log has: a repair puts it in place of one that is damaged.
std::string seal_empty_batch(std::uint64_t number);

}  // namespace tkv::store::etcd

#endif
