// Views of the embedded store: one state each, read through pages and records that are checked on the way.
#ifndef TKV_PLATFORM_STORE_LMDB_LMDB_VIEW_H
#define TKV_PLATFORM_STORE_LMDB_LMDB_VIEW_H

#include "store/lmdb/environment.h"
#include "store/lmdb/log.h"
#include "store/lmdb/tree.h"

namespace tkv::store {

// The state that a read transaction sees. A long read checks each page as a whole only once. A short one, which visits
// few pages and must not allocate, keeps no record of them. Preparing for changes may allocate.
class LmdbView final : public View {
 public:
  LmdbView(const ReadTransaction& transaction, ReadTransaction::Length length)
      : transaction_(transaction), length_(length) {}

  std::uint64_t state() override { return file_state().transaction; }
  Status find(NodeId parent, std::string_view name, Node* node) override {
    return find_node(file_state(), parent, name, node);
  }
  Status value(NodeId id, Value* value) override { return find_value(file_state(), id, value, checked()); }
  Status value_up_to(NodeId id, std::size_t capacity, Value* value, std::size_t* size, ValuePlace* place) override {
    return find_value_up_to(file_state(), id, capacity, value, size, place);
  }
  ValuePlace place_of_value(NodeId id) override { return store::place_of_value(file_state(), id); }
  void prepare_for_changes(ValuePlace* place) override {
    ReaderSlot& slot = transaction_.slot();
    follow(slot);
    if (slot.pages.fingerprints_pay()) slot.pages.recognizes(slot.state, state(), place);
  }
  Status children(NodeId parent, VisitChild visit) override {
    return visit_children(file_state(), parent, visit, kEndAtDamage, checked());
  }
  Status children_with_damage(NodeId parent, VisitChild visit, VisitDamagedChild damaged) override {
    return visit_children(file_state(), parent, visit, damaged, checked());
  }
  Status has_children(NodeId parent, bool* answer) override {
    return store::has_children(file_state(), parent, answer, checked());
  }

  std::uint64_t structure() override { return structure_of(transaction_.slot()); }
  Status revision(Revision* revision) override {
    Meta meta;
    Status status = find_meta(file_state(), &meta);
    if (status.ok()) *revision = meta.revision;
    return status;
  }
  Status change(Revision revision, ChangeRecord* record) override {
    Meta meta;
    Status status = find_meta(file_state(), &meta);
    return status.ok() ? read_change(file_state(), meta, revision, record) : status;
  }

 private:
  const FileState& file_state() const { return transaction_.state(); }
  CheckedPages* checked() { return length_ == ReadTransaction::Length::kLong ? &checked_ : nullptr; }

  const ReadTransaction& transaction_;
  const ReadTransaction::Length length_;
  CheckedPages checked_;
};

// The state before an update, while the update is being made. Updates may visit many nodes.
class FormerView final : public View {
 public:
  explicit FormerView(Environment& environment)
      : transaction_(environment, ReadTransaction::Length::kShort),
        begun_(transaction_.begin()),
        view_(transaction_, ReadTransaction::Length::kLong) {}

  Status find(NodeId parent, std::string_view name, Node* node) override {
    return begun_.ok() ? view_.find(parent, name, node) : begun_;
  }
  Status value(NodeId id, Value* value) override { return begun_.ok() ? view_.value(id, value) : begun_; }
  Status children(NodeId parent, VisitChild visit) override {
    return begun_.ok() ? view_.children(parent, visit) : begun_;
  }
  Status children_with_damage(NodeId parent, VisitChild visit, VisitDamagedChild damaged) override {
    return begun_.ok() ? view_.children_with_damage(parent, visit, damaged) : begun_;
  }
  Status has_children(NodeId parent, bool* answer) override {
    return begun_.ok() ? view_.has_children(parent, answer) : begun_;
  }
  std::uint64_t structure() override { return begun_.ok() ? view_.structure() : 0; }
  Status revision(Revision* revision) override { return begun_.ok() ? view_.revision(revision) : begun_; }
  Status change(Revision revision, ChangeRecord* record) override {
    return begun_.ok() ? view_.change(revision, record) : begun_;
  }

 private:
  ReadTransaction transaction_;
  const Status begun_;
  LmdbView view_;
};

}  // namespace tkv::store

#endif
