#include "store/etcd/revision_view.h"

#include "store/etcd/limits.h"
#include "store/etcd/pager.h"
#include "store/etcd/read_ahead.h"
#include "store/record.h"

namespace tkv::store::etcd {

Status RevisionView::fail(const Reply& reply) {
  if (failure_.ok()) failure_ = reply;
  return reply.status;
}

// Replaces a ticket by the revision that it stands for.
Status RevisionView::redeem(Revision* revision, std::int64_t put_at) {
  const Reply reply = core_.tickets.redeem(revision, put_at, core_.deadline());
  return reply.ok() ? Status() : fail(reply);
}

// What is below the top of a damaged decision may be half changed.
void RevisionView::hide(SeenNode* seen) const {
  if (!seen->node) return;
  seen->damage = hidden_by(damaged_, seen->node->id);
  if (!seen->damage.ok()) seen->node.reset();
}

Status RevisionView::get(RangeRequest request, RangeResponse* response) {
  if (revision_ == 0) return get_first(request, response);
  request.set_revision(revision_);
  const Reply reply = core_.kv->range(request, response, core_.deadline());
  return reply.ok() ? Status() : fail(reply);
}

// The first answer determines the revision of all others.
Status RevisionView::get_first(const RangeRequest& request, RangeResponse* response) {
  const Reply reply = core_.recovery.read_settled(request, response, &revision_, &damaged_);
  return reply.ok() ? Status() : fail(reply);
}

// Fetches what is asked for together with what comes after it. If that is impossible, the caller fetches it alone.
Status RevisionView::look_ahead(NodeId id, Sought sought) {
  if (!ahead_.ask(id, sought) || revision_ == 0) return {};
  while (const auto request = ahead_.request(revision_)) {
    TxnResponse response;
    const Reply reply = core_.kv->txn(*request, &response, core_.deadline(), kPageBytes);
    switch (reply.verdict) {
      case Verdict::kDone:
        ahead_.keep(&response);
        return {};
      case Verdict::kAnswerTooLarge:
        ahead_.ask_for_less();
        break;
      case Verdict::kFinal:
        ahead_.give_up();
        return {};
      default:
        return fail(reply);
    }
  }
  return {};
}

Status RevisionView::find(NodeId parent, std::string_view name, Node* node) {
  const NodePlace place{parent, std::string(name)};
  RangeResponse response;
  if (Status status = get(get_one(core_.keys.node(place)), &response); !status.ok()) return status;
  SeenNode seen = seen_node(response, place);
  hide(&seen);
  if (!seen.damage.ok()) return seen.damage;
  if (!seen.node) return PRTKV_NO_SUCH_KEY;
  *node = *seen.node;
  return redeem(&node->revision, seen.mod_revision);
}

Status RevisionView::value(NodeId id, Value* value) {
  if (Status status = look_ahead(id, Sought::kValue); !status.ok()) return status;
  std::optional<KeyValue> record;
  if (!ahead_.take_value(id, &record)) {
    RangeResponse response;
    if (Status status = get(get_one(core_.keys.value(id)), &response); !status.ok()) return status;
    ahead_.note_value(response.ByteSizeLong());
    if (response.kvs_size() > 0) record = std::move(*response.mutable_kvs(0));
  }
  if (!record) {
    *value = Value{};
    return {};
  }
  record_ = std::move(*record);
  Status status = decode_found_value(id, record_, value);
  return status.ok() ? redeem(&value->revision, record_.mod_revision()) : status;
}

// A node's entry never exceeds kMaxNodeEntryBytes, so a page of kNodesPerPage always fits a message.
Status RevisionView::get_page(NodeId parent, std::string begin, ChildPage* page) {
  RangeRequest request = get_range({std::move(begin), core_.keys.children(parent).end}, kNodesPerPage);
  RangeResponse response;
  if (Status status = get(request, &response); !status.ok()) return status;
  *page = listing_of(response, core_.keys);
  return {};
}

Status RevisionView::children(NodeId parent, VisitNode visit) {
  return children_with_damage(parent, visit, kEndAtDamage);
}

Status RevisionView::children_with_damage(NodeId parent, VisitNode visit, VisitDamage damaged) {
  return list(parent, [&](const Child& child) {
    return child.seen.node ? visit(child.name, *child.seen.node) : damaged(child.name, child.seen.damage);
  });
}

Status RevisionView::list(NodeId parent, FunctionRef<Status(const Child& child)> visit) {
  if (Status status = look_ahead(parent, Sought::kChildren); !status.ok()) return status;
  ChildPage page;
  if (!ahead_.take_children(parent, &page)) {
    if (Status status = get_page(parent, core_.keys.children(parent).begin, &page); !status.ok()) return status;
  }
  for (bool first = true;; first = false) {
    ahead_.listed(parent, page, first);
    for (Child& child : page.children) {
      hide(&child.seen);
      if (child.seen.node) {
        Status status = redeem(&child.seen.node->revision, child.seen.mod_revision);
        if (!status.ok()) return status;
      }
      if (Status status = visit(child); !status.ok()) return status;
    }
    if (page.complete || page.children.empty()) return {};
    std::string begin = core_.keys.node({parent, page.children.back().name}) + '\0';
    if (Status status = get_page(parent, std::move(begin), &page); !status.ok()) return status;
  }
}

Status RevisionView::has_children(NodeId parent, bool* answer) {
  if (Status status = look_ahead(parent, Sought::kChildren); !status.ok()) return status;
  if (ahead_.has_children(parent, answer)) return {};
  RangeRequest request = get_range(core_.keys.children(parent), 1);
  request.set_keys_only(true);
  RangeResponse response;
  if (Status status = get(request, &response); !status.ok()) return status;
  *answer = response.kvs_size() > 0;
  return {};
}

Status RevisionView::revision(Revision* revision) {
  RangeRequest request = get_one(core_.keys.log());
  request.set_keys_only(true);
  RangeResponse response;
  if (Status status = get(request, &response); !status.ok()) return status;
  const Reply reply = core_.log.last_change(response, revision_, revision);
  return reply.ok() ? Status() : fail(reply);
}

}  // namespace tkv::store::etcd
