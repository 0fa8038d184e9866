#include "store/etcd/claims.h"

#include <algorithm>
#include <sstream>

#include "store/etcd/text_seal.h"
#include "store/etcd/token.h"

namespace tkv::store::etcd {

// One field per line, for people who look at it with etcdctl.
std::string ClaimText::print() const {
  return seal_text(decided
                       ? "state decided\nnext " + std::to_string(next) + "\nbatches " + std::to_string(batches) + "\n"
                       : "state claimed\nattempt " + std::to_string(attempt) + "\n");
}

ClaimText ClaimText::parse(std::string_view text) {
  ClaimText unreadable;
  unreadable.decided = true;
  if (unseal_text(&text) == Seal::kBroken) return unreadable;
  ClaimText result;
  std::istringstream lines{std::string(text)};
  std::string field;
  std::string state;
  while (lines >> field) {
    if (field == "state") {
      lines >> state;
    } else if (field == "attempt") {
      lines >> result.attempt;
    } else if (field == "next") {
      lines >> result.next;
    } else if (field == "batches") {
      lines >> result.batches;
    } else {
      return unreadable;
    }
    if (lines.fail()) return unreadable;
  }
  result.decided = state == "decided";
  const bool sound = result.decided ? result.batches > 0 && result.next <= result.batches : state == "claimed";
  return sound ? result : unreadable;
}

std::int64_t Claim::began() const {
  const auto laid = static_cast<std::uint64_t>(mod_revision);
  return static_cast<std::int64_t>(std::min(number_of(token), laid));
}

std::string claim_token(std::int64_t began) { return numbered_token(static_cast<std::uint64_t>(began)); }

bool ClaimList::has_decided() const {
  return std::any_of(claims.begin(), claims.end(), [](const auto& each) { return each.second.text.decided; });
}

bool ClaimList::has_newer_than(std::int64_t wanted) const {
  return std::any_of(claims.begin(), claims.end(),
                     [wanted](const auto& each) { return each.second.mod_revision > wanted; });
}

const Claim* ClaimList::decided_on(NodeId top) const {
  const auto [first, last] = claims.equal_range(top);
  const auto found = std::find_if(first, last, [](const auto& each) { return each.second.text.decided; });
  return found == last ? nullptr : &found->second;
}

const Claim* ClaimList::find(NodeId top, const std::string& token) const {
  const auto [first, last] = claims.equal_range(top);
  const auto found = std::find_if(first, last, [&](const auto& each) { return each.second.token == token; });
  return found == last ? nullptr : &found->second;
}

Status hidden_by(const DamagedDecisions& damaged, NodeId id) {
  const auto found = damaged.find(id);
  return found == damaged.end() ? Status() : found->second;
}

KnownClaims Claims::known() const {
  const std::lock_guard lock(mutex_);
  return known_;
}

KnownClaims Claims::learn(const RangeResponse& all, std::int64_t revision) {
  auto list = std::make_shared<ClaimList>();
  list->revision = revision;
  for (const KeyValue& record : all.kvs()) {
    auto claim = keys_.parse_claim(record.key());
    if (!claim) continue;
    const NodeId top = claim->top;
    list->claims.emplace(top,
                         Claim{top, std::move(claim->token), record.mod_revision(), ClaimText::parse(record.value())});
  }
  const std::lock_guard lock(mutex_);
  if (revision > known_->revision) known_ = list;
  return list;
}

void Claims::forget(const Claim& claim) {
  const std::lock_guard lock(mutex_);
  if (known_->find(claim.top, claim.token) == nullptr) return;
  auto list = std::make_shared<ClaimList>(*known_);
  const auto [first, last] = list->claims.equal_range(claim.top);
  list->claims.erase(std::find_if(first, last, [&](const auto& each) { return each.second.token == claim.token; }));
  known_ = std::move(list);
}

void compare_claims(TxnRequest* request, const Keys& keys, const ClaimList& list) {
  compare_not_written_since(request, keys.all_claims(), list.revision);
}

}  // namespace tkv::store::etcd
