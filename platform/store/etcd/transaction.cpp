#include "store/etcd/transaction.h"

#include <algorithm>
#include <functional>

#include "store/etcd/pager.h"
#include "store/record.h"
#include "store/store_limits.h"

namespace tkv::store::etcd {
namespace {

// Comparisons of one transaction, with room for those of claims, of the writer and of a build.
constexpr std::size_t kMostCompared = 120;
constexpr std::size_t kMostFromCache = 100;
constexpr std::int64_t kNodesAhead = 500;
constexpr std::uint64_t kFirstBlock = 1024;
constexpr std::uint64_t kLargestBlock = 65536;

Status moved_on() { return {PRTKV_UNREACHABLE, "the registry changed while it was read"}; }

}  // namespace

Transaction::Transaction(Core& core, Purpose purpose, Basis basis, Deadline deadline)
    : core_(core),
      purpose_(purpose),
      basis_(std::move(basis)),
      deadline_(deadline),
      first_run_(basis_.revision == 0),
      claims_(first_run_ ? core.claims.known() : basis_.claims),
      revision_(basis_.revision),
      use_cache_(first_run_ && !basis_.top),
      next_block_(kFirstBlock) {}

Transaction::~Transaction() {
  if (build_ && build_->started()) core_.sweeper.give_up_build(build_->key());
}

Deadline Transaction::deadline() const { return long_ ? core_.deadline() : deadline_; }

// A failure of the cluster ends the run, whatever the function makes of it.
Status Transaction::fail(Status status) {
  if (failure_.ok()) failure_ = status;
  return status;
}

Status Transaction::run_again(bool from_scratch) {
  again_ = true;
  if (from_scratch) basis_ = Basis();
  if (claim_) claim_again();
  return moved_on();
}

bool Transaction::is_fresh(NodeId id) const {
  return std::any_of(fresh_.rbegin(), fresh_.rend(),
                     [id](const IdRange& range) { return range.first <= id && id <= range.last; });
}

std::size_t Transaction::hash_of(const NodePlace& place) {
  return std::hash<std::string>()(place.name) ^ (std::hash<NodeId>()(place.parent) * 0x9e3779b97f4a7c15u);
}

bool Transaction::is_sent_ahead(const NodePlace& place) const { return sent_.contains(hash_of(place)); }

// ---- reading

// Whether what hangs below this node need not be compared: this run only surveys, or has laid claim to it.
bool Transaction::stands_by_itself(NodeId parent) const {
  return surveying_ || (claim_ && lineage_.is_below(parent, claim_->top));
}

// From here on reads without comparing, to find out what the change is about.
Status Transaction::survey() {
  if (Status status = validate(); !status.ok()) return status;
  surveying_ = true;
  long_ = true;
  return {};
}

Status Transaction::make_room_to_compare() {
  const bool full = purpose_ == Purpose::kWrite && !surveying_ && compared_ >= kMostCompared;
  return full ? survey() : Status();
}

Status Transaction::add_read(const NodePlace& place, SeenNode known, bool validated, const SeenNode** added) {
  bool compared = !stands_by_itself(place.parent);
  if (compared) {
    if (Status status = make_room_to_compare(); !status.ok()) return status;
    compared = !surveying_;
  }
  if (compared) ++compared_;
  if (!validated) ++unvalidated_;
  if (known.node) {
    lineage_.add(place.parent, known.node->id);
    if (const Claim* decided = claims_->decided_on(known.node->id)) return carry_out(*decided);
  }
  *added = &nodes_.insert_or_assign(place, ReadNode{std::move(known), compared}).first->second.known;
  return {};
}

Status Transaction::look_up(const NodePlace& place, const SeenNode** known) {
  if (const auto read = nodes_.find(place); read != nodes_.end()) {
    *known = &read->second.known;
    return {};
  }
  if (Status status = settle(place.parent); !status.ok()) return status;
  if (!first_run_) {
    if (const auto brought = basis_.nodes.find(place); brought != basis_.nodes.end()) {
      return add_read(place, brought->second, true, known);
    }
  }
  if (use_cache_ && nodes_.size() + values_.size() < kMostFromCache) {
    if (const auto cached = core_.cache.get(place)) return add_read(place, *cached, false, known);
  }
  if (stands_by_itself(place.parent)) return look_up_ahead(place, known);
  RangeResponse response;
  if (Status status = fetch(get_one(core_.keys.node(place)), &response, &place); !status.ok()) return status;
  SeenNode fetched = known_of(response, place);
  core_.cache.put(place, fetched);
  return add_read(place, std::move(fetched), true, known);
}

// Large changes go from one subkey to the next: reads those that follow as well.
Status Transaction::look_up_ahead(const NodePlace& place, const SeenNode** known) {
  RangeResponse response;
  const KeyRange rest{core_.keys.node(place), core_.keys.children(place.parent).end};
  if (Status status = fetch(get_range(rest, kNodesAhead), &response, nullptr); !status.ok()) return status;
  if (Status status = add_read(place, SeenNode{}, true, known); !status.ok()) return status;
  for (const KeyValue& record : response.kvs()) {
    const auto found = core_.keys.parse_node(record.key());
    if (!found || (*found != place && nodes_.contains(*found))) continue;
    const SeenNode* added = nullptr;
    if (Status status = add_read(*found, known_of(record, *found), true, &added); !status.ok()) return status;
    if (*found == place) *known = added;
  }
  return {};
}

// Reads a range on the state that everything read so far stands on.
Status Transaction::fetch(RangeRequest range, RangeResponse* response, const NodePlace* node) {
  if (!failure_.ok()) return failure_;
  if (again_) return moved_on();
  if (revision_ != 0 && unvalidated_ == 0) return fetch_at_revision(std::move(range), response);
  TxnRequest request;
  add_comparisons(&request);
  *request.add_success()->mutable_request_range() = range;
  add_rereading(&request);
  if (node != nullptr) *request.add_failure()->mutable_request_range() = range;
  TxnResponse answer;
  if (Reply reply = core_.kv->txn(request, &answer, deadline()); !reply.ok()) return fail(reply.status);
  if (!answer.succeeded()) {
    learn(answer, node);
    return run_again(false);
  }
  revision_ = answer.header().revision();
  unvalidated_ = 0;
  *response = std::move(*answer.mutable_responses(0)->mutable_response_range());
  return {};
}

Status Transaction::fetch_at_revision(RangeRequest range, RangeResponse* response) {
  range.set_revision(revision_);
  Reply reply = core_.kv->range(range, response, deadline());
  if (reply.verdict == Verdict::kCompacted) return run_again(true);
  return reply.ok() ? Status() : fail(reply.status);
}

// Below ids that only this run knows, nothing needs to be compared.
Status Transaction::read_newest(const RangeRequest& range, RangeResponse* response) {
  if (!failure_.ok()) return failure_;
  const Reply reply = core_.kv->range(range, response, deadline());
  return reply.ok() ? Status() : fail(reply.status);
}

void Transaction::add_comparisons(TxnRequest* request) const {
  compare_claims(request, core_.keys, *claims_);
  if (claim_) compare_revision(request, core_.keys.claim(claim_->top, claim_->token), claim_->mod_revision);
  for (const auto& [place, read] : nodes_) {
    if (read.compared) compare_revision(request, core_.keys.node(place), read.known.mod_revision);
  }
  for (const auto& [id, read] : values_) {
    if (read.compared) compare_revision(request, core_.keys.value(id), read.mod_revision);
  }
  for (const Listing& listing : listings_) compare_no_newcomer(request, listing.range, listing.revision);
}

void Transaction::add_rereading(TxnRequest* request) const {
  *request->add_failure()->mutable_request_range() = get_all(core_.keys.all_claims());
  for (const auto& [place, read] : nodes_) {
    if (read.compared) *request->add_failure()->mutable_request_range() = get_one(core_.keys.node(place));
  }
}

// Takes in what the failure branch read: the claims, the nodes of this run in their order, and one more.
void Transaction::learn(const TxnResponse& response, const NodePlace* also) {
  basis_ = Basis{response.header().revision(), {}, {}, {}, 1};
  int at = 0;
  basis_.claims = core_.claims.learn(response.responses(at++).response_range(), basis_.revision);
  const auto take = [&](const NodePlace& place) {
    const SeenNode known = known_of(response.responses(at++).response_range(), place);
    if (known.node) {
      core_.cache.put(place, known);
    } else {
      core_.cache.erase(place);
    }
    basis_.nodes[place] = known;
  };
  for (const auto& [place, read] : nodes_) {
    if (read.compared) take(place);
  }
  if (also != nullptr) take(*also);
}

Status Transaction::validate() {
  if (unvalidated_ == 0) return {};
  TxnRequest request;
  add_comparisons(&request);
  add_rereading(&request);
  TxnResponse answer;
  if (Reply reply = core_.kv->txn(request, &answer, deadline()); !reply.ok()) return fail(reply.status);
  if (!answer.succeeded()) {
    learn(answer, nullptr);
    return run_again(false);
  }
  revision_ = answer.header().revision();
  unvalidated_ = 0;
  return {};
}

// What this run itself has made of a place, in memory or sent ahead.
Status Transaction::look_up_written(const NodePlace& place, bool* written, std::optional<Node>* node) {
  *written = true;
  if (const auto found = node_writes_.find(place); found != node_writes_.end()) {
    *node = found->second;
    return {};
  }
  node->reset();
  if (discarded_.contains(place.parent)) return {};
  if (!is_fresh(place.parent)) {
    *written = false;
    return {};
  }
  if (!is_sent_ahead(place)) return {};
  RangeResponse response;
  if (Status status = read_newest(get_one(core_.keys.node(place)), &response); !status.ok()) return status;
  const SeenNode known = known_of(response, place);
  *node = known.node;
  return known.damage;
}

Status Transaction::find(NodeId parent, std::string_view name, Node* node) {
  const NodePlace place{parent, std::string(name)};
  bool written = false;
  std::optional<Node> own;
  if (Status status = look_up_written(place, &written, &own); !status.ok()) return status;
  if (written) {
    if (!own) return PRTKV_NO_SUCH_KEY;
    *node = *own;
    return {};
  }
  const SeenNode* known = nullptr;
  if (Status status = look_up(place, &known); !status.ok()) return status;
  if (!known->damage.ok()) return known->damage;
  if (!known->node) return PRTKV_NO_SUCH_KEY;
  *node = *known->node;
  return {};
}

Status Transaction::value(NodeId id, Value* value) {
  if (const auto written = value_writes_.find(id); written != value_writes_.end()) {
    *value = Value{};
    return written->second ? decode_value(id, as_bytes(*written->second), value) : Status();
  }
  *value = Value{};
  const bool fresh = is_fresh(id);
  if (discarded_.contains(id) || (fresh && !build_)) return {};
  if (const auto read = values_.find(id); read != values_.end()) {
    *value = read->second.value;
    return {};
  }
  if (Status status = fresh ? Status() : settle(id); !status.ok()) return status;
  bool compared = !fresh && !stands_by_itself(id);
  if (compared) {
    if (Status status = make_room_to_compare(); !status.ok()) return status;
    compared = !surveying_;
  }
  RangeResponse response;
  const RangeRequest request = get_one(core_.keys.value(id));
  if (Status status = fresh ? read_newest(request, &response) : fetch(request, &response, nullptr); !status.ok()) {
    return status;
  }
  ReadValue& read = values_[id];
  read.compared = compared;
  compared_ += compared ? 1 : 0;
  if (response.kvs_size() == 0) return {};
  read.mod_revision = response.kvs(0).mod_revision();
  read.record = std::move(*response.mutable_kvs(0)->mutable_value());
  if (Status status = decode_value(id, as_bytes(read.record), &read.value); !status.ok()) return status;
  *value = read.value;
  return {};
}

// ---- listing

std::int64_t Transaction::removed_below(NodeId parent) const {
  std::int64_t count = 0;
  for (auto at = node_writes_.lower_bound(NodePlace{parent, ""});
       at != node_writes_.end() && at->first.parent == parent; ++at) {
    if (!at->second) ++count;
  }
  return count;
}

bool Transaction::has_written_child(NodeId parent) const {
  for (auto at = node_writes_.lower_bound(NodePlace{parent, ""});
       at != node_writes_.end() && at->first.parent == parent; ++at) {
    if (at->second) return true;
  }
  return false;
}

// From here on nobody may have added a child.
void Transaction::add_listing(NodeId parent) {
  listings_.push_back({core_.keys.children(parent), revision_});
  ++compared_;
}

Status Transaction::has_children(NodeId parent, bool* answer) {
  *answer = has_written_child(parent);
  if (*answer || discarded_.contains(parent)) return {};
  const bool fresh = is_fresh(parent);
  if (fresh && !build_) return {};
  if (Status status = fresh ? Status() : settle(parent); !status.ok()) return status;
  const RangeRequest request = get_range(core_.keys.children(parent), 1 + removed_below(parent));
  RangeResponse response;
  if (Status status = fresh ? read_newest(request, &response) : fetch(request, &response, nullptr); !status.ok()) {
    return status;
  }
  const auto child = std::find_if(response.kvs().begin(), response.kvs().end(), [&](const KeyValue& record) {
    const auto place = core_.keys.parse_node(record.key());
    return place && !node_writes_.contains(*place);
  });
  *answer = child != response.kvs().end();
  if (fresh) return {};
  if (purpose_ == Purpose::kRead) {
    use_cache_ = false;  // from here on everything is read at this revision, so that the answer keeps standing
    return {};
  }
  if (!stands_by_itself(parent)) {
    if (Status status = make_room_to_compare(); !status.ok()) return status;
    if (!surveying_) add_listing(parent);
  }
  if (!*answer) {
    childless_.insert(parent);
    return {};
  }
  const NodePlace place = *core_.keys.parse_node(child->key());
  const SeenNode* known = nullptr;
  return nodes_.contains(place) ? Status() : add_read(place, known_of(*child, place), true, &known);
}

Status Transaction::children(NodeId parent, FunctionRef<Status(std::string_view name, const Node& node)> visit) {
  if (Status status = is_fresh(parent) ? Status() : settle(parent); !status.ok()) return status;
  if (purpose_ == Purpose::kRead) return visit_pages(parent, visit);
  std::vector<std::pair<std::string, Node>> list;
  if (discarded_.contains(parent)) return {};
  Status status;
  if (!is_fresh(parent)) {
    status = list_for_update(parent, &list);
  } else if (build_) {
    status = list_below_fresh(parent, &list);
  }
  return status.ok() ? visit_merged(parent, list, visit) : status;
}

Status Transaction::visit_pages(NodeId parent, FunctionRef<Status(std::string_view name, const Node& node)> visit) {
  RangeRequest request = get_range(core_.keys.children(parent), kNodesPerPage);
  RangeResponse page;
  if (Status status = fetch(request, &page, nullptr); !status.ok()) return status;
  use_cache_ = false;
  request.set_revision(revision_);
  Pager pager(*core_.kv, request);
  pager.continue_after(page);
  while (true) {
    for (const KeyValue& record : page.kvs()) {
      const auto place = core_.keys.parse_node(record.key());
      if (!place) continue;
      const SeenNode known = known_of(record, *place);
      if (!known.damage.ok()) return known.damage.about("subkey '" + place->name + "'");
      if (const Claim* decided = claims_->decided_on(known.node->id)) return carry_out(*decided);
      lineage_.add(parent, known.node->id);
      if (Status status = visit(place->name, *known.node); !status.ok()) return status;
    }
    if (!pager.more()) return {};
    long_ = true;
    Reply reply = pager.next(&page);
    if (reply.verdict == Verdict::kCompacted) return run_again(true);
    if (!reply.ok()) return fail(reply.status);
  }
}

// Each child is compared, and that there are no others.
Status Transaction::list_for_update(NodeId parent, std::vector<std::pair<std::string, Node>>* list) {
  if (stands_by_itself(parent)) return list_uncompared(parent, list);
  RangeResponse response;
  const RangeRequest request = get_range(core_.keys.children(parent), static_cast<std::int64_t>(kMostCompared));
  if (Status status = fetch(request, &response, nullptr); !status.ok()) return status;
  if (response.more() || compared_ + static_cast<std::size_t>(response.kvs_size()) >= kMostCompared) {
    Status status = survey();
    return status.ok() ? list_uncompared(parent, list) : status;
  }
  add_listing(parent);
  return add_listed(response, list);
}

Status Transaction::list_uncompared(NodeId parent, std::vector<std::pair<std::string, Node>>* list) {
  RangeRequest request = get_range(core_.keys.children(parent), kNodesPerPage);
  RangeResponse page;
  if (Status status = fetch(request, &page, nullptr); !status.ok()) return status;
  request.set_revision(revision_);
  Pager pager(*core_.kv, request);
  pager.continue_after(page);
  while (true) {
    if (Status status = add_listed(page, list); !status.ok()) return status;
    if (!pager.more()) return {};
    Reply reply = pager.next(&page);
    if (reply.verdict == Verdict::kCompacted) return run_again(true);
    if (!reply.ok()) return fail(reply.status);
  }
}

Status Transaction::add_listed(const RangeResponse& page, std::vector<std::pair<std::string, Node>>* list) {
  for (const KeyValue& record : page.kvs()) {
    const auto place = core_.keys.parse_node(record.key());
    if (!place) continue;
    const SeenNode* known = nullptr;
    if (const auto read = nodes_.find(*place); read != nodes_.end()) {
      known = &read->second.known;
    } else if (Status status = add_read(*place, known_of(record, *place), true, &known); !status.ok()) {
      return status;
    }
    if (!known->damage.ok()) return known->damage.about("subkey '" + place->name + "'");
    if (known->node) list->emplace_back(place->name, *known->node);
  }
  return {};
}

Status Transaction::list_below_fresh(NodeId parent, std::vector<std::pair<std::string, Node>>* list) {
  Pager pager(*core_.kv, get_range(core_.keys.children(parent), kNodesPerPage));
  while (pager.more()) {
    RangeResponse page;
    if (Reply reply = pager.next(&page); !reply.ok()) return fail(reply.status);
    for (const KeyValue& record : page.kvs()) {
      const auto place = core_.keys.parse_node(record.key());
      if (!place) continue;
      const SeenNode known = known_of(record, *place);
      if (!known.damage.ok()) return known.damage.about("subkey '" + place->name + "'");
      list->emplace_back(place->name, *known.node);
    }
  }
  return {};
}

// The list with what this run has written since; the visit may write more.
Status Transaction::visit_merged(NodeId parent, const std::vector<std::pair<std::string, Node>>& list,
                                 FunctionRef<Status(std::string_view name, const Node& node)> visit) {
  auto listed = list.begin();
  auto written = node_writes_.lower_bound(NodePlace{parent, ""});
  while (true) {
    const bool own = written != node_writes_.end() && written->first.parent == parent;
    if (!own && listed == list.end()) return {};
    if (own && (listed == list.end() || written->first.name <= listed->first)) {
      const NodePlace place = written->first;
      const std::optional<Node> node = written->second;
      if (listed != list.end() && listed->first == place.name) ++listed;
      if (node) {
        if (Status status = visit(place.name, *node); !status.ok()) return status;
      }
      written = node_writes_.upper_bound(place);
      continue;
    }
    const auto& [name, node] = *listed;
    if (Status status = visit(name, node); !status.ok()) return status;
    written = node_writes_.upper_bound(NodePlace{parent, name});
    ++listed;
  }
}

// ---- writing

Status Transaction::new_id(NodeId* id) {
  if (reserved_.first <= reserved_.last) {
    *id = reserved_.first++;
  } else if (!build_) {
    if (Status status = core_.ids.take(id, deadline()); !status.ok()) return fail(std::move(status));
  } else {
    // A long build takes blocks for itself, growing ones, so that a few ranges describe all its ids.
    if (Status status = core_.ids.take_block(next_block_, &reserved_, deadline()); !status.ok()) {
      return fail(std::move(status));
    }
    next_block_ = std::min(next_block_ * 2, kLargestBlock);
    *id = reserved_.first++;
  }
  if (!fresh_.empty() && fresh_.back().last + 1 == *id) {
    fresh_.back().last = *id;
  } else {
    fresh_.push_back({*id, *id});
  }
  return {};
}

bool Transaction::goes_ahead(const NodePlace& place, const std::optional<Node>& node) const {
  return is_fresh(place.parent) && (!node || is_fresh(node->id));
}

void Transaction::write(NodePlace place, std::optional<Node> node) {
  node_writes_.insert_or_assign(std::move(place), node);
}

Status Transaction::insert(NodeId parent, std::string_view name, const Node& node) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  if (node.id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a node needs an id"};
  NodePlace place{parent, std::string(name)};
  bool written = false;
  std::optional<Node> own;
  if (Status status = look_up_written(place, &written, &own); !status.ok()) return status;
  if (own) return PRTKV_KEY_EXISTS;
  if (!written) {
    const SeenNode* known = nullptr;
    const bool is_known = stands_by_itself(parent) || nodes_.contains(place) || basis_.nodes.contains(place) ||
                          (use_cache_ && core_.cache.get(place).has_value());
    // A name that nothing is known of is taken to be free: the comparison tells when it is not.
    if (Status status = is_known ? look_up(place, &known) : add_read(place, SeenNode{}, false, &known); !status.ok()) {
      return status;
    }
    if (known->node || !known->damage.ok()) return PRTKV_KEY_EXISTS;
  }
  if (goes_ahead(place, node)) {
    if (Status status = make_room_ahead(kOperationOverhead); !status.ok()) return status;
  }
  write(std::move(place), node);
  return {};
}

Status Transaction::set_security(NodeId parent, std::string_view name, const sec_attr& security) {
  Node node;
  if (Status status = find(parent, name, &node); !status.ok()) return status;
  node.security = security;
  write(NodePlace{parent, std::string(name)}, node);
  return {};
}

Status Transaction::unlink(NodeId parent, std::string_view name) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  NodePlace place{parent, std::string(name)};
  bool written = false;
  std::optional<Node> own;
  // A damaged entry can be taken off: what hangs below it is then found by a check.
  Status status = look_up_written(place, &written, &own);
  if (!failure_.ok()) return failure_;
  if (written && !own && status.ok()) return PRTKV_NO_SUCH_KEY;
  const SeenNode* known = nullptr;
  if (!written) {
    if (status = look_up(place, &known); !status.ok()) return status;
    if (known->mod_revision == 0) return PRTKV_NO_SUCH_KEY;
  }
  const auto read = nodes_.find(place);
  const bool was_there = is_sent_ahead(place) || (read != nodes_.end() && read->second.known.mod_revision != 0);
  if (was_there) {
    write(std::move(place), {});
  } else {
    node_writes_.erase(place);
  }
  return {};
}

Status Transaction::discard(NodeId id) {
  if (id == kNoNode || id == kRootNode) return {PRTKV_INVALID_ARGUMENT, "the root cannot be moved or removed"};
  discarded_.insert(id);
  value_writes_.erase(id);
  return {};
}

std::string Transaction::value_record(NodeId id, std::int32_t type, std::span<const std::byte> bytes) const {
  std::string record(value_record_size(bytes.size()), '\0');
  encode_value(id, type, bytes, std::as_writable_bytes(std::span(record)));
  return record;
}

Status Transaction::set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) {
  if (id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a value needs a node"};
  if (Status status = check_value_size(bytes.size()); !status.ok()) return status;
  if (discarded_.contains(id)) return {};
  if (type == 0 && bytes.empty()) {
    value_writes_[id].reset();
    return {};
  }
  std::string record = value_record(id, type, bytes);  // first: the bytes may be those of another written value
  if (is_fresh(id)) {
    if (Status status = make_room_ahead(record.size() + kOperationOverhead); !status.ok()) return status;
  }
  value_writes_[id] = std::move(record);
  return {};
}

View& Transaction::before() {
  if (!before_) {
    const bool settled = revision_ != 0 && unvalidated_ == 0 && !claims_->has_decided();
    before_ = std::make_unique<RevisionView>(core_, settled ? revision_ : 0);
  }
  long_ = true;
  return *before_;
}

}  // namespace tkv::store::etcd
