#include "registry/undo.h"

#include <algorithm>
#include <set>
#include <span>
#include <string>
#include <utility>

#include "registry/change_list.h"
#include "registry/name.h"
#include "registry/subtree.h"

namespace tkv::registry {
namespace {

constexpr auto kSilent = [](std::uint64_t) {};

class UndoPlan {
 public:
  UndoPlan(Reader& before, Reader& after, const ChangeRecord& change, Batch* inverse)
      : before_(before), after_(after), change_(change), inverse_(*inverse) {}

  // The last change first. Each name is the one that the key had when that change was made.
  Status make() {
    if (is_entangled()) return invert_tops();
    for (std::size_t i = change_.changes.size(); i > 0; --i) {
      if (Status status = invert(i - 1); !status.ok()) return status;
    }
    return {};
  }

 private:
  // Whether a key was moved and more was done besides replacing what was in its new place. What was moved may then have
  // been changed, deleted or moved again, and it takes a comparison to tell.
  bool is_entangled() const {
    const auto& changes = change_.changes;
    const auto is_move = [](const Change& change) { return change.kind == Change::Kind::kMoved; };
    if (changes.size() <= 1 || std::none_of(changes.begin(), changes.end(), is_move)) return false;
    const bool is_replacement = changes.size() == 2 && changes[0].kind == Change::Kind::kDeleted &&
                                is_move(changes[1]) && changes[0].name == changes[1].name;
    return !is_replacement;
  }

  // By comparing everything at and below the keys that the change names. Keys that were moved are made anew.
  Status invert_tops() {
    std::set<std::string> names;
    for (const Change& change : change_.changes) {
      names.insert(change.name);
      if (change.kind == Change::Kind::kMoved) names.insert(change.from);
    }
    for (const std::string& name : names) {
      const bool is_below_another = std::any_of(names.begin(), names.end(), [&](const std::string& other) {
        return other != name && is_within(name, other);
      });
      if (is_below_another) continue;
      if (Status status = invert_all(name); !status.ok()) return status;
    }
    return {};
  }

  Status invert(std::size_t index) {
    const Change& change = change_.changes[index];
    switch (change.kind) {
      case Change::Kind::kCreated:
        return invert_creation(index);
      case Change::Kind::kValue:
      case Change::Kind::kSecurity:
        return invert_content(index);
      case Change::Kind::kMoved:
        return invert_move(index);
      case Change::Kind::kDeleted:
        return invert_deletion(index);
      case Change::Kind::kChangedAtOrBelow:
        return invert_all(change.name);
      case Change::Kind::kPurged:
        return {PRTKV_INVALID_ARGUMENT, "what was removed from the history cannot be brought back"};
    }
    return {};
  }

  Status invert_creation(std::size_t index) {
    const Change& change = change_.changes[index];
    bool exists = false;
    if (Status status = expect_unchanged(index, &exists); !status.ok() || !exists) return status;
    inverse_.operations.push_back({.kind = Operation::Kind::kRemove, .name = change.name});
    return {};
  }

  Status invert_content(std::size_t index) {
    const Change& change = change_.changes[index];
    const std::string former = name_before(index);
    bool existed = false;
    bool exists = false;
    if (Status status = has(before_, former, change.id, &existed); !status.ok() || !existed) return status;
    if (Status status = expect_unchanged(index, &exists); !status.ok() || !exists) return status;
    Operation operation{.name = change.name};
    if (change.kind == Change::Kind::kSecurity) {
      operation.kind = Operation::Kind::kSecurity;
      operation.security.emplace();
      if (Status status = before_.security(former, &*operation.security); !status.ok()) return status;
    } else {
      KeyInfo info;
      if (Status status = before_.read_key(former, &info, &operation.value); !status.ok()) return status;
    }
    inverse_.operations.push_back(std::move(operation));
    return {};
  }

  Status invert_move(std::size_t index) {
    const Change& change = change_.changes[index];
    bool exists = false;
    if (Status status = expect_unchanged(index, &exists); !status.ok() || !exists) return status;
    inverse_.operations.push_back({.kind = Operation::Kind::kMove, .name = change.name, .target = change.from});
    return {};
  }

  Status invert_deletion(std::size_t index) {
    const Change& change = change_.changes[index];
    const std::string former = name_before(index);
    bool existed = false;
    Subtree deleted;
    if (Status status = has(before_, former, change.id, &existed); !status.ok() || !existed) return status;
    if (Status status = read_subtree(before_, former, false, kSilent, &deleted); !status.ok()) return status;
    if (Status status = expect_absent(name_after(index)); !status.ok()) return status;
    for (const KeyRecord& key : deleted.keys) create(key, moved_name(key.name, former, change.name));
    return {};
  }

  // Of a change that lists no single keys: by comparing.
  Status invert_all(const std::string& top) {
    Subtree former;
    Subtree latter;
    Difference difference;
    if (Status status = read_subtree(before_, top, false, kSilent, &former); !status.ok()) return status;
    if (Status status = read_subtree(after_, top, false, kSilent, &latter); !status.ok()) return status;
    if (Status status = find_difference(latter, former, MergeMode::kReplace, {}, {}, &difference); !status.ok()) {
      return status;
    }
    for (const KeyChange& each : difference.changes) {
      if (Status status = expect_same(each); !status.ok()) return status;
      if (each.kind == KeyChange::Kind::kAdd) {
        create(each.after, each.after.name);
      } else if (each.kind == KeyChange::Kind::kChange) {
        change_back(each.after);
      }
    }
    for (auto each = difference.changes.rbegin(); each != difference.changes.rend(); ++each) {
      if (each->kind != KeyChange::Kind::kRemove) continue;
      inverse_.operations.push_back({.kind = Operation::Kind::kRemove, .name = each->before.name});
    }
    return {};
  }

  void create(const KeyRecord& key, std::string name) {
    inverse_.operations.push_back(
        {.kind = Operation::Kind::kCreate, .name = std::move(name), .value = key.value, .security = key.security});
  }

  void change_back(const KeyRecord& key) {
    inverse_.operations.push_back({.kind = Operation::Kind::kPut, .name = key.name, .value = key.value});
    inverse_.operations.push_back({.kind = Operation::Kind::kSecurity, .name = key.name, .security = key.security});
  }

  Status expect_same(const KeyChange& each) {
    if (each.kind == KeyChange::Kind::kAdd) return expect_absent(each.after.name);
    KeyInfo info;
    if (Status status = after_.stat_briefly(each.name(), &info); !status.ok()) return status;
    expect_revision(each.name(), info);
    return {};
  }

  void expect_revision(const std::string& name, const KeyInfo& info) {
    inverse_.conditions.push_back(
        {.kind = Condition::Kind::kRevision, .name = name, .revision = info.revision, .id = info.id});
  }

  Status expect_absent(const std::string& name) {
    bool exists = false;
    if (Status status = after_.exists(name, &exists); !status.ok()) return status;
    if (!exists) inverse_.conditions.push_back({.kind = Condition::Kind::kAbsent, .name = name});
    return {};
  }

  // `*exists`: the key of a change is still there after the whole change, which is then what is expected of the
  // present.
  Status expect_unchanged(std::size_t index, bool* exists) {
    const std::string name = name_after(index);
    KeyInfo info;
    if (Status status = has(after_, name, change_.changes[index].id, exists); !status.ok() || !*exists) return status;
    if (Status status = after_.stat_briefly(name, &info); !status.ok()) return status;
    expect_revision(name, info);
    return {};
  }

  static Status has(Reader& tree, const std::string& name, KeyId id, bool* answer) {
    Place place;
    Status status = tree.resolve({name, id}, &place);
    *answer = status.ok();
    return status.is(PRTKV_NO_SUCH_KEY) ? Status() : status;
  }

  // The name of a change's key before and after the whole change, which may have moved it.
  std::string name_before(std::size_t index) const {
    std::string name = change_.changes[index].name;
    for (std::size_t i = index; i > 0; --i) {
      const Change& earlier = change_.changes[i - 1];
      if (earlier.kind == Change::Kind::kMoved) name = moved_name(name, earlier.name, earlier.from);
    }
    return name;
  }

  std::string name_after(std::size_t index) const {
    std::string name = change_.changes[index].name;
    for (const Change& later : std::span(change_.changes).subspan(index + 1)) {
      if (later.kind == Change::Kind::kMoved) name = moved_name(name, later.from, later.name);
    }
    return name;
  }

  Reader& before_;
  Reader& after_;
  const ChangeRecord& change_;
  Batch& inverse_;
};

}  // namespace

Status plan_undo(Reader& before, Reader& after, const ChangeRecord& change, Batch* inverse) {
  Batch found;
  Status status = UndoPlan(before, after, change, &found).make();
  if (status.ok()) *inverse = std::move(found);
  return status;
}

}  // namespace tkv::registry
