#include "store/etcd/claim_watch.h"

#include <algorithm>
#include <cstdint>
#include <thread>

#include "store/etcd/requests.h"

namespace tkv::store::etcd {
namespace {

constexpr std::chrono::milliseconds kFirstPause{5};
constexpr std::chrono::milliseconds kLongestPause{40};

// The last revision at which a key was written, or zero if it does not exist.
std::int64_t written_at(const RangeResponse& found) { return found.kvs_size() == 0 ? 0 : found.kvs(0).mod_revision(); }

}  // namespace

std::chrono::milliseconds patience_with(const Claim& claim) {
  constexpr int kLongestSeconds = 5;
  return std::chrono::seconds(std::clamp(claim.text.attempt, 1, kLongestSeconds));
}

bool wait_for_claim(Kv& kv, const Keys& keys, const Claim& claim, ClaimStage stage, std::chrono::milliseconds stall) {
  TxnRequest look;
  *look.add_success()->mutable_request_range() = get_one(keys.claim(claim.top, claim.token));
  *look.add_success()->mutable_request_range() = get_one(keys.staging(claim.token));
  std::int64_t last_progress = 0;
  Deadline stalled(stall);
  for (std::chrono::milliseconds pause = kFirstPause;; pause = std::min(2 * pause, kLongestPause)) {
    TxnResponse answer;
    if (!kv.txn(look, &answer, stalled).ok()) return false;
    const RangeResponse& found = answer.responses(0).response_range();
    if (found.kvs_size() == 0) return true;
    if (stage == ClaimStage::kDecided && ClaimText::parse(found.kvs(0).value()).decided) return true;
    const std::int64_t progress = std::max(written_at(found), written_at(answer.responses(1).response_range()));
    if (progress > last_progress) {
      last_progress = progress;
      stalled = Deadline(stall);
    }
    if (stalled.left().count() == 0) return false;
    std::this_thread::sleep_for(std::min(pause, stalled.left()));
  }
}

}  // namespace tkv::store::etcd
