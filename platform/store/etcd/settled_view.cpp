#include "store/etcd/settled_view.h"

#include <string>
#include <utility>

#include "store/etcd/redo_log.h"

namespace tkv::store::etcd {

Status SettledView::load() {
  RangeRequest request = get_all(core_.keys.all_claims());
  request.set_revision(revision_);
  RangeResponse claims;
  if (Reply reply = core_.kv->range(request, &claims, core_.deadline()); !reply.ok()) return reply.status;
  for (const KeyValue& record : claims.kvs()) {
    const auto place = core_.keys.parse_claim(record.key());
    if (!place) continue;
    const Claim claim{place->top, place->token, record.mod_revision(), ClaimText::parse(record.value())};
    if (!claim.text.decided) continue;
    Status status = load_batches(claim);
    if (status.is(PRTKV_STORAGE_FAILED)) {
      damaged_.insert_or_assign(claim.top, std::move(status));
    } else if (!status.ok()) {
      return status;
    }
  }
  return {};
}

Status SettledView::load_batches(const Claim& decided) {
  const std::string about = "a large change that was being made at revision " + std::to_string(revision_);
  if (!decided.text.is_readable()) return Status(PRTKV_STORAGE_FAILED, "its claim is damaged").about(about);
  for (std::uint64_t number = decided.text.next; number < decided.text.batches; ++number) {
    RangeRequest request = get_one(core_.keys.plan(decided.token, number));
    request.set_revision(revision_);
    RangeResponse found;
    TxnRequest batch;
    if (Reply reply = core_.kv->range(request, &found, core_.deadline()); !reply.ok()) return reply.status;
    if (Status status = unseal_batch(number, found, &batch); !status.ok()) return status.about(about);
    for (const RequestOp& operation : batch.success()) {
      if (Status status = take_in(operation); !status.ok()) return status;
    }
  }
  return {};
}

// A batch puts and removes single keys.
Status SettledView::take_in(const RequestOp& operation) {
  const bool puts = operation.has_request_put();
  const std::string& key = puts ? operation.request_put().key() : operation.request_delete_range().key();
  KeyValue record;
  record.set_mod_revision(revision_);
  if (puts) record.set_value(operation.request_put().value());
  if (const auto place = core_.keys.parse_node(key)) {
    SeenNode& seen = nodes_[*place] = puts ? seen_node(record, *place) : SeenNode{};
    if (seen.node) return core_.tickets.redeem(&seen.node->revision, revision_, core_.deadline()).status;
  } else if (const auto id = core_.keys.parse_value(key)) {
    values_[*id] = puts ? std::optional(std::move(record)) : std::nullopt;
  }
  return {};
}

Status SettledView::find(NodeId parent, std::string_view name, Node* node) {
  const auto pending = nodes_.find({parent, std::string(name)});
  if (pending == nodes_.end()) {
    if (Status status = view_.find(parent, name, node); !status.ok()) return status;
    return hidden_by(damaged_, node->id);
  }
  const SeenNode& seen = pending->second;
  if (!seen.damage.ok()) return seen.damage;
  if (!seen.node) return PRTKV_NO_SUCH_KEY;
  *node = *seen.node;
  return hidden_by(damaged_, node->id);
}

Status SettledView::value(NodeId id, Value* value) {
  const auto pending = values_.find(id);
  if (pending == values_.end()) return view_.value(id, value);
  *value = Value{};
  if (!pending->second) return {};
  Status status = decode_found_value(id, *pending->second, value);
  return status.ok() ? core_.tickets.redeem(&value->revision, revision_, core_.deadline()).status : status;
}

Status SettledView::visit_node(std::string_view name, const Node& node, VisitNode visit, VisitDamage damaged) const {
  const Status damage = hidden_by(damaged_, node.id);
  return damage.ok() ? visit(name, node) : damaged(name, damage);
}

Status SettledView::visit_pending(const Nodes::value_type& pending, VisitNode visit, VisitDamage damaged) const {
  const auto& [place, seen] = pending;
  if (!seen.damage.ok()) return damaged(place.name, seen.damage);
  return seen.node ? visit_node(place.name, *seen.node, visit, damaged) : Status();
}

// Merges the children at the revision with those that are written or removed by what is left of the changes.
Status SettledView::children_with_damage(NodeId parent, VisitNode visit, VisitDamage damaged) {
  auto pending = nodes_.lower_bound({parent, ""});
  const auto is_before = [&](std::string_view name) {
    return pending != nodes_.end() && pending->first.parent == parent && pending->first.name < name;
  };
  const auto visit_before = [&](std::string_view name) {
    Status status;
    while (status.ok() && is_before(name)) status = visit_pending(*pending++, visit, damaged);
    return status;
  };
  const auto is_replaced = [&](std::string_view name) { return nodes_.contains({parent, std::string(name)}); };
  const auto visit_sound = [&](std::string_view name, const Node& node) {
    Status status = visit_before(name);
    return status.ok() && !is_replaced(name) ? visit_node(name, node, visit, damaged) : status;
  };
  const auto visit_damaged = [&](std::string_view name, const Status& damage) {
    Status status = visit_before(name);
    return status.ok() && !is_replaced(name) ? damaged(name, damage) : status;
  };
  Status status = view_.children_with_damage(parent, visit_sound, visit_damaged);
  while (status.ok() && pending != nodes_.end() && pending->first.parent == parent) {
    status = visit_pending(*pending++, visit, damaged);
  }
  return status;
}

Status SettledView::has_children(NodeId parent, bool* answer) {
  const auto pending = nodes_.lower_bound({parent, ""});
  if (pending == nodes_.end() || pending->first.parent != parent) return view_.has_children(parent, answer);
  *answer = false;
  const Status status = children_with_damage(
      parent,
      [&](std::string_view, const Node&) {
        *answer = true;
        return Status(PRTKV_KEY_EXISTS);  // ends the visits
      },
      [&](std::string_view, const Status&) {
        *answer = true;
        return Status(PRTKV_KEY_EXISTS);
      });
  return *answer ? Status() : status;
}

}  // namespace tkv::store::etcd
