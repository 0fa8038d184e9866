#include "store/etcd/read_ahead.h"

#include <algorithm>
#include <limits>

#include "store/etcd/limits.h"
#include "store/record.h"

namespace tkv::store::etcd {
namespace {

constexpr std::size_t kValueBytes = std::size_t{1} << 20;  // of one answer, by the sizes met so far: with those of the
constexpr std::size_t kNodeBytes = kPageBytes;             // nodes they stay under what is received
constexpr std::size_t kLeastRoom = std::size_t{256} << 10;
constexpr std::size_t kMostRuns = 256;
constexpr std::size_t kMostLookedAt = 8192;
constexpr int kDeepest = 64;
constexpr std::size_t kBookkeeping = 96;  // bytes that holding anything takes besides itself

std::size_t size_of(const ChildPage& listing) {
  std::size_t bytes = kBookkeeping;
  for (const Child& child : listing.children) bytes += sizeof(Child) + child.name.size();
  return bytes;
}

std::size_t size_of(const std::optional<KeyValue>& record) {
  return kBookkeeping + (record ? record->value().size() : 0);
}

}  // namespace

ChildPage listing_of(const RangeResponse& response, const Keys& keys) {
  ChildPage listing;
  listing.complete = !response.more();
  listing.children.reserve(static_cast<std::size_t>(response.kvs_size()));
  for (const KeyValue& record : response.kvs()) {
    auto place = keys.parse_node(record.key());
    if (!place) continue;
    SeenNode seen = seen_node(record, *place);
    listing.children.push_back({std::move(place->name), std::move(seen)});
  }
  return listing;
}

// ---- what the walk does

void ReadAhead::Habit::used() { uses_ = std::min(uses_ + 1, kSure); }

void ReadAhead::Habit::wasted() {
  uses_ = std::max(uses_ - 1, 0);
  if (uses_ < kFew) window_ = kFirstWindow;
}

void ReadAhead::Habit::widen() { window_ = std::min(2 * window_, most_); }

void ReadAhead::Size::add(std::size_t total, std::size_t count) {
  if (count == 0) return;
  const std::size_t average = total / count + 1;
  bytes_ = std::max(average, (bytes_ + average) / 2);
}

bool ReadAhead::ask(NodeId id, Sought sought) {
  if (sought == Sought::kValue) asked_value_ = id;
  if (!advance(id)) return false;
  asked_ = id;
  sought_ = sought;
  habit(sought).used();
  return !given_up_ && habit(sought).is_strong() && !holds(id, sought);
}

bool ReadAhead::holds(NodeId id, Sought sought) const {
  return sought == Sought::kValue ? values_.contains(id) : lists_.contains(id);
}

// Goes on to a node; false when it is none of those to come.
bool ReadAhead::advance(NodeId id) {
  for (std::size_t at = runs_.size(); at-- > 0;) {
    Run& run = runs_[at];
    const auto found = std::find(run.ids.begin() + static_cast<std::ptrdiff_t>(run.next), run.ids.end(), id);
    if (found == run.ids.end()) continue;
    const auto next = static_cast<std::size_t>(found - run.ids.begin());
    if (run.begun && next == run.next) return true;
    drop_runs(at + 1);
    for (std::size_t passed = run.next; passed < next; ++passed) drop(run.ids[passed]);
    run.next = next;
    run.begun = true;
    return true;
  }
  return false;
}

void ReadAhead::listed(NodeId parent, const ChildPage& page, bool first) {
  std::size_t at = runs_.size();
  while (at > 0 && runs_[at - 1].parent != parent) --at;
  if (at > 0 && !first) {
    Run& run = runs_[at - 1];
    drop_runs(at);
    if (run.begun) {
      drop(run.ids[run.next]);
      run.ids.erase(run.ids.begin(), run.ids.begin() + static_cast<std::ptrdiff_t>(run.next) + 1);
      run.next = 0;
      run.begun = false;
    }
  } else {
    if (at > 0) drop_runs(at - 1);
    for (std::size_t below = runs_.size(); below-- > 0;) {
      if (runs_[below].begun && runs_[below].ids[runs_[below].next] == parent) drop_runs(below + 1);
    }
    if (runs_.size() == kMostRuns) drop_runs(0);
    runs_.push_back({parent, {}, 0, false});
  }
  Run& run = runs_.back();
  std::size_t bytes = 0;
  std::size_t spare = kMostPlanned - std::min(kMostPlanned, planned());
  for (const Child& child : page.children) {
    bytes += keys_.meta().size() + child.name.size() + kNodeRecordSize + kBookkeeping;
    if (!child.seen.node || spare == 0) continue;
    run.ids.push_back(child.seen.node->id);
    --spare;
  }
  node_size_.add(bytes, page.children.size());
}

std::size_t ReadAhead::planned() const {
  std::size_t ids = 0;
  for (const Run& run : runs_) ids += run.ids.size();
  return ids;
}

void ReadAhead::drop_runs(std::size_t from) {
  while (runs_.size() > from) {
    const Run& run = runs_.back();
    for (std::size_t at = run.next; at < run.ids.size(); ++at) drop(run.ids[at]);
    runs_.pop_back();
  }
}

// Lets go of what is held of a node that was passed, and of all below it.
void ReadAhead::drop(NodeId id) {
  if (const auto value = values_.extract(id)) {
    held_ -= size_of(value.mapped());
    values_habit_.wasted();
  }
  if (const auto list = lists_.extract(id)) {
    held_ -= list.mapped().bytes;
    if (!list.mapped().used) lists_habit_.wasted();
    for (const Child& child : list.mapped().listing.children) {
      if (child.seen.node) drop(child.seen.node->id);
    }
  }
}

// ---- what to fetch

bool ReadAhead::visit_below(NodeId id, int depth, FunctionRef<bool(NodeId)> visit) const {
  if (!visit(id)) return false;
  const auto list = lists_.find(id);
  if (list == lists_.end() || depth == kDeepest) return true;  // damage can hang a node below itself
  for (const Child& child : list->second.listing.children) {
    if (child.seen.node && !visit_below(child.seen.node->id, depth + 1, visit)) return false;
  }
  return true;
}

// Visits the nodes that the walk comes to, as far as they are known, until `visit` is false.
void ReadAhead::visit_coming(FunctionRef<bool(NodeId)> visit) const {
  for (std::size_t at = runs_.size(); at-- > 0;) {
    const Run& run = runs_[at];
    const bool is_past = run.begun && at + 1 < runs_.size();
    for (std::size_t next = run.next + (is_past ? 1 : 0); next < run.ids.size(); ++next) {
      if (!visit_below(run.ids[next], 0, visit)) return;
    }
  }
}

ReadAhead::Wanted ReadAhead::want(std::size_t most_values, std::size_t most_lists) const {
  Wanted wanted;
  (sought_ == Sought::kValue ? wanted.values : wanted.lists).push_back(asked_);
  std::size_t looked_at = 0;
  visit_coming([&](NodeId id) {
    const bool is_asked = id == asked_;
    if (wanted.values.size() < most_values && id != asked_value_ && !values_.contains(id)) wanted.values.push_back(id);
    if (wanted.lists.size() < most_lists && !(is_asked && sought_ == Sought::kChildren) && !lists_.contains(id)) {
      wanted.lists.push_back(id);
    }
    return ++looked_at < kMostLookedAt && (wanted.values.size() < most_values || wanted.lists.size() < most_lists);
  });
  return wanted;
}

// When so much is held already, it is of nodes far from here.
void ReadAhead::make_room() {
  if (held_ + kLeastRoom <= kMostHeld) return;
  values_.clear();
  lists_.clear();
  held_ = 0;
}

// Chooses the operations of the next request, of the nearest nodes as many as one transaction takes.
void ReadAhead::choose(std::size_t room) {
  const auto most = [&](Habit& of, Sought sought, std::size_t fitting) -> std::size_t {
    if (!of.is_strong()) return sought == sought_ ? 1 : 0;
    return std::max<std::size_t>(1, std::min(of.window(), fitting));
  };
  std::size_t most_values = most(values_habit_, Sought::kValue, value_size_.in(std::min(kValueBytes, room / 3)));
  std::size_t most_lists = most(lists_habit_, Sought::kChildren, std::numeric_limits<std::size_t>::max());
  const auto add = [&](std::vector<NodeId> ids, Sought sought) {
    std::size_t count = 0;
    std::sort(ids.begin(), ids.end());
    for (const NodeId id : ids) {
      if (count > 0 && id == operations_.back().last) continue;
      if (count > 0 && id == operations_.back().last + 1) {
        operations_.back().last = id;
      } else {
        operations_.push_back({sought, id, id});
        ++count;
      }
    }
    return count;
  };
  while (true) {
    Wanted wanted = want(most_values, most_lists);
    operations_.clear();
    const std::size_t of_values = add(std::move(wanted.values), Sought::kValue);
    const std::size_t of_lists = add(std::move(wanted.lists), Sought::kChildren);
    if (of_values + of_lists <= static_cast<std::size_t>(kMaxTxnOperations)) return;
    std::size_t& larger = of_values > of_lists ? most_values : most_lists;
    larger = (larger + 1) / 2;
  }
}

std::optional<TxnRequest> ReadAhead::request(std::int64_t revision) {
  make_room();
  const std::size_t room = (kMostHeld - held_) / 2;
  choose(room);
  const Operation& only = operations_.front();
  if (operations_.size() == 1 && only.sought == Sought::kValue && only.first == only.last) return {};
  const auto of_lists = static_cast<std::size_t>(std::count_if(
      operations_.begin(), operations_.end(), [](const Operation& each) { return each.sought == Sought::kChildren; }));
  const std::size_t nodes = node_size_.in(std::min(kNodeBytes, room / 3 * 2));
  const std::size_t share = of_lists == 0 ? 0 : std::clamp<std::size_t>(nodes / of_lists, 1, kNodesPerPage);
  TxnRequest request;
  for (const Operation& operation : operations_) {
    RangeRequest* range = request.add_success()->mutable_request_range();
    if (operation.sought == Sought::kValue) {
      const auto count = static_cast<std::int64_t>(operation.last - operation.first + 1);
      *range = get_range(keys_.values_of(operation.first, operation.last), count);
    } else {
      *range = get_range(keys_.nodes_below(operation.first, operation.last), static_cast<std::int64_t>(share));
    }
    range->set_revision(revision);
  }
  return request;
}

void ReadAhead::ask_for_less() {
  values_habit_.narrow();
  lists_habit_.narrow();
  value_size_.enlarge();
  node_size_.enlarge();
}

// ---- what was fetched

void ReadAhead::keep(TxnResponse* answer) {
  bool values = false;
  bool lists = false;
  const auto answered = std::min(operations_.size(), static_cast<std::size_t>(answer->responses_size()));
  for (std::size_t at = 0; at < answered; ++at) {
    RangeResponse* range = answer->mutable_responses(static_cast<int>(at))->mutable_response_range();
    if (operations_[at].sought == Sought::kValue) {
      keep_values(operations_[at], range);
      values = true;
    } else {
      keep_lists(operations_[at], *range);
      lists = true;
    }
  }
  if (values) values_habit_.widen();
  if (lists) lists_habit_.widen();
}

bool ReadAhead::is_for_keeping(NodeId id, Sought sought) const {
  return (held_ < kMostHeld || (id == asked_ && sought == sought_)) && !holds(id, sought);
}

void ReadAhead::keep_values(const Operation& operation, RangeResponse* answer) {
  std::unordered_map<NodeId, KeyValue*> records;
  NodeId last = operation.last;
  std::size_t bytes = 0;
  for (KeyValue& record : *answer->mutable_kvs()) {
    const auto id = keys_.parse_value(record.key());
    if (!id) continue;
    bytes += record.ByteSizeLong();
    records[*id] = &record;
    if (answer->more()) last = *id;
  }
  if (answer->more() && records.empty()) return;
  value_size_.add(bytes, static_cast<std::size_t>(last - operation.first + 1));
  for (NodeId id = operation.first;; ++id) {
    const auto found = records.find(id);
    if (is_for_keeping(id, Sought::kValue)) {
      hold_value(id, found == records.end() ? std::nullopt : std::optional(std::move(*found->second)));
    }
    if (id == last) return;
  }
}

// The answer goes through the parents in order, and may end within the children of one.
void ReadAhead::keep_lists(const Operation& operation, const RangeResponse& answer) {
  std::unordered_map<NodeId, ChildPage> lists;
  NodeId last = operation.last;
  for (const KeyValue& record : answer.kvs()) {
    auto place = keys_.parse_node(record.key());
    if (!place) continue;
    SeenNode seen = seen_node(record, *place);
    lists[place->parent].children.push_back({std::move(place->name), std::move(seen)});
    if (answer.more()) last = place->parent;
  }
  if (answer.more() && lists.empty()) return;
  if (answer.more()) lists[last].complete = false;
  for (NodeId id = operation.first;; ++id) {
    if (is_for_keeping(id, Sought::kChildren)) hold_list(id, std::move(lists[id]));
    if (id == last) return;
  }
}

void ReadAhead::hold_value(NodeId id, std::optional<KeyValue> record) {
  held_ += size_of(record);
  values_.emplace(id, std::move(record));
}

void ReadAhead::hold_list(NodeId id, ChildPage listing) {
  const std::size_t bytes = size_of(listing);
  held_ += bytes;
  lists_.emplace(id, HeldPage{std::move(listing), bytes, false});
}

bool ReadAhead::take_value(NodeId id, std::optional<KeyValue>* record) {
  const auto found = values_.extract(id);
  if (!found) return false;
  held_ -= size_of(found.mapped());
  *record = std::move(found.mapped());
  return true;
}

bool ReadAhead::take_children(NodeId id, ChildPage* listing) {
  const auto found = lists_.extract(id);
  if (!found) return false;
  held_ -= found.mapped().bytes;
  *listing = std::move(found.mapped().listing);
  return true;
}

bool ReadAhead::has_children(NodeId id, bool* answer) {
  const auto found = lists_.find(id);
  if (found == lists_.end()) return false;
  found->second.used = true;
  *answer = !found->second.listing.children.empty();
  return true;
}

}  // namespace tkv::store::etcd
