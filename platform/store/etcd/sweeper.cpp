#include "sweeper.h"

#include <exception>
#include <unordered_set>

#include "owner.h"
#include "pager.h"
#include "record.h"

namespace tkv::store::etcd {
namespace {

constexpr int kParentsPerLook = 32;  // whose children are asked for at once
constexpr int kChildrenPerParent = 32;
constexpr int kRemovalsPerBatch = 120;
constexpr std::int64_t kKeysPerSweep = 500;
constexpr std::int64_t kMarkersPerLook = 100;
constexpr std::int64_t kOldSeconds = 24 * 60 * 60;  // a write is long over
constexpr std::chrono::milliseconds kMoment{250};
constexpr std::chrono::milliseconds kGrace{1000};

bool is_old_mark(const KeyValue& mark, std::int64_t now) {
  const MarkText text = parse_mark(mark.value());
  return now - text.seconds > kOldSeconds || has_ended(text.owner);
}

bool is_abandoned_build(const KeyValue& build, std::int64_t now) {
  const auto text = StagingText::parse(build.value());
  return !text || text->is_abandoned(now);
}

}  // namespace

Sweeper::~Sweeper() {
  if (!cluster_.is_ours()) {
    // The thread stayed with the parent of the fork; there is nothing here to wait for.
    if (thread_.joinable()) thread_.detach();
    return;
  }
  {
    std::unique_lock lock(mutex_);
    idle_.wait_for(lock, kGrace, [this] { return !working_; });
    stop_ = true;
  }
  if (thread_.joinable()) thread_.join();
}

void Sweeper::remove_garbage(const std::vector<std::string>& keys) {
  const Deadline moment(kMoment);
  for (const std::string& key : keys) {
    const Status status = sweep_garbage(key, [&] { return moment.left().count() == 0; });
    if (!status.ok()) add({Job::Kind::kGarbage, key});
  }
}

void Sweeper::give_up_build(std::string key) { add({Job::Kind::kOwnBuild, std::move(key)}); }

void Sweeper::add(Job job) {
  const std::lock_guard lock(mutex_);
  jobs_.push_back(std::move(job));
  if (working_ || stop_) return;
  if (thread_.joinable()) thread_.join();  // it has left its loop
  try {
    thread_ = std::thread([this] { work(); });
    working_ = true;
  } catch (const std::system_error&) {
    jobs_.clear();  // no thread to be had: the keys remain for the next session
  }
}

bool Sweeper::stopping() {
  const std::lock_guard lock(mutex_);
  return stop_;
}

// A failure ends the work, not the process: the keys that are left tell the next session what there is to do.
void Sweeper::work() {
  while (true) {
    Job job;
    {
      const std::lock_guard lock(mutex_);
      if (stop_ || jobs_.empty()) {
        working_ = false;
        idle_.notify_all();
        return;
      }
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    Status status;
    try {
      status = carry_out(job);
    } catch (const std::exception&) {
      status = PRTKV_OUT_OF_MEMORY;
    }
    if (status.ok()) continue;
    const std::lock_guard lock(mutex_);
    jobs_.clear();
  }
}

Status Sweeper::carry_out(const Job& job) {
  switch (job.kind) {
    case Job::Kind::kGarbage:
      return sweep_garbage(job.key, [this] { return stopping(); });
    case Job::Kind::kOwnBuild:
      return sweep_build(job.key, true);
    case Job::Kind::kBuild:
      return sweep_build(job.key, false);
    case Job::Kind::kLookAround:
      return sweep_all();
  }
  return {};
}

Status Sweeper::remove(TxnRequest* batch) {
  if (batch->success_size() == 0) return {};
  TxnResponse response;
  Outcome outcome = cluster_.txn(*batch, &response, Deadline(cluster_.timeout()));
  batch->Clear();
  return outcome.status;
}

Status Sweeper::sweep_garbage(const std::string& key, Stop stop) {
  const auto top = keys_.parse_garbage(key);
  TxnRequest batch;
  if (top) {
    if (Status status = sweep_below(*top, stop); !status.ok()) return status;
    erase(batch.add_success(), keys_.value(*top));
  }
  erase(batch.add_success(), key);
  return remove(&batch);
}

// Depth first, with the children of several parents asked for at once. An entry is removed after all that hangs below
// it, or in one transaction with it, so that an interrupted removal leaves nothing that cannot be reached from the top.
Status Sweeper::sweep_below(NodeId top, Stop stop) {
  struct Item {
    std::string key;  // of the entry; empty for the top, which hangs nowhere
    NodeId id = kNoNode;
    bool looked = false;
    bool more = false;  // there are children that were not asked for yet
  };
  std::vector<Item> pending;
  std::unordered_set<NodeId> seen{top};  // a damaged tree may have loops
  pending.push_back({"", top});
  TxnRequest batch;
  while (!pending.empty()) {
    if (stop()) return PRTKV_UNREACHABLE;
    if (Item& last = pending.back(); last.looked) {
      if (last.more) {
        // Its first children are in the batch: only when they are gone do the next ones come up.
        if (Status status = remove(&batch); !status.ok()) return status;
        last.looked = false;
        continue;
      }
      if (!last.key.empty()) {
        erase(batch.add_success(), last.key);
        if (last.id != kNoNode) erase(batch.add_success(), keys_.value(last.id));
      }
      pending.pop_back();
      if (batch.success_size() + 2 > kRemovalsPerBatch) {
        if (Status status = remove(&batch); !status.ok()) return status;
      }
      continue;
    }
    TxnRequest look;
    std::size_t first = pending.size();
    while (first > 0 && !pending[first - 1].looked && look.success_size() < kParentsPerLook) {
      *look.add_success()->mutable_request_range() = get_range(keys_.children(pending[--first].id), kChildrenPerParent);
    }
    TxnResponse found;
    if (Outcome outcome = cluster_.txn(look, &found, Deadline(cluster_.timeout())); !outcome.ok()) {
      return outcome.status;
    }
    const std::size_t parents = pending.size();
    for (int i = 0; i < found.responses_size(); ++i) {
      const RangeResponse& children = found.responses(i).response_range();
      Item& parent = pending[parents - 1 - static_cast<std::size_t>(i)];
      parent.looked = true;
      parent.more = children.more();
      for (const KeyValue& child : children.kvs()) {
        Node node;
        const auto place = keys_.parse_node(child.key());
        const bool sound = place && decode_node(place->parent, place->name, as_bytes(child.value()), &node).ok();
        // What hangs below a damaged entry is not known; a check finds it.
        const bool descend = sound && seen.insert(node.id).second;
        pending.push_back({child.key(), sound ? node.id : kNoNode, !descend, false});
      }
    }
  }
  return remove(&batch);
}

// First makes sure that the build cannot be finished any more, then removes what it sent ahead.
Status Sweeper::sweep_build(const std::string& key, bool ours) {
  RangeResponse found;
  if (Outcome outcome = cluster_.range(get_one(key), &found, Deadline(cluster_.timeout())); !outcome.ok()) {
    return outcome.status;
  }
  if (found.kvs_size() == 0) return {};
  auto text = StagingText::parse(found.kvs(0).value());
  if (text && !text->given_up) {
    if (!ours && !text->is_abandoned(seconds_now())) return {};
    text->given_up = true;
    TxnRequest fence;
    compare_revision(&fence, key, found.kvs(0).mod_revision());
    put(fence.add_success(), key, text->print());
    TxnResponse response;
    Outcome outcome = cluster_.txn(fence, &response, Deadline(cluster_.timeout()));
    if (!outcome.ok()) return outcome.status;
    // It went on, or came to its end, or another sweeper was quicker; a repetition may also have met its own writing.
    if (!response.succeeded()) return outcome.repeated ? sweep_build(key, ours) : Status();
  }
  if (text) {
    for (const IdRange& ids : text->ids) {
      if (Status status = sweep_range(keys_.nodes_below(ids.first, ids.last)); !status.ok()) return status;
      if (Status status = sweep_range(keys_.values_of(ids.first, ids.last)); !status.ok()) return status;
    }
  }
  TxnRequest last;
  erase(last.add_success(), key);
  return remove(&last);
}

Status Sweeper::sweep_range(const KeyRange& range) {
  while (true) {
    if (stopping()) return PRTKV_UNREACHABLE;
    RangeRequest request = get_range(range, kKeysPerSweep);
    request.set_keys_only(true);
    RangeResponse page;
    if (Outcome outcome = cluster_.range(request, &page, Deadline(cluster_.timeout())); !outcome.ok()) {
      return outcome.status;
    }
    if (page.kvs_size() == 0) return {};
    TxnRequest batch;
    erase(batch.add_success(), KeyRange{range.begin, page.kvs(page.kvs_size() - 1).key() + '\0'});
    if (Status status = remove(&batch); !status.ok()) return status;
    if (!page.more()) return {};
  }
}

void Sweeper::found(const RangeResponse& garbage, const RangeResponse& staging, const RangeResponse& writers) {
  const std::int64_t now = seconds_now();
  bool work = garbage.kvs_size() > 0;
  for (const KeyValue& build : staging.kvs()) work = work || is_abandoned_build(build, now);
  for (const KeyValue& mark : writers.kvs()) work = work || is_old_mark(mark, now);
  if (work) add({Job::Kind::kLookAround, ""});
}

Status Sweeper::sweep_all() {
  const std::int64_t now = seconds_now();
  TxnRequest marks;
  Pager writers(cluster_, get_range(keys_.all_writers(), kMarkersPerLook));
  while (writers.more()) {
    RangeResponse page;
    if (Outcome outcome = writers.next(&page); !outcome.ok()) return outcome.status;
    for (const KeyValue& mark : page.kvs()) {
      if (!is_old_mark(mark, now)) continue;
      erase(marks.add_success(), mark.key());
      if (marks.success_size() < kRemovalsPerBatch) continue;
      if (Status status = remove(&marks); !status.ok()) return status;
    }
  }
  if (Status status = remove(&marks); !status.ok()) return status;

  Pager builds(cluster_, get_range(keys_.all_staging(), kMarkersPerLook));
  while (builds.more()) {
    RangeResponse page;
    if (Outcome outcome = builds.next(&page); !outcome.ok()) return outcome.status;
    for (const KeyValue& build : page.kvs()) {
      if (!is_abandoned_build(build, now)) continue;
      if (Status status = sweep_build(build.key(), false); !status.ok()) return status;
    }
  }

  RangeRequest request = get_range(keys_.all_garbage(), kMarkersPerLook);
  request.set_keys_only(true);
  Pager garbage(cluster_, request);
  while (garbage.more()) {
    RangeResponse page;
    if (Outcome outcome = garbage.next(&page); !outcome.ok()) return outcome.status;
    for (const KeyValue& top : page.kvs()) {
      if (Status status = sweep_garbage(top.key(), [this] { return stopping(); }); !status.ok()) return status;
    }
  }
  return {};
}

}  // namespace tkv::store::etcd
