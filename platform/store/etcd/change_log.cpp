#include "store/etcd/change_log.h"

#include <algorithm>
#include <span>
#include <thread>
#include <utility>

#include "store/change_content.h"
#include "store/record.h"

namespace tkv::store::etcd {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t kMaxDescription = std::size_t{256} << 10;  // a transaction has to hold it beside its writes
constexpr std::size_t kUsualDescription = 512;
constexpr std::int64_t kPointsPerVersion = 4;  // few versions are missed where they are not evenly spaced
constexpr milliseconds kLongestWatch{5000};    // then another member may be asked
constexpr milliseconds kPauseAfterFailure{50};

std::string text_of(Revision revision) { return "revision " + std::to_string(revision); }

std::string seal(const Bytes& description) {
  std::string record(value_record_size(description.size()), '\0');
  encode_value(kNoNode, {0, description}, std::as_writable_bytes(std::span(record)));
  return record;
}

Status decode(const KeyValue& found, ChangeRecord* record) {
  Value sealed;
  record->revision = static_cast<Revision>(found.mod_revision());
  Status status = decode_value(kNoNode, as_bytes(found.value()), &sealed);
  if (status.ok()) status = decode_description(sealed.bytes, record);
  return status.about("the change of " + text_of(record->revision));
}

// What stands for the change that removed the key.
ChangeRecord undescribed(Revision revision) {
  ChangeRecord record;
  record.note = "a deletion that etcd had no space to describe";
  record.changes = {{.kind = Change::Kind::kChangedAtOrBelow}};
  record.revision = revision;
  return record;
}

bool is_absent(const RangeResponse& found) { return found.kvs_size() == 0; }

// Whether `newer` replaced `version`, of a key that was not removed in between.
bool is_predecessor(const KeyValue& version, const KeyValue& newer) {
  return version.create_revision() == newer.create_revision() && version.version() == newer.version() - 1;
}

}  // namespace

std::int64_t VersionPoints::distance(int point) const {
  return point < successive() ? point : successive() + (point - successive()) * stride_;
}

void VersionPoints::learn(const std::vector<KeyValue>& versions, std::int64_t left) {
  count_ = std::min(2 * count_, most_);
  if (versions.empty() || versions.front().create_revision() != versions.back().create_revision()) return;
  const std::int64_t replaced = versions.front().version() - versions.back().version();
  const std::int64_t revisions = versions.front().mod_revision() - versions.back().mod_revision();
  const std::int64_t suitable = replaced == 0 ? 2 * stride_ : revisions / replaced / kPointsPerVersion;
  stride_ = std::max<std::int64_t>(1, std::min(suitable, left / (count_ - successive())));
}

bool VersionPoints::shrink() {
  most_ = kFirst;
  return std::exchange(count_, kFirst) > kFirst;
}

std::string ChangeLog::encode(const ChangeDescription& description) {
  const Bytes bytes = encode_description(description, false);
  if (bytes.size() <= kMaxDescription) return seal(bytes);
  ChangeDescription shorter = description;
  shorter.changes = {{.kind = Change::Kind::kChangedAtOrBelow}};
  return seal(encode_description(shorter, false));
}

Status ChangeLog::check(const KeyValue& version) {
  ChangeRecord ignored;
  return decode(version, &ignored);
}

Reply ChangeLog::get(std::int64_t at, RangeResponse* response) {
  RangeRequest request = get_one(keys_.log());
  request.set_revision(at);
  return kv_.range(request, response, Deadline(kv_.timeout()));
}

Reply ChangeLog::get_key(std::int64_t at, RangeResponse* response) {
  RangeRequest request = get_one(keys_.log());
  request.set_revision(at);
  request.set_keys_only(true);
  return kv_.range(request, response, Deadline(kv_.timeout()));
}

Reply ChangeLog::revision(std::int64_t at, Revision* revision) {
  RangeResponse found;
  Reply reply = get_key(at, &found);
  return reply.ok() ? last_change(found, at == 0 ? found.header().revision() : at, revision) : reply;
}

Reply ChangeLog::last_change(const RangeResponse& found, std::int64_t at, Revision* revision) {
  if (is_absent(found)) return find_removal(at, revision);
  *revision = static_cast<Revision>(found.kvs(0).mod_revision());
  return {};
}

// Finds out when the key, which does not exist at `at`, was removed. If the cluster no longer keeps that, the first
// revision that it keeps will do, since nothing was logged between the two. A revision before the last removal will do
// as well: whoever continues from there sees the later ones again.
Reply ChangeLog::find_removal(std::int64_t at, Revision* revision) {
  const std::int64_t known = removed_at_;
  std::int64_t absent = known != 0 && known <= at ? known : at;
  std::int64_t before = absent == known ? known - 1 : 0;
  while (absent - before > 1) {
    const std::int64_t middle = before + (absent - before) / 2;
    RangeResponse found;
    Reply reply = get_key(middle, &found);
    if (!reply.ok() && reply.verdict != Verdict::kCompacted) return reply;
    (reply.ok() && is_absent(found) ? absent : before) = middle;
  }
  if (absent == 1) absent = 0;  // the revision of an empty cluster: the key has never existed
  note_removal(absent);
  *revision = static_cast<Revision>(absent);
  return {};
}

// Whether the key existed at a revision. False if the cluster no longer keeps that.
Reply ChangeLog::was_there(std::int64_t at, bool* answer) {
  RangeResponse found;
  Reply reply = get_key(at, &found);
  *answer = reply.ok() && !is_absent(found);
  return reply.verdict == Verdict::kCompacted ? Reply() : reply;
}

void ChangeLog::note_removal(std::int64_t revision) {
  std::int64_t known = removed_at_;
  while (known < revision && !removed_at_.compare_exchange_weak(known, revision)) {
  }
}

// Finds the revision at which the mark of the registry was created, or zero for a state without the mark. `at` is the
// revision of the state to look at, or zero for the present.
Reply ChangeLog::find_mark(std::int64_t at, std::int64_t* created) {
  RangeRequest request = get_one(keys_.mark());
  request.set_revision(at);
  request.set_keys_only(true);
  RangeResponse found;
  Reply reply = kv_.range(request, &found, Deadline(kv_.timeout()));
  *created = is_absent(found) ? 0 : found.kvs(0).create_revision();
  return reply;
}

Status ChangeLog::find(Revision revision, ChangeRecord* record) {
  Revision latest = 0;
  if (Reply reply = this->revision(0, &latest); !reply.ok()) return reply.status;
  if (revision == 0 || revision > latest) return PRTKV_NO_SUCH_KEY;
  const auto at = static_cast<std::int64_t>(revision);
  RangeResponse found;
  Revision last = 0;
  Reply reply = get(at, &found);
  if (reply.ok()) reply = last_change(found, at, &last);
  if (reply.verdict == Verdict::kCompacted) return PRTKV_NO_SUCH_KEY;
  if (!reply.ok()) return reply.status;
  if (last != revision) return PRTKV_NO_SUCH_KEY;
  if (!is_absent(found)) return decode(found.kvs(0), record);
  *record = undescribed(revision);
  return {};
}

// A state lasts until the next change. So if the cluster no longer keeps the revision itself, the oldest one that it
// keeps shows the same state, provided that nothing was changed in between.
Status ChangeLog::find_state(Revision revision, std::int64_t* at) {
  Status not_retained(PRTKV_INVALID_ARGUMENT, text_of(revision) + " is not retained");
  Revision found = 0;
  if (Reply reply = this->revision(0, &found); !reply.ok()) return reply.status;
  if (revision > found) return {PRTKV_INVALID_ARGUMENT, text_of(revision) + " does not exist yet"};
  if (revision == 0) return not_retained;
  *at = static_cast<std::int64_t>(revision);
  RangeResponse key;
  Reply reply = find_oldest_kept(at);
  if (reply.ok()) reply = get_key(*at, &key);
  if (reply.ok()) reply = last_change(key, *at, &found);
  std::int64_t created = 0;
  if (reply.ok() && is_absent(key)) reply = find_mark(*at, &created);
  const bool was_there = !is_absent(key) || created != 0;
  if (reply.verdict == Verdict::kCompacted) return not_retained;
  if (!reply.ok()) return reply.status;
  return was_there && found <= revision ? Status() : not_retained;
}

Reply ChangeLog::reach(Reach* reach) {
  RangeResponse newest;
  std::int64_t created = 0;
  std::int64_t begin = 1;
  *reach = {};
  Reply reply = get_key(0, &newest);
  if (reply.ok()) reply = last_change(newest, newest.header().revision(), &reach->revision);
  if (reply.ok()) reply = find_mark(0, &created);
  if (reply.ok()) reply = find_oldest_kept(&begin);
  if (!reply.ok() || reach->revision == 0) return reply;
  begin = std::max(begin, created);
  reach->log_after = reach->revision;
  if (!is_absent(newest)) {
    const std::int64_t first = newest.kvs(0).create_revision();
    reach->log_after = static_cast<Revision>(std::max(begin, first == created ? first : first - 1));
  }
  reach->log_after = std::min(reach->log_after, reach->revision);
  return revision(begin, &reach->oldest_state);
}

Status ChangeLog::visit(const LogRange& range, Visit visit, LogPosition* position) {
  RangeResponse end;
  Revision latest = 0;
  Reply reply = get_key(0, &end);
  if (reply.ok()) reply = last_change(end, end.header().revision(), &latest);
  if (!reply.ok()) return reply.status;
  *position = {range.after > latest ? latest : std::min(range.up_to, latest), true};
  if (range.after >= latest) return {};

  const auto after = static_cast<std::int64_t>(range.after);
  Revision last = latest;
  if (position->revision != latest) {
    const auto up_to = static_cast<std::int64_t>(position->revision);
    reply = get_key(up_to, &end);
    if (reply.ok()) reply = last_change(end, up_to, &last);
  }
  if (reply.ok() && last <= range.after) return {};
  std::int64_t begin = after + 1;
  if (reply.ok()) reply = find_gap(end, &begin, &position->complete);
  if (reply.verdict == Verdict::kCompacted) position->complete = false;
  if (!reply.ok()) return reply.verdict == Verdict::kCompacted ? Status() : reply.status;
  if (Status status = find_begin(after, &begin, &position->complete); !status.ok()) return status;
  if (range.only_complete && !position->complete) {
    position->revision = latest;
    return {};
  }
  const auto last_event = static_cast<std::int64_t>(last);
  if (is_absent(end) && begin == last_event) {
    bool removed_there = false;
    reply = was_there(begin - 1, &removed_there);
    if (!reply.ok() || !removed_there) return reply.status;
  }
  return range.newest_first ? visit_backward(after, begin, last_event, visit) : visit_forward(begin, last_event, visit);
}

// Whether the log has a gap between `*begin` and the state `end`. Before the registry was created there is nothing to
// miss.
Reply ChangeLog::find_gap(const RangeResponse& end, std::int64_t* begin, bool* complete) {
  *complete = !is_absent(end);
  if (is_absent(end) || end.kvs(0).create_revision() <= *begin) return {};
  std::int64_t registry_created = 0;
  Reply reply = find_mark(0, &registry_created);
  *complete = registry_created == end.kvs(0).create_revision();
  if (*complete) *begin = registry_created;
  return reply;
}

// `*begin` or, if the cluster no longer keeps that, the first revision that it keeps, which a watch alone tells.
Reply ChangeLog::find_oldest_kept(std::int64_t* begin) {
  while (true) {
    RangeResponse found;
    Reply reply = get_key(*begin, &found);
    if (reply.verdict != Verdict::kCompacted) return reply;
    WatchAnswer answer;
    reply = kv_.watch(keys_.log(), *begin, {}, &answer, Deadline(kv_.timeout()));
    if (!reply.ok()) return reply;
    *begin = std::max(*begin, answer.compacted);
  }
}

// The first revision that can hold a change after `after`, or the first one that is kept.
Status ChangeLog::find_begin(std::int64_t after, std::int64_t* begin, bool* complete) {
  const std::int64_t wanted = *begin;
  Reply reply = find_oldest_kept(begin);
  if (!reply.ok() || *begin == wanted) return reply.status;
  RangeResponse found;
  reply = get_key(*begin, &found);
  if (reply.ok() && !is_absent(found)) *complete = *complete && found.kvs(0).mod_revision() <= after;
  return reply.status;
}

Status ChangeLog::visit_forward(std::int64_t begin, std::int64_t last, Visit visit) {
  while (begin <= last) {
    WatchAnswer answer;
    const Reply reply = kv_.watch(keys_.log(), begin, {}, &answer, Deadline(kv_.timeout()));
    if (!reply.ok()) return reply.status;
    if (answer.compacted != 0) return {PRTKV_BUSY, "etcd compacted the log while it was being read"};
    if (answer.events.empty()) return {PRTKV_UNREACHABLE, "etcd did not deliver its log in time"};
    for (const KeyValue& event : answer.events) {
      if (event.mod_revision() > last) return {};
      ChangeRecord record = undescribed(static_cast<Revision>(event.mod_revision()));
      if (!WatchAnswer::is_removal(event)) {
        if (Status status = decode(event, &record); !status.ok()) return status;
      }
      if (Status status = visit(record); !status.ok()) return status;
      begin = event.mod_revision() + 1;
    }
  }
  return {};
}

// Reads the version of the key at `last` and some of those before it, newest first. A version that several points met
// is there as often. `*versions` is empty if the key does not exist at `last`. Nothing is read before `begin`.
Reply ChangeLog::read_versions(const VersionPoints& points, std::int64_t begin, std::int64_t last,
                               std::vector<KeyValue>* versions) {
  TxnRequest request;
  for (int point = 0; point < points.count() && last - points.distance(point) >= begin; ++point) {
    RangeRequest* read = request.add_success()->mutable_request_range();
    *read = get_one(keys_.log());
    read->set_revision(last - points.distance(point));
  }
  TxnResponse response;
  const std::size_t expected = static_cast<std::size_t>(request.success_size()) * kUsualDescription;
  Reply reply = kv_.txn(request, &response, Deadline(kv_.timeout()), expected);
  versions->clear();
  if (!reply.ok()) return reply;
  for (auto& answer : *response.mutable_responses()) {
    if (is_absent(answer.response_range())) break;
    versions->push_back(std::move(*answer.mutable_response_range()->mutable_kvs(0)));
  }
  return reply;
}

// What was compacted meanwhile is no longer retained.
Status ChangeLog::visit_backward(std::int64_t after, std::int64_t begin, std::int64_t last, Visit visit) {
  VersionPoints points;
  std::vector<KeyValue> versions;
  while (last >= begin) {
    Reply reply = read_versions(points, begin, last, &versions);
    if (reply.verdict == Verdict::kAnswerTooLarge && points.shrink()) continue;
    if (reply.verdict == Verdict::kCompacted) {
      if (reply = find_oldest_kept(&begin); reply.ok()) continue;
    }
    if (!reply.ok()) return reply.status;
    Status status =
        versions.empty() ? visit_removal(begin, &last, visit) : visit_versions(versions, after, &last, visit);
    if (!status.ok()) return status;
    points.learn(versions, last - begin);
  }
  return {};
}

// Visits the versions up to the first gap, as far as they are later than `after`. `*last` becomes the revision before
// those visited.
Status ChangeLog::visit_versions(const std::vector<KeyValue>& versions, std::int64_t after, std::int64_t* last,
                                 Visit visit) {
  const KeyValue* newer = nullptr;
  for (const KeyValue& version : versions) {
    if (newer != nullptr && version.mod_revision() == newer->mod_revision()) continue;
    if (newer != nullptr && !is_predecessor(version, *newer)) break;
    *last = version.mod_revision() - 1;
    if (*last < after) break;
    ChangeRecord record;
    if (Status status = decode(version, &record); !status.ok()) return status;
    if (Status status = visit(record); !status.ok()) return status;
    newer = &version;
  }
  return {};
}

// Visits the removal of the key, which does not exist at `*last`, unless it was removed before `begin`. `*last` becomes
// the revision before the removal.
Status ChangeLog::visit_removal(std::int64_t begin, std::int64_t* last, Visit visit) {
  Revision removed = 0;
  bool is_certain = true;
  if (Reply reply = find_removal(*last, &removed); !reply.ok()) return reply.status;
  *last = static_cast<std::int64_t>(removed) - 1;
  if (*last + 1 < begin) return {};
  if (*last + 1 == begin) {
    if (Reply reply = was_there(*last, &is_certain); !reply.ok()) return reply.status;
  }
  return is_certain ? visit(undescribed(removed)) : Status();
}

// Between two watches the key is read anew, by the majority of the members: a member that is cut off from the others
// delivers nothing, and does not say so. If the key does not exist, what happened to it since `after` is not known: the
// watch begins there.
Status ChangeLog::wait(Revision after, milliseconds timeout, const std::stop_token& stop, Revision* revision) {
  const auto end = steady_clock::now() + std::min<milliseconds>(timeout, std::chrono::hours(24 * 365));
  while (true) {
    RangeResponse found;
    Reply reply = get_key(0, &found);
    const std::int64_t now = found.header().revision();
    if (reply.ok()) reply = last_change(found, now, revision);
    if (!reply.ok()) return reply.status;
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    if (*revision > after || stop.stop_requested() || left.count() <= 0) return {};
    const std::int64_t seen = is_absent(found) ? std::min(now, static_cast<std::int64_t>(after)) : now;
    WatchAnswer answer;
    const Deadline deadline(std::min(left, kLongestWatch));
    reply = kv_.watch(keys_.log(), seen + 1, stop, &answer, deadline);
    if (!reply.ok()) std::this_thread::sleep_for(std::min(left, kPauseAfterFailure));
    if (is_absent(found)) note_removal(answer.compacted);
    for (const KeyValue& event : answer.events) {
      if (WatchAnswer::is_removal(event)) note_removal(event.mod_revision());
    }
  }
}

}  // namespace tkv::store::etcd
