#include "store/etcd/sweeper.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <sstream>
#include <utility>

#include "store/etcd/limits.h"
#include "store/etcd/pager.h"
#include "store/record.h"

namespace tkv::store::etcd {
namespace {

constexpr std::size_t kParentsPerLook = 120;  // whose children are asked for at once
constexpr std::size_t kChildrenPerLook = 2000;
constexpr std::chrono::milliseconds kSoon{30000};  // when a session that may have died will be known to have
constexpr std::chrono::milliseconds kGrace{1000};

// Ends the removal of one thing, and is no failure: its marker is gone.
constexpr prtkv_result kMarkerGone = PRTKV_NO_SUCH_KEY;

// Whether a failure concerns one thing that is to be removed or carried out, and may not concern the next one.
bool is_of_one(const Status& status) { return status.is(PRTKV_STORAGE_FULL) || status.is(PRTKV_STORAGE_FAILED); }

// The failures of several steps: the first one counts.
class Steps {
 public:
  // Returns false if the steps after this one need not be tried.
  bool take(Status status) {
    const bool goes_on = status.ok() || is_of_one(status);
    if (first_.ok() || !goes_on) first_ = std::move(status);
    return goes_on;
  }

  Status result() { return std::move(first_); }

 private:
  Status first_;
};

Status unless_gone(Status status) { return status.is(kMarkerGone) ? Status() : std::move(status); }

// A mark that names a process, "NUMBER SECONDS OWNER", as former releases wrote it. Nothing else removes it.
bool is_former_mark(const Keys& keys, const KeyValue& mark) {
  if (!keys.is_writer(mark.key()) || mark.lease() != 0) return false;
  std::istringstream words(mark.value().starts_with("not ") ? mark.value().substr(4) : mark.value());
  std::uint64_t number = 0;
  std::int64_t seconds = 0;
  std::string owner;
  return static_cast<bool>(words >> number >> seconds >> owner);
}

}  // namespace

Sweeper::~Sweeper() {
  if (!kv_.is_ours()) {
    // The thread stayed in the parent process; there is nothing to wait for.
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

void Sweeper::remove_garbage(const std::vector<std::string>& keys, std::chrono::milliseconds moment) {
  const Deadline end(moment);
  const auto stop = [&] { return end.left().count() == 0; };
  for (const std::string& key : keys) {
    if (!sweep_garbage(key, Pace{stop, moment}).ok()) add({Job::Kind::kGarbage, key});
  }
}

void Sweeper::remove_unmarked(const std::vector<Unmarked>& unlinked, std::chrono::milliseconds moment) {
  const Deadline end(moment);
  const auto stop = [&] { return end.left().count() == 0; };
  for (const Unmarked& each : unlinked) {
    if (!sweep_unmarked(each, Pace{stop, moment}).ok()) add({Job::Kind::kUnmarkedGarbage, "", each});
  }
}

std::int64_t Sweeper::time_after(std::chrono::milliseconds from_now) {
  const auto then = std::chrono::steady_clock::now() + from_now;
  return std::chrono::duration_cast<std::chrono::milliseconds>(then.time_since_epoch()).count();
}

void Sweeper::look_around_when_due() {
  std::int64_t due = next_look_;
  if (time_after({}) < due || !kv_.is_ours()) return;
  if (!next_look_.compare_exchange_strong(due, time_after(interval_))) return;
  look_around();
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
    jobs_.clear();  // no thread can be started: the keys remain for another session
  }
}

bool Sweeper::stopping() {
  const std::lock_guard lock(mutex_);
  return stop_;
}

// A failure ends the work, not the process: the keys that remain tell the next session what is to be done.
void Sweeper::work() {
  const auto stop = [this] { return stopping(); };
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
      status = carry_out(job, Pace{stop, kv_.timeout()});
    } catch (const std::exception&) {
      status = PRTKV_OUT_OF_MEMORY;
    }
    if (status.ok()) continue;
    const std::lock_guard lock(mutex_);
    jobs_.clear();
  }
}

Status Sweeper::carry_out(const Job& job, const Pace& pace) {
  switch (job.kind) {
    case Job::Kind::kGarbage:
      return sweep_garbage(job.key, pace);
    case Job::Kind::kUnmarkedGarbage:
      return sweep_unmarked(job.unmarked, pace);
    case Job::Kind::kOwnBuild:
      return sweep_build(job.key, Whose::kOurs, pace);
    case Job::Kind::kLookAround:
      return sweep_all(pace);
  }
  return {};
}

Status Sweeper::remove(TxnRequest* batch, const Pace& pace) {
  if (batch->success_size() == 0) return {};
  TxnResponse response;
  Reply reply = kv_.txn(*batch, &response, Deadline(pace.request));
  batch->Clear();
  return reply.status;
}

Status Sweeper::remove_marked(TxnRequest* batch, Marker* marker, const Pace& pace) {
  if (batch->success_size() == 0) return {};
  const TxnRequest removals = std::exchange(*batch, {});
  if (marker->unmarked) return remove_unmarked(removals, marker, pace);
  TxnRequest request = removals;
  compare_revision(&request, marker->key, *marker->revision);
  if (!marker->ended_session.empty()) compare_ended(&request, keys_, marker->ended_session);
  TxnResponse response;
  Reply reply = kv_.txn(request, &response, Deadline(pace.request));
  return reply.ok() && !response.succeeded() ? Status(kMarkerGone) : reply.status;
}

Status Sweeper::remove_unmarked(const TxnRequest& batch, Marker* marker, const Pace& pace) {
  const Unmarked& unlinked = *marker->unmarked;
  for (int tries = 0; tries < 2; ++tries) {
    TxnRequest request = batch;
    compare_revision(&request, keys_.node(unlinked.place), 0);
    if (marker->log_is_back) {
      compare_created_after(&request, keys_.log(), unlinked.unlinked_at);
    } else {
      compare_revision(&request, keys_.log(), 0);
    }
    TxnResponse response;
    Reply reply = kv_.txn(request, &response, Deadline(pace.request));
    if (!reply.ok() || response.succeeded()) return reply.status;
    marker->log_is_back = !marker->log_is_back;
  }
  return kMarkerGone;
}

Status Sweeper::sweep_garbage(const std::string& key, const Pace& pace) {
  const auto top = keys_.parse_garbage(key);
  if (!top) return {};
  Marker marker{key, std::nullopt};
  TxnRequest batch;
  std::unordered_set<NodeId> seen{*top};
  if (Status status = sweep_below({*top}, &seen, &marker, pace); !status.ok()) return unless_gone(std::move(status));
  erase(batch.add_success(), keys_.value(*top));
  erase(batch.add_success(), key);
  return unless_gone(remove_marked(&batch, &marker, pace));
}

Status Sweeper::sweep_unmarked(const Unmarked& unlinked, const Pace& pace) {
  Marker marker{.key = "", .revision = 0, .unmarked = unlinked};
  TxnRequest batch;
  std::unordered_set<NodeId> seen{unlinked.top};
  Status status = sweep_below({unlinked.top}, &seen, &marker, pace);
  if (!status.ok()) return unless_gone(std::move(status));
  erase(batch.add_success(), keys_.value(unlinked.top));
  return unless_gone(remove_marked(&batch, &marker, pace));
}

namespace {

// One removal for each run of ids without gaps.
std::vector<IdRange> runs_of(std::vector<NodeId> ids) {
  std::sort(ids.begin(), ids.end());
  std::vector<IdRange> runs;
  for (const NodeId id : ids) {
    if (!runs.empty() && id <= runs.back().last + 1) {
      runs.back().last = id;
    } else {
      runs.push_back({id, id});
    }
  }
  return runs;
}

}  // namespace

// Removes everything below `parents`, depth first, reading the children of many parents at once. An entry is removed
// after everything below it, so that an interrupted removal leaves nothing that cannot be reached from the top. Nobody
// adds anything meanwhile, since nobody can reach an unlinked subtree. The first look reads the marker as well.
Status Sweeper::sweep_below(std::vector<NodeId> parents, std::unordered_set<NodeId>* seen, Marker* marker,
                            const Pace& pace) {
  while (!parents.empty()) {
    if (pace.stop()) return PRTKV_UNREACHABLE;
    const std::size_t count = std::min(parents.size(), kParentsPerLook);
    TxnRequest look;
    for (std::size_t i = 0; i < count; ++i) {
      *look.add_success()->mutable_request_range() = get_range(keys_.children(parents[parents.size() - 1 - i]),
                                                               static_cast<std::int64_t>(kChildrenPerLook / count));
    }
    if (!marker->revision) *look.add_success()->mutable_request_range() = get_one(marker->key);
    TxnResponse found;
    if (Reply reply = kv_.txn(look, &found, Deadline(pace.request)); !reply.ok()) return reply.status;
    if (!marker->revision) {
      const RangeResponse& mark = found.responses(static_cast<int>(count)).response_range();
      if (mark.kvs_size() == 0) return kMarkerGone;
      marker->revision = mark.kvs(0).mod_revision();
    }
    std::vector<KeyRange> entries;
    std::vector<NodeId> children;
    std::vector<NodeId> unfinished;
    for (std::size_t i = 0; i < count; ++i) {
      const RangeResponse& page = found.responses(static_cast<int>(i)).response_range();
      if (page.more()) unfinished.push_back(parents[parents.size() - 1 - i]);
      if (page.kvs_size() == 0) continue;
      entries.push_back({page.kvs(0).key(), page.kvs(page.kvs_size() - 1).key() + '\0'});
      for (const KeyValue& child : page.kvs()) {
        Node node;
        const auto place = keys_.parse_node(child.key());
        // What is below a damaged entry is unknown; a check finds it. A damaged tree may also have loops.
        if (place && decode_node(place->parent, place->name, as_bytes(child.value()), &node).ok() &&
            seen->insert(node.id).second) {
          children.push_back(node.id);
        }
      }
    }
    found.Clear();
    parents.resize(parents.size() - count);
    if (Status status = sweep_below(children, seen, marker, pace); !status.ok()) return status;
    if (Status status = remove_children(entries, children, marker, pace); !status.ok()) return status;
    parents.insert(parents.end(), unfinished.begin(), unfinished.end());
  }
  return {};
}

// Values first: once an entry is gone, nothing tells whose a value was.
Status Sweeper::remove_children(const std::vector<KeyRange>& entries, const std::vector<NodeId>& ids, Marker* marker,
                                const Pace& pace) {
  TxnRequest batch;
  const auto add = [&](KeyRange range) -> Status {
    erase(batch.add_success(), std::move(range));
    return batch.success_size() < kBatchRemovals ? Status() : remove_marked(&batch, marker, pace);
  };
  for (const IdRange& run : runs_of(ids)) {
    if (Status status = add(keys_.values_of(run.first, run.last)); !status.ok()) return status;
  }
  for (const KeyRange& range : entries) {
    if (Status status = add(range); !status.ok()) return status;
  }
  return remove_marked(&batch, marker, pace);
}

// First makes sure that the build cannot go on, then removes what it has staged.
Status Sweeper::sweep_build(const std::string& key, Whose whose, const Pace& pace) {
  RangeResponse found;
  if (Reply reply = kv_.range(get_one(key), &found, Deadline(pace.request)); !reply.ok()) return reply.status;
  const auto token = keys_.parse_staging(key);
  if (found.kvs_size() == 0 || !token) return {};
  const auto text = BuildText::parse(found.kvs(0).value());
  if (!text) return {};
  Marker marker{key, std::nullopt};
  if (text->given_up) {
    marker.revision = found.kvs(0).mod_revision();
  } else if (Status status = give_up(found.kvs(0), *text, whose, &marker, pace); !status.ok()) {
    return status;
  }
  if (!marker.revision) {
    next_look_ = time_after(std::min(interval_, kSoon));
    return {};
  }
  if (Status status = sweep_given_up(*token, *text, &marker, pace); !status.ok()) return unless_gone(std::move(status));
  return sweep_claims(pace);
}

Status Sweeper::sweep_given_up(const std::string& token, const BuildText& text, Marker* marker, const Pace& pace) {
  if (Status status = sweep_range(keys_.all_of_plan(token), marker, pace); !status.ok()) return status;
  for (const IdRange& ids : text.ids) {
    if (Status status = sweep_range(keys_.nodes_below(ids.first, ids.last), marker, pace); !status.ok()) return status;
    if (Status status = sweep_range(keys_.values_of(ids.first, ids.last), marker, pace); !status.ok()) return status;
  }
  TxnRequest last;
  erase(last.add_success(), marker->key);
  return remove_marked(&last, marker, pace);
}

// Sets the marker's revision, unless the build is not given up: its session goes on, or may go on for all that is
// known; or the build itself went on or ended.
Status Sweeper::give_up(const KeyValue& build, BuildText text, Whose whose, Marker* marker, const Pace& pace) {
  const bool is_former = text.session.empty();
  if (is_former && whose == Whose::kEnded) return {};
  text.given_up = true;
  TxnRequest request;
  compare_revision(&request, build.key(), build.mod_revision());
  if (!is_former && whose != Whose::kOurs) compare_ended(&request, keys_, text.session);
  put(request.add_success(), build.key(), text.print());
  *request.add_failure()->mutable_request_range() = get_one(build.key());
  TxnResponse response;
  const Reply reply = kv_.txn(request, &response, Deadline(pace.request));
  if (reply.status.is(PRTKV_STORAGE_FULL) && !is_former && whose != Whose::kOurs) {
    marker->revision = build.mod_revision();
    marker->ended_session = text.session;
    return {};
  }
  if (!reply.ok()) return reply.status;
  if (response.succeeded()) {
    marker->revision = response.header().revision();
    return {};
  }
  // A repeated request may have met its own first write.
  const RangeResponse& now = response.responses(0).response_range();
  const auto then = now.kvs_size() == 0 ? std::nullopt : BuildText::parse(now.kvs(0).value());
  if (then && then->given_up) marker->revision = now.kvs(0).mod_revision();
  return {};
}

// A claim whose build is gone has no owner. A decision needs no build.
Status Sweeper::sweep_claims(const Pace& pace) {
  Steps steps;
  Pager claims(kv_, get_range(keys_.all_claims(), kMarkersPerPage));
  while (claims.more()) {
    RangeResponse page;
    if (Reply reply = claims.next(&page); !reply.ok()) return reply.status;
    for (const KeyValue& record : page.kvs()) {
      const auto place = keys_.parse_claim(record.key());
      if (!place) continue;
      if (pace.stop()) return PRTKV_UNREACHABLE;
      const Claim claim{place->top, place->token, record.mod_revision(), ClaimText::parse(record.value())};
      if (claim.text.decided) {
        if (!steps.take(recovery_.finish(claim, pace.request))) return steps.result();
        continue;
      }
      TxnRequest request;
      compare_revision(&request, keys_.staging(claim.token), 0);
      compare_revision(&request, record.key(), record.mod_revision());
      erase(request.add_success(), record.key());
      if (!steps.take(remove(&request, pace))) return steps.result();
    }
  }
  return steps.result();
}

Status Sweeper::sweep_range(const KeyRange& range, Marker* marker, const Pace& pace) {
  while (true) {
    if (pace.stop()) return PRTKV_UNREACHABLE;
    RangeRequest request = get_range(range, kKeysPerSweep);
    request.set_keys_only(true);
    RangeResponse page;
    if (Reply reply = kv_.range(request, &page, Deadline(pace.request)); !reply.ok()) return reply.status;
    if (page.kvs_size() == 0) return {};
    TxnRequest batch;
    erase(batch.add_success(), KeyRange{range.begin, page.kvs(page.kvs_size() - 1).key() + '\0'});
    if (Status status = remove_marked(&batch, marker, pace); !status.ok()) return status;
    if (!page.more()) return {};
  }
}

void Sweeper::found(const RangeResponse& garbage, const RangeResponse& staging, const RangeResponse& claims) {
  if (garbage.kvs_size() > 0 || staging.kvs_size() > 0 || claims.kvs_size() > 0) look_around();
}

Status Sweeper::sweep_all() {
  const auto never = [] { return false; };
  return sweep_all(Pace{never, kv_.timeout()});
}

Status Sweeper::sweep_for_repair() {
  const auto never = [] { return false; };
  const Pace pace{never, kv_.timeout()};
  if (Status status = sweep_former_marks(pace); !status.ok()) return status;
  if (Status status = sweep_builds(Whose::kEndedFormer, pace); !status.ok()) return status;
  return sweep_all(pace);
}

Status Sweeper::sweep_all(const Pace& pace) {
  Steps steps;
  if (steps.take(sweep_builds(Whose::kEnded, pace)) && steps.take(sweep_claims(pace))) steps.take(sweep_garbage(pace));
  return steps.result();
}

Status Sweeper::sweep_former_marks(const Pace& pace) {
  TxnRequest batch;
  Pager marks(kv_, get_range(keys_.all_writers(), kMarkersPerPage));
  while (marks.more()) {
    RangeResponse page;
    if (Reply reply = marks.next(&page); !reply.ok()) return reply.status;
    for (const KeyValue& mark : page.kvs()) {
      if (!is_former_mark(keys_, mark)) continue;
      erase(batch.add_success(), mark.key());
      if (batch.success_size() < kBatchRemovals) continue;
      if (Status status = remove(&batch, pace); !status.ok()) return status;
    }
  }
  return remove(&batch, pace);
}

Status Sweeper::sweep_builds(Whose whose, const Pace& pace) {
  Steps steps;
  Pager builds(kv_, get_range(keys_.all_staging(), kMarkersPerPage));
  while (builds.more()) {
    RangeResponse page;
    if (Reply reply = builds.next(&page); !reply.ok()) return reply.status;
    for (const KeyValue& build : page.kvs()) {
      if (!steps.take(sweep_build(build.key(), whose, pace))) return steps.result();
    }
  }
  return steps.result();
}

Status Sweeper::sweep_garbage(const Pace& pace) {
  RangeRequest request = get_range(keys_.all_garbage(), kMarkersPerPage);
  request.set_keys_only(true);
  Pager garbage(kv_, request);
  while (garbage.more()) {
    RangeResponse page;
    if (Reply reply = garbage.next(&page); !reply.ok()) return reply.status;
    for (const KeyValue& top : page.kvs()) {
      if (Status status = sweep_garbage(top.key(), pace); !status.ok()) return status;
    }
  }
  return {};
}

}  // namespace tkv::store::etcd
