#include "store/etcd/seen_node.h"

#include "store/etcd/tickets.h"
#include "store/record.h"

namespace tkv::store::etcd {

Status decode_found_node(NodeId parent, std::string_view name, const KeyValue& record, Node* node) {
  Status status = decode_node(parent, name, as_bytes(record.value()), node);
  if (status.ok() && !is_ticket(node->revision)) node->revision = static_cast<Revision>(record.mod_revision());
  return status;
}

SeenNode seen_node(const KeyValue& record, const NodePlace& place) {
  SeenNode seen{record.mod_revision(), {}, {}};
  Node node;
  seen.damage = decode_found_node(place.parent, place.name, record, &node);
  if (seen.damage.ok()) seen.node = node;
  return seen;
}

SeenNode seen_node(const RangeResponse& response, const NodePlace& place) {
  return response.kvs_size() == 0 ? SeenNode{} : seen_node(response.kvs(0), place);
}

Status decode_found_value(NodeId id, const KeyValue& record, Value* value) {
  Status status = decode_value(id, as_bytes(record.value()), value);
  if (status.ok() && !is_ticket(value->revision)) value->revision = static_cast<Revision>(record.mod_revision());
  return status;
}

}  // namespace tkv::store::etcd
