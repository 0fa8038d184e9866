// Waiting for a large change of another session (see claims.h).
#ifndef TKV_PLATFORM_STORE_ETCD_CLAIM_WATCH_H
#define TKV_PLATFORM_STORE_ETCD_CLAIM_WATCH_H

#include <chrono>

#include "store/etcd/claims.h"
#include "store/etcd/keys.h"
#include "store/etcd/kv.h"

namespace tkv::store::etcd {

enum class ClaimStage {
  kDecided,  // or over
  kOver      // carried out, or given up
};

// Waits until the change that laid `claim` has reached `stage`. It is waited for as long as it makes progress, which
// its session shows by rewriting the claim or the build that the claim belongs to. Returns false if there was no
// progress for `stall`, or nobody can be asked: the session has ended, has been stopped, or is cut off.
bool wait_for_claim(Kv& kv, const Keys& keys, const Claim& claim, ClaimStage stage, std::chrono::milliseconds stall);

// How long a claim without progress is respected: a second, and more once its change has had to begin again.
std::chrono::milliseconds patience_with(const Claim& claim);

}  // namespace tkv::store::etcd

#endif
