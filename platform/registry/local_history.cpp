#include "registry/local_history.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "registry/change_filter.h"
#include "registry/change_list.h"
#include "registry/name.h"
#include "registry/snapshot.h"
#include "registry/undo.h"

namespace tkv::registry {
namespace {

constexpr prtkv_result kEnough = PRTKV_KEY_EXISTS;  // ends a visit

std::int64_t now() {
  const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(since_1970).count();
}

std::string host_name() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

Status not_retained(Revision revision) {
  return {PRTKV_INVALID_ARGUMENT, "change " + std::to_string(revision) + " is not retained"};
}

}  // namespace

ChangeDescription describe_change(const Identity& identity, std::string note, std::vector<Change> changes) {
  static const std::string host = host_name();
  return {.time = now(),
          .author = identity.user,
          .host = host,
          .program = ::program_invocation_short_name,
          .process = static_cast<std::uint32_t>(::getpid()),
          .note = std::move(note),
          .changes = std::move(changes)};
}

Status LocalHistory::revision_at(std::int64_t time, Revision* revision) {
  LogPosition position;
  Revision found = 0;
  const auto visit = [&](const ChangeRecord& record) -> Status {
    if (record.time > time) return {};
    found = record.revision;
    return kEnough;
  };
  Status status = store_.changes({.newest_first = true}, visit, &position);
  if (!status.ok() && !status.is(kEnough)) return status;
  if (status.ok() && !position.complete) {
    return {PRTKV_INVALID_ARGUMENT, "the history does not reach back to that time"};
  }
  *revision = found;
  return {};
}

Status LocalHistory::changes_since(const ChangeQuery& query, FunctionRef<Status(const ChangeRecord& record)> visit,
                                   LogPosition* position) {
  if (Status status = check_name(query.name); !status.ok()) return status;
  ChangeFilter filter(store_, identity_, query);
  const auto visit_filtered = [&](const ChangeRecord& record) -> Status {
    ChangeRecord kept = record;
    if (Status status = filter.apply(&kept); !status.ok()) return status;
    return kept.changes.empty() ? Status() : visit(kept);
  };
  return store_.changes(query.range, visit_filtered, position);
}

Status LocalHistory::find_change(Revision revision, ChangeRecord* record) {
  Status status = store_.read([&](store::View& view) { return view.change(revision, record); });
  return status.is(PRTKV_NO_SUCH_KEY) ? not_retained(revision) : status;
}

Status LocalHistory::plan_undo_of(Revision revision, Batch* inverse) {
  ChangeRecord record;
  if (Status status = find_change(revision, &record); !status.ok()) return status;
  return read_past(store_, identity_, record.revision - 1, [&](Reader& before) {
    return read_past(store_, identity_, record.revision,
                     [&](Reader& after) { return plan_undo(before, after, record, inverse); });
  });
}

// The ids of all keys that had a name in the retained past, or have it in the state of `present`.
Status LocalHistory::find_bearers(store::View& present, std::string_view name, std::set<KeyId>* ids) {
  LogPosition position;
  const auto resolve_in = [&](store::View& view) -> Status {
    Place place;
    const Status status = Reader(view, identity_).resolve(name, &place);
    if (status.ok()) ids->insert(place.node.id);
    return status.is(PRTKV_NO_SUCH_KEY) ? Status() : status;
  };
  const auto visit = [&](const ChangeRecord& record) -> Status {
    const bool concerns = std::any_of(record.changes.begin(), record.changes.end(), [&](const Change& change) {
      return is_within(name, change.name) || (change.kind == Change::Kind::kMoved && is_within(name, change.from));
    });
    if (!concerns) return {};
    const Status status = store_.read_at(record.revision - 1, resolve_in);
    return status.is(PRTKV_INVALID_ARGUMENT) ? Status() : status;  // that past is not retained
  };
  if (Status status = resolve_in(present); !status.ok()) return status;
  return store_.changes({}, visit, &position);
}

// Whoever could create a key of a deleted one's name, and write it, could otherwise remove that one's past.
Status LocalHistory::demand_purge(store::View& present, std::string_view name, const std::set<KeyId>& bearers) const {
  Place place;
  Reader tree(present, identity_);
  const auto demand = [&](std::string_view key, Rights needed, const char* what) -> Status {
    if ((tree.rights(key, place.node) & needed) == needed) return {};
    return {PRTKV_ACCESS_DENIED,
            registry::describe(key) + ": access denied, removing the past of a key needs the right to " + what};
  };
  const bool exists = tree.resolve(name, &place).ok();
  if (exists) {
    if (Status status = demand(name, TKV_RIGHT_WRITE, "write it"); !status.ok() || bearers.size() == 1) return status;
  }
  if (Status status = tree.resolve("", &place); !status.ok()) return status;
  return demand("", TKV_RIGHT_ALL, "everything on the root");
}

Status LocalHistory::purge(std::string_view name, std::string note, std::uint64_t* removed) {
  if (Status status = check_name(name); !status.ok()) return status;
  const auto choose = [&](store::View& present, std::vector<store::NodeId>* nodes) -> Status {
    std::set<KeyId> bearers;
    if (Status status = find_bearers(present, name, &bearers); !status.ok()) return status;
    if (Status status = demand_purge(present, name, bearers); !status.ok()) return status;
    nodes->assign(bearers.begin(), bearers.end());
    return {};
  };
  const Change purge{.kind = Change::Kind::kPurged, .name = std::string(name)};
  return store_.purge(choose, describe_change(identity_, std::move(note), {purge}), removed);
}

}  // namespace tkv::registry
