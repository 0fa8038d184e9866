// What etcd accepts in one request, and how much this store puts into one. All limits of requests are here.
#ifndef TKV_PLATFORM_STORE_ETCD_LIMITS_H
#define TKV_PLATFORM_STORE_ETCD_LIMITS_H

#include <cstddef>
#include <cstdint>

namespace tkv::store::etcd {

// etcd's defaults: --max-txn-ops limits the comparisons, the operations and the alternative operations of a
// transaction each; --max-request-bytes is 1.5 MiB, of which some is left for what every write adds.
constexpr int kMaxTxnOperations = 128;
constexpr std::size_t kMaxTxnBytes = std::size_t{1400} << 10;
constexpr std::size_t kOperationOverhead = 512;  // upper bound of key, place and framing of one operation

// Comparisons of reads in one transaction. The rest is for those of the claims, the build and what every write adds.
constexpr std::size_t kMaxCompared = 118;
// What every write adds: for the writer's mark and its session (writer.h), the registry's mark and the claims of ids
// (history.h).
constexpr int kAddedCompares = 4;
constexpr std::size_t kMaxFromCache = 100;  // nodes taken from the cache before a run asks the cluster

// Operations of a batch: of staged writes and of a redo log, and of removals.
constexpr int kBatchOperations = 100;
constexpr int kBatchRemovals = 120;

// One answer. gRPC receives up to 4 MiB; a page of nodes always fits.
constexpr std::size_t kPageBytes = std::size_t{2} << 20;
constexpr std::size_t kMaxNodeEntryBytes = 1024;  // prefix, place, record, and what etcd adds
constexpr std::int64_t kNodesPerPage = kPageBytes / kMaxNodeEntryBytes;
constexpr std::int64_t kNodesAhead = 500;      // children read together with the one that is asked for
constexpr std::int64_t kMarkersPerPage = 100;  // keys of staging, garbage, claims and tickets
constexpr std::int64_t kKeysPerSweep = 500;

}  // namespace tkv::store::etcd

#endif
