#include "store/etcd/core.h"

#include "store/etcd/redo_log.h"
#include "store/record.h"

namespace tkv::store::etcd {

Status carry_out_decision(Core& core, const Claim& claim, FunctionRef<Deadline()> deadline) {
  Status status = carry_out_decision(*core.kv, core.keys, claim, deadline);
  if (status.ok()) core.claims.forget(claim);
  return status;
}

Reply read_settled(Core& core, const RangeRequest& range, RangeResponse* response, std::int64_t* revision) {
  const auto deadline = [&] { return core.deadline(); };
  while (true) {
    const KnownClaims claims = core.claims.known();
    for (const auto& [top, claim] : claims->claims) {
      if (!claim.text.decided) continue;
      if (Status status = carry_out_decision(core, claim, deadline); !status.ok())
        return {Verdict::kFinal, std::move(status)};
    }
    TxnRequest request;
    compare_claims(&request, core.keys, *claims);
    *request.add_success()->mutable_request_range() = range;
    *request.add_failure()->mutable_request_range() = get_all(core.keys.all_claims());
    TxnResponse answer;
    Reply reply = core.kv->txn(request, &answer, core.deadline());
    if (!reply.ok()) return reply;
    if (!answer.succeeded()) {
      core.claims.learn(answer.responses(0).response_range(), answer.header().revision());
      continue;
    }
    *response = std::move(*answer.mutable_responses(0)->mutable_response_range());
    *revision = answer.header().revision();
    return reply;
  }
}

SeenNode known_of(const KeyValue& record, const NodePlace& place) {
  SeenNode known{record.mod_revision(), {}, {}};
  Node node;
  known.damage = decode_node(place.parent, place.name, as_bytes(record.value()), &node);
  if (known.damage.ok()) known.node = node;
  return known;
}

SeenNode known_of(const RangeResponse& response, const NodePlace& place) {
  return response.kvs_size() == 0 ? SeenNode{} : known_of(response.kvs(0), place);
}

}  // namespace tkv::store::etcd
