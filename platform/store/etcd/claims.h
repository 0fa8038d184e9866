// Claims: how existing keys are changed by a change larger than one transaction of etcd.
//
// Such a change lays a claim of the subtree that it is about: a key that names the top. It then reads the subtree as it
// was when the claim was laid, without comparing what it reads. Whoever writes there meanwhile removes the claim in the
// same transaction; the claimant's commit compares the claim, and so finds out that it has to begin again. Several
// sessions may claim the same subtree: the first to commit removes the claims of the others.
//
// A large change takes longer than the pauses between small writes, which would keep it from ever being made. So
// whoever meets a claim waits before removing it, for as long as the change makes progress (claim_watch.h): a claimant
// sends a batch of its build several times a second, even if it has nothing to send. The claim of a session that has
// died or stopped is removed after a moment.
//
// Changes of one subtree take their turns. A large change begins at the revision at which it first read, and keeps that
// place however often it has to lay its claim again. It waits for the claims of changes that began before it, and
// removes those of later ones when it lays its own. A small write begins when it meets a claim, and waits for the
// claims of changes that had begun by then. So each waits for a limited number of changes, and only those few can
// interrupt it. All this concerns only who comes first: whether a change may be made depends on the comparisons alone.
//
// When the batches of the change are staged (see redo_log.h), the commit turns the claim into a decision. From then on
// the change is made: every session that comes to the top first helps to carry out what is left of the batches.
//
// For this to work, every transaction compares that no claim has been laid or decided since its session last read the
// list of claims.
#ifndef TKV_PLATFORM_STORE_ETCD_CLAIMS_H
#define TKV_PLATFORM_STORE_ETCD_CLAIMS_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "base/status.h"
#include "store/etcd/keys.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {

// The value of a claim's key, sealed (see text_seal.h). One that cannot be read counts as a decision, so that a
// half-made change is never shown.
struct ClaimText {
  bool decided = false;
  int attempt = 1;
  std::uint64_t next = 0;     // of a decision: the first batch not yet carried out
  std::uint64_t batches = 0;  // of a decision

  // A decision has one batch or more.
  bool is_readable() const { return !decided || batches != 0; }

  std::string print() const;
  static ClaimText parse(std::string_view text);
};

struct Claim {
  NodeId top = kNoNode;
  std::string token;  // of the build that it belongs to
  std::int64_t mod_revision = 0;
  ClaimText text;

  // The revision at which its change began, which the token tells; that of the claim if it does not.
  std::int64_t began() const;
};

// A token for the build of a change that began at a revision.
std::string claim_token(std::int64_t began);

// The claims that existed at a revision. Some may be gone since.
struct ClaimList {
  std::int64_t revision = 0;
  std::multimap<NodeId, Claim> claims;  // by their tops

  bool has_decided() const;
  bool has_newer_than(std::int64_t revision) const;
  const Claim* decided_on(NodeId top) const;
  const Claim* find(NodeId top, const std::string& token) const;
};

using KnownClaims = std::shared_ptr<const ClaimList>;

// Decisions that cannot be carried out, since they or what is left of their batches are damaged: why, by their tops.
// They hide what is at and below their tops, which may be half changed.
using DamagedDecisions = std::map<NodeId, Status>;

// Why a node is hidden; success if it is not the top of such a decision.
Status hidden_by(const DamagedDecisions& damaged, NodeId id);

// The claims that this session knows of.
//
// Threads. Any number may call at once.
class Claims {
 public:
  explicit Claims(const Keys& keys) : keys_(keys), known_(std::make_shared<ClaimList>()) {}

  KnownClaims known() const;

  // Takes in all claims as of `revision`, and returns the list of them.
  KnownClaims learn(const RangeResponse& all, std::int64_t revision);

  // Forgets a claim that is over. Its token is never used again.
  void forget(const Claim& claim);

 private:
  const Keys& keys_;
  mutable std::mutex mutex_;
  KnownClaims known_;
};

// Adds the comparison that no claim has been laid or decided since the list was read.
void compare_claims(TxnRequest* request, const Keys& keys, const ClaimList& list);

}  // namespace tkv::store::etcd

#endif
