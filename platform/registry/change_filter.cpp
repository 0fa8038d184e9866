#include "registry/change_filter.h"

#include <utility>
#include <vector>

#include "registry/change_list.h"
#include "registry/name.h"
#include "registry/tree.h"

namespace tkv::registry {
namespace {

enum class Answer { kAbsent, kDenied, kGranted };

Status ask(store::View& view, const Identity& identity, std::string_view name, Rights right, Answer* answer) {
  Reader tree(view, identity);
  Place place;
  Status status = tree.resolve(name, &place);
  if (!status.ok() && !status.is(PRTKV_NO_SUCH_KEY)) return status;
  *answer = !status.ok()                                       ? Answer::kAbsent
            : (tree.rights(name, place.node) & right) == right ? Answer::kGranted
                                                               : Answer::kDenied;
  return {};
}

}  // namespace

bool ChangeFilter::concerns(std::string_view name, bool with_subtree) const {
  if (with_subtree && is_within(query_.name, name)) return true;
  if (!is_within(name, query_.name)) return false;
  return count_levels(name) - count_levels(query_.name) <= query_.depth;
}

bool ChangeFilter::is_wanted(const Change& change) const {
  switch (change.kind) {
    case Change::Kind::kCreated:
    case Change::Kind::kValue:
    case Change::Kind::kSecurity:
    case Change::Kind::kPurged:
      return concerns(change.name, false);
    case Change::Kind::kMoved:
      return concerns(change.name, true) || concerns(change.from, true);
    case Change::Kind::kDeleted:
    case Change::Kind::kChangedAtOrBelow:
      return concerns(change.name, true);
  }
  return false;
}

void ChangeFilter::add_moves(const ChangeRecord& record, std::vector<Move>* moves) {
  for (const Change& change : record.changes) {
    if (change.kind == Change::Kind::kMoved) moves->push_back({record.revision, change.from, change.name});
  }
}

Status ChangeFilter::read_moves(Revision after, Revision up_to, std::vector<Move>* moves) {
  LogPosition position;
  const auto visit = [&](const ChangeRecord& record) {
    add_moves(record, moves);
    return Status();
  };
  return store_.changes({.after = after, .up_to = up_to}, visit, &position);
}

// Extends what is known to the part of the log that begins after `after` and ends at `up_to`.
Status ChangeFilter::learn_moves(Revision after, Revision up_to) {
  if (!moves_) moves_ = Moves{after, after, {}};
  if (after < moves_->after) {
    std::vector<Move> older;
    if (Status status = read_moves(after, moves_->after, &older); !status.ok()) return status;
    moves_->list.insert(moves_->list.begin(), older.begin(), older.end());
    moves_->after = after;
  }
  if (up_to > moves_->up_to) {
    if (Status status = read_moves(moves_->up_to, up_to, &moves_->list); !status.ok()) return status;
    moves_->up_to = up_to;
  }
  return {};
}

// Newest first, the log need not be read again: there is no change between this one and the one before.
void ChangeFilter::learn_older_moves(const ChangeRecord& record) {
  if (!query_.range.newest_first || !moves_ || record.revision > moves_->after) return;
  std::vector<Move> older;
  add_moves(record, &older);
  moves_->list.insert(moves_->list.begin(), older.begin(), older.end());
  moves_->after = record.revision - 1;
}

Status ChangeFilter::find_name_today(Revision former, std::string_view former_name, store::View& present,
                                     std::string* name) {
  Revision now = 0;
  if (Status status = present.revision(&now); !status.ok()) return status;
  if (Status status = learn_moves(former, now); !status.ok()) return status;
  *name = former_name;
  for (const Move& move : moves_->list) {
    if (move.revision > former && move.revision <= now) *name = moved_name(*name, move.from, move.to);
  }
  return {};
}

// A right that the state of a revision and the present grant on a key, as far as they have it.
Status ChangeFilter::grants(Revision revision, std::string_view name, Rights right, bool* answer) {
  Answer today = Answer::kAbsent;
  Answer then = Answer::kAbsent;
  *answer = false;
  Status status = store_.read_all([&](store::View& present) -> Status {
    std::string name_today;
    if (Status found = find_name_today(revision, name, present, &name_today); !found.ok()) return found;
    return ask(present, identity_, name_today, right, &today);
  });
  if (!status.ok() || today == Answer::kDenied) return status;
  status = store_.read_at(revision, [&](store::View& view) { return ask(view, identity_, name, right, &then); });
  if (status.is(PRTKV_INVALID_ARGUMENT)) {  // not retained
    *answer = today == Answer::kGranted;
    return {};
  }
  *answer = then == Answer::kGranted;
  return status;
}

Status ChangeFilter::is_allowed(const ChangeRecord& record, const Change& change, bool* answer) {
  const Revision before = record.revision - 1;
  switch (change.kind) {
    case Change::Kind::kValue:
    case Change::Kind::kSecurity:
    case Change::Kind::kPurged:
      return grants(record.revision, change.name, TKV_RIGHT_READ, answer);
    case Change::Kind::kCreated:
      return grants(record.revision, parent_of(change.name), TKV_RIGHT_LIST, answer);
    case Change::Kind::kDeleted:
      return grants(before, parent_of(change.name), TKV_RIGHT_LIST, answer);
    case Change::Kind::kChangedAtOrBelow:
      return grants(record.revision, change.name, TKV_RIGHT_LIST, answer);
    case Change::Kind::kMoved:
      if (Status status = grants(before, parent_of(change.from), TKV_RIGHT_LIST, answer); !status.ok() || !*answer) {
        return status;
      }
      return grants(record.revision, parent_of(change.name), TKV_RIGHT_LIST, answer);
  }
  return {};
}

Status ChangeFilter::apply(ChangeRecord* record) {
  std::vector<Change> kept;
  learn_older_moves(*record);
  for (Change& change : record->changes) {
    bool allowed = identity_.superuser;
    if (!is_wanted(change)) continue;
    if (!allowed) {
      if (Status status = is_allowed(*record, change, &allowed); !status.ok()) return status;
    }
    if (allowed) kept.push_back(std::move(change));
  }
  record->changes = std::move(kept);
  return {};
}

}  // namespace tkv::registry
