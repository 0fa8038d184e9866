#include "transaction.h"

#include <algorithm>
#include <functional>

#include "pager.h"
#include "record.h"
#include "store_limits.h"

namespace tkv::store::etcd {
namespace {

// Comparisons of one transaction, with room for those of the writer and of a build.
constexpr std::size_t kMostCompared = 120;
constexpr std::size_t kMostFromCache = 100;
constexpr int kOperationsPerBatch = 100;
constexpr std::uint64_t kFirstBlock = 1024;
constexpr std::uint64_t kLargestBlock = 65536;
constexpr std::size_t kOperationOverhead = 512;  // key, place and framing of one operation, at the most

Status too_many_reads() {
  return {PRTKV_INVALID_ARGUMENT, "an update that depends on more entries than one transaction of etcd can compare"};
}

Status moved_on() { return {PRTKV_UNREACHABLE, "the registry changed while it was read"}; }

std::size_t hash_of(const Place& place) {
  return std::hash<std::string>()(place.name) ^ (std::hash<NodeId>()(place.parent) * 0x9e3779b97f4a7c15u);
}

}  // namespace

Transaction::Transaction(Core& core, Purpose purpose, Basis basis, Deadline deadline)
    : core_(core),
      purpose_(purpose),
      basis_(std::move(basis)),
      deadline_(deadline),
      first_run_(basis_.revision == 0),
      revision_(basis_.revision),
      use_cache_(first_run_),
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
  return moved_on();
}

bool Transaction::is_fresh(NodeId id) const {
  return std::any_of(fresh_.rbegin(), fresh_.rend(),
                     [id](const IdRange& range) { return range.first <= id && id <= range.last; });
}

bool Transaction::is_sent_ahead(const Place& place) const { return sent_.contains(hash_of(place)); }

// ---- reading

Status Transaction::add_read(const Place& place, Known known, bool validated, const Known** added) {
  if (purpose_ == Purpose::kWrite && nodes_.size() + values_.size() + listings_.size() >= kMostCompared) {
    return fail(too_many_reads());
  }
  if (!validated) ++unvalidated_;
  *added = &nodes_.insert_or_assign(place, std::move(known)).first->second;
  return {};
}

Status Transaction::look_up(const Place& place, const Known** known) {
  if (const auto read = nodes_.find(place); read != nodes_.end()) {
    *known = &read->second;
    return {};
  }
  if (!first_run_ && basis_.revision != 0) {
    if (const auto brought = basis_.nodes.find(place); brought != basis_.nodes.end()) {
      return add_read(place, brought->second, true, known);
    }
  }
  if (use_cache_ && nodes_.size() + values_.size() < kMostFromCache) {
    if (const auto cached = core_.cache.get(place)) return add_read(place, *cached, false, known);
  }
  RangeResponse response;
  if (Status status = fetch(get_one(core_.keys.node(place)), &response, &place); !status.ok()) return status;
  Known fetched = known_of(response, place);
  core_.cache.put(place, fetched);
  return add_read(place, std::move(fetched), true, known);
}

// Reads a range on the state that everything read so far stands on.
Status Transaction::fetch(RangeRequest range, RangeResponse* response, const Place* node) {
  if (!failure_.ok()) return failure_;
  if (again_) return moved_on();
  if (unvalidated_ == 0) {
    range.set_revision(revision_);
    Outcome outcome = core_.cluster->range(range, response, deadline());
    if (outcome.verdict == Verdict::kCompacted) return run_again(true);
    if (!outcome.ok()) return fail(outcome.status);
    if (revision_ == 0) revision_ = response->header().revision();
    return {};
  }
  TxnRequest request;
  add_comparisons(&request);
  *request.add_success()->mutable_request_range() = range;
  add_rereading(&request);
  if (node != nullptr) *request.add_failure()->mutable_request_range() = range;
  TxnResponse answer;
  if (Outcome outcome = core_.cluster->txn(request, &answer, deadline()); !outcome.ok()) return fail(outcome.status);
  if (!answer.succeeded()) {
    learn(answer, node);
    return run_again(false);
  }
  revision_ = answer.header().revision();
  unvalidated_ = 0;
  *response = std::move(*answer.mutable_responses(0)->mutable_response_range());
  return {};
}

// Below ids that only this run knows, nothing needs to be compared.
Status Transaction::read_newest(const RangeRequest& range, RangeResponse* response) {
  if (!failure_.ok()) return failure_;
  const Outcome outcome = core_.cluster->range(range, response, deadline());
  return outcome.ok() ? Status() : fail(outcome.status);
}

void Transaction::add_comparisons(TxnRequest* request) const {
  for (const auto& [place, known] : nodes_) compare_revision(request, core_.keys.node(place), known.mod_revision);
  for (const auto& [id, read] : values_) compare_revision(request, core_.keys.value(id), read.mod_revision);
  for (const Listing& listing : listings_) compare_no_newcomer(request, listing.range, listing.revision);
}

void Transaction::add_rereading(TxnRequest* request) const {
  for (const auto& [place, known] : nodes_) {
    *request->add_failure()->mutable_request_range() = get_one(core_.keys.node(place));
  }
}

// Takes in what the failure branch read: the nodes of this run in their order, and one more.
void Transaction::learn(const TxnResponse& response, const Place* also) {
  basis_ = Basis{response.header().revision(), {}};
  int at = 0;
  const auto take = [&](const Place& place) {
    const Known known = known_of(response.responses(at++).response_range(), place);
    if (known.node) {
      core_.cache.put(place, known);
    } else {
      core_.cache.erase(place);
    }
    basis_.nodes[place] = known;
  };
  for (const auto& [place, known] : nodes_) take(place);
  if (also != nullptr) take(*also);
}

Status Transaction::validate() {
  if (unvalidated_ == 0) return {};
  TxnRequest request;
  add_comparisons(&request);
  add_rereading(&request);
  TxnResponse answer;
  if (Outcome outcome = core_.cluster->txn(request, &answer, deadline()); !outcome.ok()) return fail(outcome.status);
  if (answer.succeeded()) return {};
  learn(answer, nullptr);
  return run_again(false);
}

// What this run itself has made of a place, in memory or sent ahead.
Status Transaction::look_up_written(const Place& place, bool* written, std::optional<Node>* node) {
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
  const Known known = known_of(response, place);
  *node = known.node;
  return known.damage;
}

Status Transaction::find(NodeId parent, std::string_view name, Node* node) {
  const Place place{parent, std::string(name)};
  bool written = false;
  std::optional<Node> own;
  if (Status status = look_up_written(place, &written, &own); !status.ok()) return status;
  if (written) {
    if (!own) return PRTKV_NO_SUCH_KEY;
    *node = *own;
    return {};
  }
  const Known* known = nullptr;
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
  RangeResponse response;
  const RangeRequest request = get_one(core_.keys.value(id));
  if (Status status = fresh ? read_newest(request, &response) : fetch(request, &response, nullptr); !status.ok()) {
    return status;
  }
  if (!fresh && purpose_ == Purpose::kWrite && nodes_.size() + values_.size() + listings_.size() >= kMostCompared) {
    return fail(too_many_reads());
  }
  ReadValue& read = values_[id];
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
  for (auto at = node_writes_.lower_bound(Place{parent, ""}); at != node_writes_.end() && at->first.parent == parent;
       ++at) {
    if (!at->second) ++count;
  }
  return count;
}

bool Transaction::has_written_child(NodeId parent) const {
  for (auto at = node_writes_.lower_bound(Place{parent, ""}); at != node_writes_.end() && at->first.parent == parent;
       ++at) {
    if (at->second) return true;
  }
  return false;
}

Status Transaction::has_children(NodeId parent, bool* answer) {
  *answer = has_written_child(parent);
  if (*answer || discarded_.contains(parent)) return {};
  const bool fresh = is_fresh(parent);
  if (fresh && !build_) return {};
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
  listings_.push_back({core_.keys.children(parent), revision_});
  if (!*answer) {
    childless_.insert(parent);
    return {};
  }
  const Place place = *core_.keys.parse_node(child->key());
  const Known* known = nullptr;
  return nodes_.contains(place) ? Status() : add_read(place, known_of(*child, place), true, &known);
}

Status Transaction::children(NodeId parent, FunctionRef<Status(std::string_view name, const Node& node)> visit) {
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
  Pager pager(*core_.cluster, request);
  pager.continue_after(page);
  while (true) {
    for (const KeyValue& record : page.kvs()) {
      const auto place = core_.keys.parse_node(record.key());
      if (!place) continue;
      const Known known = known_of(record, *place);
      if (!known.damage.ok()) return known.damage.about("subkey '" + place->name + "'");
      if (Status status = visit(place->name, *known.node); !status.ok()) return status;
    }
    if (!pager.more()) return {};
    long_ = true;
    Outcome outcome = pager.next(&page);
    if (outcome.verdict == Verdict::kCompacted) return run_again(true);
    if (!outcome.ok()) return fail(outcome.status);
  }
}

// Each child is compared, and that there are no others: a listing that does not fit that is for `before`.
Status Transaction::list_for_update(NodeId parent, std::vector<std::pair<std::string, Node>>* list) {
  RangeResponse response;
  const RangeRequest request = get_range(core_.keys.children(parent), static_cast<std::int64_t>(kMostCompared));
  if (Status status = fetch(request, &response, nullptr); !status.ok()) return status;
  if (response.more()) return fail(too_many_reads());
  listings_.push_back({core_.keys.children(parent), revision_});
  for (const KeyValue& record : response.kvs()) {
    const auto place = core_.keys.parse_node(record.key());
    if (!place) continue;
    const Known* known = nullptr;
    if (!nodes_.contains(*place)) {
      if (Status status = add_read(*place, known_of(record, *place), true, &known); !status.ok()) return status;
    }
    known = &nodes_[*place];
    if (!known->damage.ok()) return known->damage.about("subkey '" + place->name + "'");
    if (known->node) list->emplace_back(place->name, *known->node);
  }
  return {};
}

Status Transaction::list_below_fresh(NodeId parent, std::vector<std::pair<std::string, Node>>* list) {
  Pager pager(*core_.cluster, get_range(core_.keys.children(parent), kNodesPerPage));
  while (pager.more()) {
    RangeResponse page;
    if (Outcome outcome = pager.next(&page); !outcome.ok()) return fail(outcome.status);
    for (const KeyValue& record : page.kvs()) {
      const auto place = core_.keys.parse_node(record.key());
      if (!place) continue;
      const Known known = known_of(record, *place);
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
  auto written = node_writes_.lower_bound(Place{parent, ""});
  while (true) {
    const bool own = written != node_writes_.end() && written->first.parent == parent;
    if (!own && listed == list.end()) return {};
    if (own && (listed == list.end() || written->first.name <= listed->first)) {
      const Place place = written->first;
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
    written = node_writes_.upper_bound(Place{parent, name});
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

bool Transaction::goes_ahead(const Place& place, const std::optional<Node>& node) const {
  return is_fresh(place.parent) && (!node || is_fresh(node->id));
}

void Transaction::write(Place place, std::optional<Node> node) {
  node_writes_.insert_or_assign(std::move(place), node);
}

Status Transaction::insert(NodeId parent, std::string_view name, const Node& node) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  if (node.id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a node needs an id"};
  Place place{parent, std::string(name)};
  bool written = false;
  std::optional<Node> own;
  if (Status status = look_up_written(place, &written, &own); !status.ok()) return status;
  if (own) return PRTKV_KEY_EXISTS;
  if (!written) {
    const Known* known = nullptr;
    const bool is_known =
        nodes_.contains(place) || basis_.nodes.contains(place) || (use_cache_ && core_.cache.get(place).has_value());
    // A name that nothing is known of is taken to be free: the comparison tells when it is not.
    if (Status status = is_known ? look_up(place, &known) : add_read(place, Known{}, false, &known); !status.ok()) {
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
  write(Place{parent, std::string(name)}, node);
  return {};
}

Status Transaction::unlink(NodeId parent, std::string_view name) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  Place place{parent, std::string(name)};
  bool written = false;
  std::optional<Node> own;
  // A damaged entry can be taken off: what hangs below it is then found by a check.
  Status status = look_up_written(place, &written, &own);
  if (!failure_.ok()) return failure_;
  if (written && !own && status.ok()) return PRTKV_NO_SUCH_KEY;
  const Known* known = nullptr;
  if (!written) {
    if (status = look_up(place, &known); !status.ok()) return status;
    if (known->mod_revision == 0) return PRTKV_NO_SUCH_KEY;
  }
  const auto read = nodes_.find(place);
  const bool was_there = is_sent_ahead(place) || (read != nodes_.end() && read->second.mod_revision != 0);
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
  if (!before_) before_ = std::make_unique<Snapshot>(core_, unvalidated_ == 0 ? revision_ : 0);
  long_ = true;
  return *before_;
}

// ---- building aside

Status Transaction::make_room_ahead(std::size_t bytes) {
  if (ahead_operations_ >= kOperationsPerBatch || ahead_bytes_ + bytes > kMostBytes) {
    if (Status status = send_ahead(); !status.ok()) return status;
  }
  ++ahead_operations_;
  ahead_bytes_ += bytes;
  return {};
}

void Transaction::add_node_write(RequestOp* operation, const Place& place, const std::optional<Node>& node) const {
  if (node) {
    put(operation, core_.keys.node(place), as_text(encode_node(place.parent, place.name, *node)));
  } else {
    erase(operation, core_.keys.node(place));
  }
}

Status Transaction::send_batch(TxnRequest* batch) {
  if (batch->success_size() == 0) return {};
  bool lost = false;
  Status status = build_->send(std::move(*batch), fresh_, &lost);
  batch->Clear();
  if (!status.ok()) return fail(std::move(status));
  return lost ? run_again(true) : Status();
}

Status Transaction::send_ahead() {
  if (!failure_.ok()) return failure_;
  if (again_) return moved_on();
  if (!build_) build_ = std::make_unique<Build>(*core_.cluster, core_.keys);
  long_ = true;
  TxnRequest batch;
  std::size_t bytes = 0;
  const auto make_room = [&](std::size_t more) {
    const bool full = batch.success_size() >= kOperationsPerBatch || bytes + more > kMostBytes;
    bytes = full ? more : bytes + more;
    return full ? send_batch(&batch) : Status();
  };
  for (auto at = node_writes_.begin(); at != node_writes_.end();) {
    const auto& [place, node] = *at;
    if (!goes_ahead(place, node)) {
      ++at;
      continue;
    }
    if (Status status = make_room(kOperationOverhead); !status.ok()) return status;
    add_node_write(batch.add_success(), place, node);
    sent_.insert(hash_of(place));
    at = node_writes_.erase(at);
  }
  for (auto at = value_writes_.begin(); at != value_writes_.end();) {
    auto& [id, record] = *at;
    if (!is_fresh(id)) {
      ++at;
      continue;
    }
    if (Status status = make_room(kOperationOverhead + (record ? record->size() : 0)); !status.ok()) return status;
    if (record) {
      put(batch.add_success(), core_.keys.value(id), std::move(*record));
    } else {
      erase(batch.add_success(), core_.keys.value(id));
    }
    at = value_writes_.erase(at);
  }
  ahead_operations_ = 0;
  ahead_bytes_ = 0;
  return send_batch(&batch);
}

// ---- the end

bool Transaction::has_written() const {
  return !node_writes_.empty() || !value_writes_.empty() || !discarded_.empty() || (build_ && build_->started());
}

bool Transaction::fits(const TxnRequest& request) const {
  return request.success_size() < kMostOperations && request.compare_size() < kMostOperations &&
         request.failure_size() + 1 < kMostOperations && request.ByteSizeLong() <= kMostBytes;
}

void Transaction::make_last(TxnRequest* request) const {
  add_comparisons(request);
  add_rereading(request);
  for (const auto& [place, node] : node_writes_) add_node_write(request->add_success(), place, node);
  for (const auto& [id, record] : value_writes_) {
    if (record) {
      put(request->add_success(), core_.keys.value(id), *record);
    } else {
      erase(request->add_success(), core_.keys.value(id));
    }
  }
  for (const NodeId id : discarded_) {
    if (childless_.contains(id) && !has_written_child(id)) {
      erase(request->add_success(), core_.keys.value(id));
    } else {
      put(request->add_success(), core_.keys.garbage(id), "");
    }
  }
  if (build_ && build_->started()) build_->finish_in(request);
}

void Transaction::remember(std::int64_t revision) {
  for (const auto& [place, node] : node_writes_) {
    if (node) {
      core_.cache.put(place, Known{revision, node, {}});
    } else {
      core_.cache.erase(place);
    }
  }
  build_.reset();
  std::vector<std::string> garbage;
  for (const NodeId id : discarded_) {
    if (!childless_.contains(id) || has_written_child(id)) garbage.push_back(core_.keys.garbage(id));
  }
  core_.sweeper.remove_garbage(garbage);
}

bool Transaction::commit(Status* result) {
  TxnRequest request;
  make_last(&request);
  if (!fits(request)) {
    if (Status status = send_ahead(); !status.ok()) {
      *result = std::move(status);
      return !again_;
    }
    request.Clear();
    make_last(&request);
  }
  if (!fits(request)) {
    *result = {PRTKV_INVALID_ARGUMENT,
               "an update of more than one transaction of etcd holds: " + std::to_string(request.success_size()) +
                   " changes of " + std::to_string(request.ByteSizeLong()) + " bytes"};
    return true;
  }
  Mark mark = core_.writers.take();
  Written written = write_once(*core_.cluster, std::move(request), &mark, core_.writers.next_text(), deadline());
  core_.writers.give_back(std::move(mark));
  if (!written.status.ok()) {
    *result = std::move(written.status);
    return true;
  }
  if (!written.made) {
    learn(written.response, nullptr);
    return false;
  }
  remember(written.revision);
  *result = {};
  return true;
}

bool Transaction::finish(Status* result) {
  if (before_ && !before_->failure().ok()) {
    if (before_->failure().verdict == Verdict::kCompacted) (void)run_again(true);
    (void)fail(before_->failure().status);
  }
  if (again_) return false;
  if (!failure_.ok()) {
    *result = failure_;
    return true;
  }
  if (purpose_ == Purpose::kWrite && result->ok() && has_written()) return commit(result);
  if (Status status = validate(); !status.ok()) {
    *result = std::move(status);
    return !again_;
  }
  return true;
}

}  // namespace tkv::store::etcd
