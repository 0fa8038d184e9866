// LmdbUpdate: one write transaction on the registry's tree.
#ifndef TKV_PLATFORM_STORE_LMDB_LMDB_UPDATE_H
#define TKV_PLATFORM_STORE_LMDB_LMDB_UPDATE_H

#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "store/lmdb/environment.h"
#include "store/lmdb/file.h"
#include "store/lmdb/lmdb_view.h"
#include "store/lmdb/log_writer.h"
#include "store/lmdb/record_writer.h"
#include "store/record.h"
#include "store/tree_check.h"

namespace tkv::store {

class LmdbUpdate final : public Update {
 public:
  LmdbUpdate(Environment& environment, const WriteTransaction& transaction, const Retention& retention)
      : environment_(environment),
        former_(transaction.former()),
        is_inner_(transaction.is_inner()),
        records_(environment, transaction),
        log_(records_, former_, retention) {}

  // Checks what every transaction depends on. Call first.
  Status begin() { return is_inner_ ? Status() : records_.begin(); }

  Status find(NodeId parent, std::string_view name, Node* node) override;
  Status value(NodeId id, Value* value) override;
  Status children(NodeId parent, VisitChild visit) override {
    return children_with_damage(parent, visit, kEndAtDamage);
  }
  Status children_with_damage(NodeId parent, VisitChild visit, VisitDamagedChild damaged) override;
  Status has_children(NodeId parent, bool* answer) override;
  std::uint64_t structure() override { return load_meta().ok() ? meta_->structure : 0; }
  Status revision(Revision* revision) override;
  Status change(Revision revision, ChangeRecord* record) override;

  Status new_id(NodeId* id) override;
  Status insert(NodeId parent, std::string_view name, const Node& node) override;
  Status set_security(NodeId parent, std::string_view name, const sec_attr& security) override;
  Status unlink(NodeId parent, std::string_view name) override;
  Status discard(NodeId id) override;
  Status remove_damaged(NodeId parent, std::string_view name) override;
  Status set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) override;
  View& before() override {
    if (!before_) before_.emplace(environment_);
    return *before_;
  }

  void describe(ChangeDescription description) override { description_ = std::move(description); }

  // The state before the update, which the changes leave as it is.
  const FileState& former() const { return former_; }

  // Repairs the registry's record of itself. Which ids were used above `largest_id` and removed since is not known: the
  // counter continues far beyond any of them. So does that of revisions if `revision`, the largest one that was found,
  // is all that is known of them; then the log is given up, and what is left of it has to be removed.
  Status restart_counter(NodeId largest_id, Revision revision, bool revision_is_lost);

  // A record of the log: a part of a change.
  struct LogPart {
    Revision revision;
    std::uint32_t number;
  };
  Status remove_from_log(std::span<const LogPart> parts);

  // Gives up the log up to and including a change.
  Status forget_log(Revision up_to);

  // See Store::purge.
  Status purge(std::span<const NodeId> nodes, std::uint64_t* removed);

  // Repairs the root's record, whose id is known.
  Status reset_root(const sec_attr& security) { return put_node(kNoNode, "", Node{kRootNode, security}, 0); }

  // Removes records, but not what is below them.
  Status remove_all(const TreeCheck::Removable& removable);

  // Logs the change, if there was one, and writes the registry's record of itself. The last call.
  Status finish();

  // After finish(): that of the change or, if nothing was changed, of the former state.
  Revision last_revision() const { return meta_ ? meta_->revision : former_revision_; }

  // Within another transaction: the function has asked for the log, of which it was shown the state before that one.
  // What it has done must not be committed.
  bool needs_outer() const { return needs_outer_; }

  // The outcome of the LMDB call that made this transaction unusable; code 0 if none did.
  LmdbOutcome broken_by() const { return records_.broken_by(); }

 private:
  Status load_meta();
  Status put_node(NodeId parent, std::string_view name, Node node, unsigned flags);
  // Put and remove a record, and keep the former one for the log.
  Status replace(const Key& key, std::span<const std::byte> record, unsigned flags);
  Status erase(const Key& key);
  Status keep_former(const Key& key);
  Status remove_value(NodeId id);
  Status remove_children(NodeId parent, std::vector<NodeId>* ids);

  Environment& environment_;
  const FileState& former_;
  const bool is_inner_;
  bool needs_outer_ = false;
  RecordWriter records_;
  LogWriter log_;
  std::optional<Meta> meta_;
  bool meta_changed_ = false;
  Revision former_revision_ = 0;
  NodeId first_new_id_ = kNoNode;
  bool changed_ = false;  // so this update has a revision
  ChangeDescription description_;
  std::vector<std::byte> record_;
  std::optional<FormerView> before_;
};

}  // namespace tkv::store

#endif
