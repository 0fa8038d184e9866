#include "store/etcd/checker.h"

#include <algorithm>
#include <map>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "store/etcd/build.h"
#include "store/etcd/change_log.h"
#include "store/etcd/change_repair.h"
#include "store/etcd/limits.h"
#include "store/etcd/pager.h"
#include "store/etcd/writer.h"
#include "store/record.h"
#include "store/tree_check.h"

namespace tkv::store::etcd {
namespace {

constexpr std::int64_t kFirstValuesPerPage = 16;

Status changed_meanwhile() { return {PRTKV_BUSY, "another session changed what was to be repaired"}; }

struct NodeEntry {
  NodePlace place;
  NodeId id = kNoNode;
  std::int64_t mod_revision = 0;
};

// A node that a half-made change has moved, and whose former place it has left in the tree.
struct MovedNode {
  NodeEntry now;
  std::optional<NodeEntry> former;
};

class Checker {
 public:
  // `half_made`: that a repair has left.
  Checker(Core& core, const std::vector<HalfMadeChange>& half_made, FunctionRef<void(const Finding&)> report,
          FunctionRef<void(const CheckProgress&)> progress)
      : core_(core), half_made_(half_made), check_(report), report_(report), progress_(progress) {}
  ~Checker() {
    if (mark_) core_.writers.give_back(std::move(*mark_));
  }
  Checker(const Checker&) = delete;
  Checker& operator=(const Checker&) = delete;

  // To be called before read() if there is to be a repair.
  Status begin_repair();
  Status read();
  void finish(Totals* totals) { check_.finish(totals, &removable_); }
  Status repair(const ChangeDescription& description);

 private:
  Status visit(const char* reading, const KeyRange& range, std::int64_t limit,
               FunctionRef<void(const KeyValue&)> visit_record);
  Status settle();
  Status mark_state(bool* marked);
  Status read_leftovers();
  Status read_nodes();
  bool is_of_half_made_change(const Node& node) const;
  void find_former_places();
  bool is_former_place(const NodeEntry& entry) const;
  void report_changes();
  void report_change(NodeId top, const std::string& detail);
  Status read_values();
  Status read_next_id();
  Status read_log();
  void follow_garbage();
  bool is_left_over(NodeId parent) const;
  void add_value(const KeyValue& record);
  void raise_next_id(TxnRequest* request);
  void reset_root(TxnRequest* request);
  void compare_history(TxnRequest* request) const;
  Status remove_former_places(const ChangeDescription& description);
  Status remove_orphans();

  Core& core_;
  const std::vector<HalfMadeChange>& half_made_;
  DamagedDecisions damaged_decisions_;
  bool is_repair_ = false;
  std::optional<Mark> mark_;  // of the repair
  TreeCheck check_;
  FunctionRef<void(const Finding&)> report_;
  FunctionRef<void(const CheckProgress&)> progress_;
  TreeCheck::Removable removable_;
  std::int64_t revision_ = 0;
  std::vector<IdRange> building_;
  std::unordered_set<NodeId> garbage_;
  std::vector<NodeEntry> entries_;
  std::map<NodeId, MovedNode> moved_;
  NodeId largest_id_ = kRootNode;
  Meta meta_;
  std::int64_t meta_revision_ = 0;
  bool meta_is_low_ = false;
  bool log_is_damaged_ = false;
  std::int64_t damaged_root_ = 0;  // its revision
};

Status Checker::visit(const char* reading, const KeyRange& range, std::int64_t limit,
                      FunctionRef<void(const KeyValue&)> visit_record) {
  RangeRequest request = get_range(range, limit);
  request.set_revision(revision_);
  CheckProgress progress{reading, 0, 0};
  Pager pager(*core_.kv, request);
  while (pager.more()) {
    RangeResponse page;
    if (Reply reply = pager.next(&page); !reply.ok()) return reply.status;
    revision_ = pager.revision();
    for (const KeyValue& record : page.kvs()) visit_record(record);
    const std::uint64_t left = static_cast<std::uint64_t>(page.count());  // of the range, this page included
    progress.total = std::max(progress.total, progress.done + left);
    progress.done += static_cast<std::uint64_t>(page.kvs_size());
    progress_(progress);
  }
  return {};
}

Status Checker::read_leftovers() {
  bool damaged = false;
  Status status = visit("changes under way", core_.keys.all_staging(), kMarkersPerPage, [&](const KeyValue& build) {
    if (const auto text = BuildText::parse(build.value())) {
      building_.insert(building_.end(), text->ids.begin(), text->ids.end());
    } else if (core_.keys.parse_staging(build.key())) {
      damaged = true;
      report_change(kNoNode, "the record of a change that is being prepared, '" + build.key() +
                                 "' in etcd, cannot be read; a repair removes it, and what it has staged");
    }
  });
  if (!status.ok()) return status;
  if (is_repair_ && damaged) return changed_meanwhile();  // what is staged seems to be lost
  return visit("removals under way", core_.keys.all_garbage(), kMarkersPerPage, [&](const KeyValue& marker) {
    if (const auto id = core_.keys.parse_garbage(marker.key())) garbage_.insert(*id);
  });
}

bool Checker::is_left_over(NodeId parent) const {
  return garbage_.contains(parent) || std::any_of(building_.begin(), building_.end(), [parent](const IdRange& range) {
           return range.first <= parent && parent <= range.last;
         });
}

Status Checker::read_nodes() {
  Status status = visit("keys", core_.keys.all_nodes(), kNodesPerPage, [&](const KeyValue& record) {
    const auto place = core_.keys.parse_node(record.key());
    if (!place) {
      check_.add_damaged_node(kNoNode, record.key(), "its key is not one of a node");
      return;
    }
    const SeenNode seen = seen_node(record, *place);
    if (seen.node) {
      entries_.push_back({*place, seen.node->id, seen.mod_revision});
      if (is_of_half_made_change(*seen.node)) moved_[seen.node->id].now = entries_.back();
      largest_id_ = std::max({largest_id_, seen.node->id, place->parent});
    } else if (!is_left_over(place->parent)) {
      if (place->parent == kNoNode && place->name.empty()) damaged_root_ = seen.mod_revision;
      check_.add_damaged_node(place->parent, place->name, seen.damage.text());
    }
  });
  if (!status.ok()) return status;
  follow_garbage();
  find_former_places();
  for (const NodeEntry& entry : entries_) {
    const bool is_checked = !is_left_over(entry.place.parent) && !is_former_place(entry);
    if (is_checked) check_.add_node(entry.place.parent, entry.place.name, entry.id);
  }
  report_changes();
  return {};
}

bool Checker::is_of_half_made_change(const Node& node) const {
  return std::any_of(half_made_.begin(), half_made_.end(),
                     [&](const HalfMadeChange& change) { return change.ticket == node.revision; });
}

// A node that the change has put in one place is still in another one if what would have removed it there is lost.
void Checker::find_former_places() {
  if (moved_.empty()) return;
  for (const NodeEntry& entry : entries_) {
    const auto moved = moved_.find(entry.id);
    if (moved != moved_.end() && moved->second.now.place != entry.place) moved->second.former = entry;
  }
}

bool Checker::is_former_place(const NodeEntry& entry) const {
  const auto moved = moved_.find(entry.id);
  return moved != moved_.end() && moved->second.former && moved->second.former->place == entry.place;
}

void Checker::report_changes() {
  for (const auto& [top, damage] : damaged_decisions_) {
    report_change(top, damage.text() + "; a repair makes the change as far as it can be read");
  }
  for (const HalfMadeChange& change : half_made_) report_change(change.top, change.detail);
}

void Checker::report_change(NodeId top, const std::string& detail) {
  const auto entry =
      std::find_if(entries_.begin(), entries_.end(), [top](const NodeEntry& each) { return each.id == top; });
  const NodePlace place = entry == entries_.end() ? NodePlace() : entry->place;
  report_({Finding::Kind::kUnfinishedChange, place.parent, top, place.name, detail});
}

// What hangs below a deleted subtree's top waits to be removed as well. entries_ is sorted by parent.
void Checker::follow_garbage() {
  std::vector<NodeId> pending(garbage_.begin(), garbage_.end());
  while (!pending.empty()) {
    const NodeId parent = pending.back();
    pending.pop_back();
    auto at = std::lower_bound(entries_.begin(), entries_.end(), parent,
                               [](const NodeEntry& entry, NodeId wanted) { return entry.place.parent < wanted; });
    for (; at != entries_.end() && at->place.parent == parent; ++at) {
      if (garbage_.insert(at->id).second) pending.push_back(at->id);
    }
  }
}

void Checker::add_value(const KeyValue& record) {
  const auto id = core_.keys.parse_value(record.key());
  if (!id) {
    check_.add_damaged_value(kNoNode, "its key '" + record.key() + "' is not one of a value");
    return;
  }
  if (is_left_over(*id)) return;
  largest_id_ = std::max(largest_id_, *id);
  Value value;
  const Status status = decode_value(*id, as_bytes(record.value()), &value);
  if (!status.ok()) return check_.add_damaged_value(*id, status.text());
  const bool is_removed = value.type == 0 && value.bytes.empty();
  is_removed ? check_.add_removed_value(*id) : check_.add_value(*id, value.bytes.size());
}

Status Checker::read_values() {
  return visit("values", core_.keys.all_values(), kFirstValuesPerPage,
               [&](const KeyValue& record) { add_value(record); });
}

Status Checker::read_next_id() {
  bool found = false;
  Status damage;
  const std::string key = core_.keys.meta();
  Status status = visit("the id counter", {key, key + '\0'}, 1, [&](const KeyValue& record) {
    found = true;
    meta_revision_ = record.mod_revision();
    damage = decode_meta(as_bytes(record.value()), &meta_);
  });
  if (!status.ok()) return status;
  if (!found) damage = Status(PRTKV_STORAGE_FAILED, "it is missing");
  meta_is_low_ = !damage.ok() || meta_.next_id <= largest_id_;
  if (!damage.ok()) {
    report_({Finding::Kind::kDuplicateId, kNoNode, kNoNode, "",
             "the id counter cannot be read: " + damage.text() + "; a repair sets it"});
  } else if (meta_is_low_) {
    report_({Finding::Kind::kDuplicateId, kNoNode, meta_.next_id, "",
             "the id counter is too low: new keys would get ids that are in use; a repair sets it"});
  }
  return {};
}

// Former versions of the log's key cannot be repaired: etcd removes them when it is compacted.
Status Checker::read_log() {
  const std::string key = core_.keys.log();
  return visit("the log", {key, key + '\0'}, 1, [&](const KeyValue& last) {
    const Status damage = ChangeLog::check(last);
    if (damage.ok()) return;
    log_is_damaged_ = true;
    const auto revision = static_cast<Revision>(last.mod_revision());
    report_({Finding::Kind::kDamagedChange, kNoNode, revision, "", damage.text()});
  });
}

// Chooses the revision at which everything is read: one at which every decision has been carried out. A check without
// a repair accepts damaged decisions and reports them. With a repair there must be none: what is half changed below
// their tops would seem to be lost.
Status Checker::settle() {
  DamagedDecisions* const damaged = is_repair_ ? nullptr : &damaged_decisions_;
  for (bool marked = false; !marked;) {
    RangeResponse counter;
    const Reply settled = core_.recovery.read_settled(get_one(core_.keys.meta()), &counter, &revision_, damaged);
    if (!settled.ok() || !mark_) return settled.status;
    if (Status status = mark_state(&marked); !status.ok()) return status;
  }
  return {};
}

// Rewrites the mark of the repair, unless others have laid claims, and has everything read at the revision of that. A
// snapshot of the cluster that was saved before does not have this mark; to one that was saved later, it applies what
// was read. Without space for the mark there is none.
Status Checker::mark_state(bool* marked) {
  const KnownClaims claims = core_.claims.known();
  if (claims->has_decided()) return {};
  TxnRequest request;
  compare_claims(&request, core_.keys, *claims);
  const Written written =
      write_once(*core_.kv, core_.keys, std::move(request), &*mark_, core_.writers.next_text(), core_.deadline());
  if (written.went_back) return core_.kv->end().status;
  if (written.lost) core_.session.lost(mark_->owner);
  if (written.lost) return changed_meanwhile();
  *marked = written.made || written.status.is(PRTKV_STORAGE_FULL);
  if (written.status.is(PRTKV_STORAGE_FULL)) {
    mark_.reset();
    return {};
  }
  if (written.made) revision_ = written.revision;
  return written.status;
}

Status Checker::read() {
  if (Status status = settle(); !status.ok()) return status;
  if (Status status = read_leftovers(); !status.ok()) return status;
  if (Status status = read_nodes(); !status.ok()) return status;
  if (Status status = read_values(); !status.ok()) return status;
  if (Status status = read_next_id(); !status.ok()) return status;
  return read_log();
}

// Nobody knows which ids above the largest one in use have been used before or reserved by sessions. The counter
// continues far beyond all of them.
void Checker::raise_next_id(TxnRequest* request) {
  constexpr NodeId kBeyond = NodeId{1} << 40;
  meta_.next_id = largest_id_ + kBeyond;
  compare_revision(request, core_.keys.meta(), meta_revision_);
  put(request->add_success(), core_.keys.meta(), as_text(encode_meta(meta_)));
}

// The root's id is known, but its rights are lost: the new record grants none, so that only the superuser has access.
void Checker::reset_root(TxnRequest* request) {
  const std::string key = core_.keys.node({kNoNode, ""});
  compare_revision(request, key, damaged_root_);
  put(request->add_success(), key, as_text(encode_node(kNoNode, "", Node{kRootNode, {}})));
}

// Without space for the session's key there is none: then only deletions are permitted.
Status Checker::begin_repair() {
  is_repair_ = true;
  Owner owner;
  Status status = core_.session.owner(&owner, core_.deadline());
  if (status.is(PRTKV_STORAGE_FULL)) return {};
  if (status.ok()) mark_ = core_.writers.take(owner);
  return status;
}

// Adds the comparison that what was read belongs to this history of the cluster. There is none for a repair without
// space: nothing can be put that an older snapshot would lack.
void Checker::compare_history(TxnRequest* request) const {
  if (mark_) compare_revision(request, mark_->key, mark_->mod_revision);
}

// An orphan at the revision that was checked is still one now, or has been removed since: no entry refers to its
// parent, and ids are never reused. That does not hold in another history of the cluster.
Status Checker::remove_orphans() {
  TxnRequest batch;
  TxnResponse response;
  const auto send = [&]() -> Status {
    if (batch.success_size() == 0) return {};
    compare_history(&batch);
    Reply reply = core_.kv->txn(batch, &response, core_.deadline());
    batch.Clear();
    return reply.ok() && !response.succeeded() ? changed_meanwhile() : reply.status;
  };
  const auto remove_key = [&](std::string key) -> Status {
    erase(batch.add_success(), std::move(key));
    return batch.success_size() < kBatchOperations ? Status() : send();
  };
  for (const TreeCheck::CheckedNode& entry : removable_.nodes) {
    if (Status status = remove_key(core_.keys.node({entry.parent, entry.name})); !status.ok()) return status;
  }
  for (const NodeId id : removable_.values) {
    if (Status status = remove_key(core_.keys.value(id)); !status.ok()) return status;
  }
  return send();
}

// Each compares both places: a node that has been moved again meanwhile is left alone.
Status Checker::remove_former_places(const ChangeDescription& description) {
  constexpr int kPerBatch = kBatchOperations / 2;  // two comparisons each
  TxnRequest batch;
  TxnResponse response;
  const auto send = [&]() -> Status {
    if (batch.success_size() == 0) return {};
    put(batch.add_success(), core_.keys.log(), ChangeLog::encode(description));
    compare_history(&batch);
    const Reply reply = core_.kv->txn(std::exchange(batch, {}), &response, core_.deadline());
    return reply.ok() && !response.succeeded() ? changed_meanwhile() : reply.status;
  };
  for (const auto& [id, moved] : moved_) {
    if (!moved.former) continue;
    for (const NodeEntry& entry : {moved.now, *moved.former}) {
      compare_revision(&batch, core_.keys.node(entry.place), entry.mod_revision);
    }
    erase(batch.add_success(), core_.keys.node(moved.former->place));
    if (batch.success_size() < kPerBatch) continue;
    if (Status status = send(); !status.ok()) return status;
  }
  return send();
}

// The orphans are removed first. Nobody can see them, and etcd permits deletions even while it has no space. Everything
// else is one transaction, which also puts the log record.
Status Checker::repair(const ChangeDescription& description) {
  if (Status status = remove_former_places(description); !status.ok()) return status;
  if (Status status = remove_orphans(); !status.ok()) return status;
  TxnRequest request;
  if (damaged_root_ != 0) reset_root(&request);
  if (meta_is_low_) raise_next_id(&request);
  const bool is_needed = request.success_size() > 0;
  const bool removes = !removable_.nodes.empty() || !removable_.values.empty();
  if (!is_needed && !removes && !log_is_damaged_) return {};
  put(request.add_success(), core_.keys.log(), ChangeLog::encode(description));
  compare_history(&request);
  // A late copy would log the repair once more.
  if (mark_) put(request.add_success(), mark_->key, core_.writers.next_text(), mark_->owner.lease);
  TxnResponse response;
  const Reply reply = core_.kv->txn(request, &response, core_.deadline());
  if (reply.ok() && response.succeeded()) {
    if (mark_) mark_->mod_revision = response.header().revision();
    return {};
  }
  if (reply.status.is(PRTKV_STORAGE_FULL) && !is_needed) return {};
  // What was sent twice may have been made the first time.
  if (reply.repeated) return {PRTKV_UNDECIDED, "it is not known whether the repair was made; check the registry again"};
  return reply.ok() ? changed_meanwhile() : reply.status;
}

// Nobody is told a second time what has been lost.
Status with_losses(Status status, const std::vector<HalfMadeChange>& half_made) {
  if (status.ok() || half_made.empty()) return status;
  std::string text = status.text();
  for (const HalfMadeChange& change : half_made) {
    text += "; at the key with the id " + std::to_string(change.top) + ": " + change.detail;
  }
  return {status.code(), std::move(text)};
}

}  // namespace

Status check_registry(Core& core, const ChangeDescription* repair, FunctionRef<void(const Finding&)> report,
                      FunctionRef<void(const CheckProgress&)> progress, Totals* totals) {
  std::vector<HalfMadeChange> half_made;
  Checker checker(core, half_made, report, progress);
  if (repair == nullptr) {
    Status status = checker.read();
    if (status.ok()) checker.finish(totals);
    return status;
  }
  Status status = repair_changes(core, *repair, &half_made);
  if (status.ok()) status = core.sweeper.sweep_for_repair();
  if (status.ok()) status = checker.begin_repair();
  if (status.ok()) status = checker.read();
  if (status.ok()) checker.finish(totals);
  if (status.ok()) status = checker.repair(*repair);
  return with_losses(std::move(status), half_made);
}

}  // namespace tkv::store::etcd
