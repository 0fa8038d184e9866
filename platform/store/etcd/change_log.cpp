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
constexpr milliseconds kLongestWatch{5000};                      // then another member may be asked
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

Revision revision_in(const RangeResponse& response) {
  return response.kvs_size() == 0 ? 0 : static_cast<Revision>(response.kvs(0).mod_revision());
}

}  // namespace

std::string ChangeLog::encode(const ChangeDescription& description) {
  const Bytes bytes = encode_description(description, false);
  if (bytes.size() <= kMaxDescription) return seal(bytes);
  ChangeDescription shorter = description;
  shorter.changes = {{.kind = Change::Kind::kChangedAtOrBelow}};
  return seal(encode_description(shorter, false));
}

Reply ChangeLog::get(std::int64_t at, RangeResponse* response) {
  RangeRequest request = get_one(keys_.log());
  request.set_revision(at);
  return kv_.range(request, response, Deadline(kv_.timeout()));
}

Reply ChangeLog::revision(std::int64_t at, Revision* revision) {
  RangeRequest request = get_one(keys_.log());
  request.set_revision(at);
  request.set_keys_only(true);
  RangeResponse response;
  Reply reply = kv_.range(request, &response, Deadline(kv_.timeout()));
  if (reply.ok()) *revision = revision_in(response);
  return reply;
}

Status ChangeLog::find(Revision revision, ChangeRecord* record) {
  Revision latest = 0;
  if (Reply reply = this->revision(0, &latest); !reply.ok()) return reply.status;
  if (revision == 0 || revision > latest) return PRTKV_NO_SUCH_KEY;
  RangeResponse found;
  const Reply reply = get(static_cast<std::int64_t>(revision), &found);
  if (reply.verdict == Verdict::kCompacted) return PRTKV_NO_SUCH_KEY;
  if (!reply.ok()) return reply.status;
  return revision_in(found) == revision ? decode(found.kvs(0), record) : PRTKV_NO_SUCH_KEY;
}

Status ChangeLog::check_retained(Revision revision) {
  Revision found = 0;
  if (Reply reply = this->revision(0, &found); !reply.ok()) return reply.status;
  if (revision > found) return {PRTKV_INVALID_ARGUMENT, text_of(revision) + " does not exist yet"};
  const Reply reply = this->revision(static_cast<std::int64_t>(revision), &found);
  const bool never_logged = reply.ok() && found == 0;
  if (revision == 0 || never_logged || reply.verdict == Verdict::kCompacted) {
    return {PRTKV_INVALID_ARGUMENT, text_of(revision) + " is not retained"};
  }
  return reply.status;
}

Status ChangeLog::visit(const LogRange& range, Visit visit, LogPosition* position) {
  RangeResponse newest;
  if (Reply reply = get(0, &newest); !reply.ok()) return reply.status;
  const Revision latest = revision_in(newest);
  *position = {range.after > latest ? latest : std::min(range.up_to, latest), true};
  if (range.after >= latest) return {};
  const auto after = static_cast<std::int64_t>(range.after);
  std::int64_t begin = 0;
  const Status found = find_begin(after, newest.kvs(0).create_revision(), &begin, &position->complete);
  if (!found.ok()) return found;
  if (range.only_complete && !position->complete) {
    position->revision = latest;
    return {};
  }
  Revision last = 0;
  if (Reply reply = revision(static_cast<std::int64_t>(position->revision), &last); !reply.ok()) {
    return reply.verdict == Verdict::kCompacted ? Status() : reply.status;
  }
  if (last <= range.after) return {};
  const auto end = static_cast<std::int64_t>(last);
  return range.newest_first ? visit_backward(after, end, visit) : visit_forward(begin, end, visit);
}

// The first revision that can hold a change after `after`, or the first one that is kept. What the cluster has
// compacted is asked of a watch, which alone tells how far that goes.
Status ChangeLog::find_begin(std::int64_t after, std::int64_t created, std::int64_t* begin, bool* complete) {
  *begin = std::max(after + 1, created);
  *complete = true;
  while (true) {
    RangeResponse found;
    const Reply reply = get(*begin, &found);
    if (reply.verdict != Verdict::kCompacted) {
      *complete = *complete || (reply.ok() && static_cast<std::int64_t>(revision_in(found)) <= after);
      return reply.status;
    }
    WatchAnswer answer;
    const Reply watched = kv_.watch(keys_.log(), *begin, {}, &answer, Deadline(kv_.timeout()));
    if (!watched.ok()) return watched.status;
    *complete = false;
    *begin = std::max(*begin, answer.compacted);
  }
}

Status ChangeLog::visit_forward(std::int64_t begin, std::int64_t last, Visit visit) {
  while (begin <= last) {
    WatchAnswer answer;
    const Reply reply = kv_.watch(keys_.log(), begin, {}, &answer, Deadline(kv_.timeout()));
    if (!reply.ok()) return reply.status;
    if (answer.compacted != 0) return {PRTKV_BUSY, "etcd compacted the log while it was being read"};
    if (answer.puts.empty()) return {PRTKV_UNREACHABLE, "etcd did not deliver its log in time"};
    for (const KeyValue& put : answer.puts) {
      if (put.mod_revision() > last) return {};
      ChangeRecord record;
      if (Status status = decode(put, &record); !status.ok()) return status;
      if (Status status = visit(record); !status.ok()) return status;
      begin = put.mod_revision() + 1;
    }
  }
  return {};
}

// One request for each change: each tells the revision of the one before it. What was compacted meanwhile is no longer
// retained.
Status ChangeLog::visit_backward(std::int64_t after, std::int64_t last, Visit visit) {
  while (last > after) {
    RangeResponse found;
    const Reply reply = get(last, &found);
    if (reply.verdict == Verdict::kCompacted) return {};
    if (!reply.ok()) return reply.status;
    const auto revision = static_cast<std::int64_t>(revision_in(found));
    if (revision <= after) return {};
    ChangeRecord record;
    if (Status status = decode(found.kvs(0), &record); !status.ok()) return status;
    if (Status status = visit(record); !status.ok()) return status;
    last = revision - 1;
  }
  return {};
}

// Between two watches the key is read anew, by the majority of the members: a member that is cut off from the others
// delivers nothing, and does not say so.
Status ChangeLog::wait(Revision after, milliseconds timeout, const std::stop_token& stop, Revision* revision) {
  const auto end = steady_clock::now() + std::min<milliseconds>(timeout, std::chrono::hours(24 * 365));
  while (true) {
    RangeResponse found;
    if (Reply reply = get(0, &found); !reply.ok()) return reply.status;
    *revision = revision_in(found);
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    if (*revision > after || stop.stop_requested() || left.count() <= 0) return {};
    WatchAnswer answer;
    const Deadline deadline(std::min(left, kLongestWatch));
    const Reply reply = kv_.watch(keys_.log(), found.header().revision() + 1, stop, &answer, deadline);
    if (!reply.ok()) std::this_thread::sleep_for(std::min(left, kPauseAfterFailure));
  }
}

}  // namespace tkv::store::etcd
