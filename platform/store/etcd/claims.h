// Changes of what exists that are larger than one transaction of etcd.
//
// Such a change lays claim to the subtree that it is about, by a key that names the top, and then reads the subtree as
// it stood when the claim was laid, without comparing what it reads. Whoever writes there meanwhile removes the claim
// in his own transaction; the claimant's last transaction compares it, and so finds out that he has to begin again.
// Several sessions may claim the same: the first to finish removes the others' claims. A claim says how often its
// change has been attempted; for one that others have come before again and again, small writes wait a moment.
//
// When everything lies ready in batches (see plan.h), the last transaction turns the claim into a decision. From then
// on the change is made: every session that comes by the top first helps to carry out what is left of the batches.
//
// So every transaction compares that no claim was laid or decided since the list of claims that its session knows.
#ifndef TKV_PLATFORM_STORE_ETCD_CLAIMS_H
#define TKV_PLATFORM_STORE_ETCD_CLAIMS_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "store/etcd/keys.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {

// What the key of a claim says. One that cannot be read counts as a decision, so that nothing half made is shown.
struct ClaimText {
  bool decided = false;
  int attempt = 1;
  std::uint64_t next = 0;     // of a decision: the first batch that is not carried out yet
  std::uint64_t batches = 0;  // of a decision

  std::string print() const;
  static ClaimText parse(const std::string& text);
};

struct Claim {
  NodeId top = kNoNode;
  std::string token;  // of the build that it belongs to
  std::int64_t mod_revision = 0;
  ClaimText text;
};

// The claims that stood at a revision. Some may be gone since.
struct ClaimList {
  std::int64_t revision = 0;
  std::multimap<NodeId, Claim> claims;  // by their tops

  bool has_decided() const;
  bool has_newer_than(std::int64_t revision) const;
  const Claim* decided_on(NodeId top) const;
  const Claim* find(NodeId top, const std::string& token) const;
};

using KnownClaims = std::shared_ptr<const ClaimList>;

// What this session knows of claims.
//
// Threads. Any number may call.
class Claims {
 public:
  explicit Claims(const Keys& keys) : keys_(keys), known_(std::make_shared<ClaimList>()) {}

  KnownClaims known() const;

  // Takes in all claims as they stood at `revision`, and gives back the list of them.
  KnownClaims learn(const RangeResponse& all, std::int64_t revision);

  // A claim that is over. Its token is never used again.
  void forget(const Claim& claim);

 private:
  const Keys& keys_;
  mutable std::mutex mutex_;
  KnownClaims known_;
};

// No claim was laid or decided since the list.
void compare_claims(TxnRequest* request, const Keys& keys, const ClaimList& list);

}  // namespace tkv::store::etcd

#endif
