// SeenNode: what the cluster held at a place when it was last read.
#ifndef TKV_PLATFORM_STORE_ETCD_SEEN_NODE_H
#define TKV_PLATFORM_STORE_ETCD_SEEN_NODE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/function_ref.h"
#include "store/etcd/keys.h"
#include "store/etcd/requests.h"
#include "store/store.h"

namespace tkv::store::etcd {

// Revision 0: nothing was there. The node's own revision may be a ticket (see tickets.h). A record that cannot be
// trusted has `damage` and no node.
struct SeenNode {
  std::int64_t mod_revision = 0;
  std::optional<Node> node;
  Status damage;
};

using VisitNode = FunctionRef<Status(std::string_view name, const Node& node)>;
using VisitDamage = FunctionRef<Status(std::string_view name, const Status& damage)>;

// A VisitDamage that ends the walk with a failure that names the child.
inline constexpr auto kEndAtDamage = [](std::string_view name, const Status& damage) {
  return damage.about("subkey '" + std::string(name) + "'");
};

// Decodes a node's record, or the only record of an answer, found at `place`.
SeenNode seen_node(const KeyValue& record, const NodePlace& place);
SeenNode seen_node(const RangeResponse& response, const NodePlace& place);

// The same of a node alone.
Status decode_found_node(NodeId parent, std::string_view name, const KeyValue& record, Node* node);

// Decodes a value's record. Its revision is the one at which it was put, or a ticket; the bytes point into the record.
Status decode_found_value(NodeId id, const KeyValue& record, Value* value);

}  // namespace tkv::store::etcd

#endif
