#include "store/lmdb/past.h"

#include <algorithm>

#include "store/lmdb/log.h"
#include "store/lmdb/tree.h"

namespace tkv::store {
namespace {

std::string_view text_of(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

using FormerRecord = std::optional<std::span<const std::byte>>;

// Whether a change has removed something from the history.
Status removes_past(std::span<const std::byte> content, bool* answer) {
  ChangeRecord record;
  if (Status status = decode_description(content, &record); !status.ok()) return status;
  const auto is_purge = [](const Change& change) { return change.kind == Change::Kind::kPurged; };
  *answer = std::any_of(record.changes.begin(), record.changes.end(), is_purge);
  return {};
}

std::span<const std::byte> bytes_of(const std::string& text) { return std::as_bytes(std::span(text)); }

}  // namespace

Status Past::extend(const FileState& state, const Meta& meta) {
  const bool has_read = end_ != begin_;
  while (end_ < meta.revision && !is_outdated_) {
    const Revision revision = end_ + 1;
    Bytes buffer;
    std::span<const std::byte> content;
    bool purges = false;
    Status status = read_content(state, revision, ContentPart::kWhole, &buffer, &content);
    if (status.ok()) status = removes_past(content, &purges).about(change_text(revision));
    if (status.ok()) status = take(revision, content).about(change_text(revision));
    if (!status.ok()) return status;
    is_outdated_ = has_read && purges;
    end_ = revision;
  }
  return {};
}

Status Past::take(Revision revision, std::span<const std::byte> content) {
  return visit_former_records(content, [&](std::span<const std::byte> key, FormerRecord record) {
    Formers& formers = formers_.try_emplace(std::string(text_of(key))).first->second;
    if (!formers.empty() && formers.back().replaced_in == revision) return Status();
    formers.push_back({revision, record ? Record(text_of(*record)) : std::nullopt});
    bytes_ += key.size() + sizeof(Former) + (record ? record->size() : 0);
    return Status();
  });
}

const Past::Record* Past::at(const Formers& formers, Revision revision) {
  const auto before = [](Revision wanted, const Former& former) { return wanted < former.replaced_in; };
  const auto found = std::upper_bound(formers.begin(), formers.end(), revision, before);
  return found == formers.end() ? nullptr : &found->record;
}

const Past::Record* Past::find(const Key& key, Revision revision) const {
  const auto found = formers_.find(text_of(key.bytes()));
  return found == formers_.end() ? nullptr : at(found->second, revision);
}

Past::Children Past::children(NodeId parent, Revision revision) const {
  const Key prefix = Key::node(parent);
  Children children;
  std::string_view name;
  for (auto each = formers_.lower_bound(text_of(prefix.bytes())); each != formers_.end(); ++each) {
    if (!is_child(bytes_of(each->first), parent, &name)) break;
    if (const Record* record = at(each->second, revision); record != nullptr) children.emplace_back(name, record);
  }
  return children;
}

Status PastView::find(NodeId parent, std::string_view name, Node* node) {
  if (name.size() > kMaxLevelSize) return PRTKV_NO_SUCH_KEY;
  const Past::Record* const former = past_.find(Key::node(parent, name), revision_);
  if (former == nullptr) return present_.find(parent, name, node);
  return former->has_value() ? decode_child(parent, name, bytes_of(**former), node) : PRTKV_NO_SUCH_KEY;
}

Status PastView::value(NodeId id, Value* value) {
  const Past::Record* const former = past_.find(Key::value(id), revision_);
  if (former == nullptr) return present_.value(id, value);
  if (former->has_value()) return decode_value_of(id, bytes_of(**former), value);
  *value = Value{};
  return {};
}

// Merges the children of the present with those that were others.
Status PastView::children_with_damage(NodeId parent, VisitChild visit, VisitDamagedChild damaged) {
  const Past::Children formers = past_.children(parent, revision_);
  auto next = formers.begin();
  const auto visit_former = [&]() -> Status {
    const auto& [name, record] = *next++;
    if (!record->has_value()) return {};
    Node node;
    const Status decoded = decode_child(parent, name, bytes_of(**record), &node);
    return decoded.ok() ? visit(name, node) : damaged(name, decoded);
  };
  // Visits what comes before a child of the present. `*replaced`: that child itself was another, or was not there.
  const auto visit_before = [&](std::string_view name, bool* replaced) -> Status {
    while (next != formers.end() && next->first < name) {
      if (Status status = visit_former(); !status.ok()) return status;
    }
    *replaced = next != formers.end() && next->first == name;
    return *replaced ? visit_former() : Status();
  };
  Status status = present_.children_with_damage(
      parent,
      [&](std::string_view name, const Node& node) -> Status {
        bool replaced = false;
        Status before = visit_before(name, &replaced);
        return !before.ok() || replaced ? before : visit(name, node);
      },
      [&](std::string_view name, const Status& damage) -> Status {
        bool replaced = false;
        Status before = visit_before(name, &replaced);
        return !before.ok() || replaced ? before : damaged(name, damage);
      });
  while (status.ok() && next != formers.end()) status = visit_former();
  return status;
}

Status PastView::has_children(NodeId parent, bool* answer) {
  constexpr prtkv_result kEnough = PRTKV_KEY_EXISTS;
  Status doubt;
  Status status = children_with_damage(
      parent, [](std::string_view, const Node&) { return Status(kEnough); },
      [&](std::string_view, const Status& damage) {
        doubt = damage;
        return Status();
      });
  if (!status.ok() && !status.is(kEnough)) return status;
  *answer = !status.ok();
  return *answer ? Status() : doubt;
}

}  // namespace tkv::store
