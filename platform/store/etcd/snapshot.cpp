#include "snapshot.h"

#include "pager.h"
#include "record.h"

namespace tkv::store::etcd {

Known known_of(const KeyValue& record, const Place& place) {
  Known known{record.mod_revision(), {}, {}};
  Node node;
  known.damage = decode_node(place.parent, place.name, as_bytes(record.value()), &node);
  if (known.damage.ok()) known.node = node;
  return known;
}

Known known_of(const RangeResponse& response, const Place& place) {
  return response.kvs_size() == 0 ? Known{} : known_of(response.kvs(0), place);
}

Status Snapshot::fail(const Outcome& outcome) {
  if (failure_.ok()) failure_ = outcome;
  return outcome.status;
}

Status Snapshot::get(RangeRequest request, RangeResponse* response) {
  request.set_revision(revision_);
  if (Outcome outcome = core_.cluster->range(request, response, core_.deadline()); !outcome.ok()) return fail(outcome);
  if (revision_ == 0) revision_ = response->header().revision();
  return {};
}

Status Snapshot::find(NodeId parent, std::string_view name, Node* node) {
  const Place place{parent, std::string(name)};
  RangeResponse response;
  if (Status status = get(get_one(core_.keys.node(place)), &response); !status.ok()) return status;
  const Known known = known_of(response, place);
  if (!known.damage.ok()) return known.damage;
  if (!known.node) return PRTKV_NO_SUCH_KEY;
  *node = *known.node;
  return {};
}

Status Snapshot::value(NodeId id, Value* value) {
  RangeResponse response;
  if (Status status = get(get_one(core_.keys.value(id)), &response); !status.ok()) return status;
  if (response.kvs_size() == 0) {
    *value = Value{};
    return {};
  }
  record_ = std::move(*response.mutable_kvs(0)->mutable_value());
  return decode_value(id, as_bytes(record_), value);
}

Status Snapshot::children(NodeId parent, FunctionRef<Status(std::string_view name, const Node& node)> visit) {
  RangeRequest request = get_range(core_.keys.children(parent), kNodesPerPage);
  request.set_revision(revision_);
  Pager pager(*core_.cluster, request);
  while (pager.more()) {
    RangeResponse page;
    if (Outcome outcome = pager.next(&page); !outcome.ok()) return fail(outcome);
    revision_ = pager.revision();
    for (const KeyValue& record : page.kvs()) {
      const auto place = core_.keys.parse_node(record.key());
      if (!place) continue;
      const Known known = known_of(record, *place);
      if (!known.damage.ok()) return known.damage.about("subkey '" + place->name + "'");
      if (Status status = visit(place->name, *known.node); !status.ok()) return status;
    }
  }
  return {};
}

Status Snapshot::has_children(NodeId parent, bool* answer) {
  RangeRequest request = get_range(core_.keys.children(parent), 1);
  request.set_keys_only(true);
  RangeResponse response;
  if (Status status = get(request, &response); !status.ok()) return status;
  *answer = response.kvs_size() > 0;
  return {};
}

}  // namespace tkv::store::etcd
