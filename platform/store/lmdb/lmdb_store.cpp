#include "store/lmdb/lmdb_store.h"

#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "base/standard_files.h"
#include "store/lmdb/assertion.h"
#include "store/lmdb/directory.h"
#include "store/lmdb/environment.h"
#include "store/lmdb/pages.h"
#include "store/lmdb/tree.h"
#include "store/tree_check.h"

namespace tkv::store {
namespace {

// The structure number of the state that a read transaction sees, which is read once for each state.
std::uint64_t structure_of(ReaderSlot& slot) {
  const std::uint64_t state = mdb_txn_id(slot.txn);
  if (slot.structure_state == state) return slot.structure;
  Meta meta;
  if (!find_meta(slot.txn, &meta).ok()) return 0;
  slot.structure_state = state;
  slot.structure = meta.structure;
  return meta.structure;
}

class LmdbView final : public View {
 public:
  explicit LmdbView(const ReadTransaction& transaction) : transaction_(transaction) {}

  Status find(NodeId parent, std::string_view name, Node* node) override {
    return find_node(transaction_.txn(), parent, name, node);
  }
  Status value(NodeId id, Value* value) override { return find_value(transaction_.txn(), id, value); }
  Status children(NodeId parent, FunctionRef<Status(std::string_view, const Node&)> visit) override {
    return visit_children(transaction_.txn(), parent, Walk::kOfFixedTree, visit);
  }
  Status has_children(NodeId parent, bool* answer) override {
    return store::has_children(transaction_.txn(), parent, answer);
  }
  std::uint64_t structure() override { return structure_of(transaction_.slot()); }

 private:
  const ReadTransaction& transaction_;
};

// The state before an update, while the update is being made.
class FormerView final : public View {
 public:
  explicit FormerView(Environment& environment)
      : transaction_(environment, ReadTransaction::Length::kShort), begun_(transaction_.begin()), view_(transaction_) {}

  Status find(NodeId parent, std::string_view name, Node* node) override {
    return begun_.ok() ? view_.find(parent, name, node) : begun_;
  }
  Status value(NodeId id, Value* value) override { return begun_.ok() ? view_.value(id, value) : begun_; }
  Status children(NodeId parent, FunctionRef<Status(std::string_view, const Node&)> visit) override {
    return begun_.ok() ? view_.children(parent, visit) : begun_;
  }
  Status has_children(NodeId parent, bool* answer) override {
    return begun_.ok() ? view_.has_children(parent, answer) : begun_;
  }
  std::uint64_t structure() override { return begun_.ok() ? view_.structure() : 0; }

 private:
  ReadTransaction transaction_;
  const Status begun_;
  LmdbView view_;
};

class LmdbUpdate final : public Update {
 public:
  LmdbUpdate(Environment& environment, MDB_txn* txn) : environment_(environment), txn_(txn) {}

  Status find(NodeId parent, std::string_view name, Node* node) override { return find_node(txn_, parent, name, node); }
  Status value(NodeId id, Value* value) override { return find_value(txn_, id, value); }
  Status children(NodeId parent, FunctionRef<Status(std::string_view, const Node&)> visit) override {
    return visit_children(txn_, parent, Walk::kOfChangingTree, visit);
  }
  Status has_children(NodeId parent, bool* answer) override { return store::has_children(txn_, parent, answer); }
  std::uint64_t structure() override { return load_meta().ok() ? meta_->structure : 0; }

  Status new_id(NodeId* id) override;
  Status insert(NodeId parent, std::string_view name, const Node& node) override;
  Status set_security(NodeId parent, std::string_view name, const sec_attr& security) override;
  Status unlink(NodeId parent, std::string_view name) override;
  Status discard(NodeId id) override;
  Status set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) override;
  View& before() override {
    if (!before_) before_.emplace(environment_);
    return *before_;
  }

  // Removes records, and nothing that hangs on them.
  Status remove_all(const TreeCheck::Removable& removable);

  MDB_txn* txn() const { return txn_; }

  // Writes what the update changed in the registry's record of itself. The last call.
  Status finish();

  // How the LMDB call ended that this transaction did not survive; code 0 when there was none.
  LmdbOutcome broken_by() const { return broken_by_; }

 private:
  Status load_meta();
  Status put(const Key& key, std::span<const std::byte> record, unsigned flags);
  LmdbOutcome remove_record(const Key& key);
  Status remove(const Key& key) { return succeeded(remove_record(key), "cannot remove from the registry"); }
  Status remove_value(NodeId id);
  Status remove_children(NodeId parent, std::vector<NodeId>* ids);
  Status succeeded(LmdbOutcome outcome, const char* doing);

  Environment& environment_;
  MDB_txn* const txn_;
  std::optional<Meta> meta_;
  bool meta_changed_ = false;
  LmdbOutcome broken_by_{0, 0};
  std::vector<std::byte> record_;
  std::optional<FormerView> before_;
};

Status LmdbUpdate::succeeded(LmdbOutcome outcome, const char* doing) {
  const bool survived = outcome.code == 0 || outcome.code == MDB_KEYEXIST || outcome.code == MDB_NOTFOUND;
  if (!survived && broken_by_.code == 0) broken_by_ = outcome;  // all calls after the first fail because of it
  return outcome.code == 0 ? Status() : failure(txn_, outcome, doing);
}

Status LmdbUpdate::load_meta() {
  if (meta_) return {};
  Meta meta;
  if (Status status = find_meta(txn_, &meta); !status.ok()) return status;
  meta_ = meta;
  return {};
}

Status LmdbUpdate::put(const Key& key, std::span<const std::byte> record, unsigned flags) {
  MDB_val key_val = key.val();
  MDB_val data{record.size(), const_cast<std::byte*>(record.data())};
  const auto write = [&] { return mdb_put(txn_, kDatabase, &key_val, &data, flags); };
  return succeeded(lmdb_outcome(write), "cannot write to the registry");
}

LmdbOutcome LmdbUpdate::remove_record(const Key& key) {
  MDB_val key_val = key.val();
  return lmdb_outcome([&] { return mdb_del(txn_, kDatabase, &key_val, nullptr); });
}

Status LmdbUpdate::remove_value(NodeId id) {
  const LmdbOutcome outcome = remove_record(Key::value(id));
  return outcome.code == MDB_NOTFOUND ? Status() : succeeded(outcome, "cannot remove from the registry");
}

Status LmdbUpdate::new_id(NodeId* id) {
  if (Status status = load_meta(); !status.ok()) return status;
  *id = meta_->next_id++;
  meta_changed_ = true;
  return {};
}

Status LmdbUpdate::insert(NodeId parent, std::string_view name, const Node& node) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  if (node.id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a node needs an id"};
  return put(Key::node(parent, name), encode_node(parent, name, node), MDB_NOOVERWRITE);
}

Status LmdbUpdate::set_security(NodeId parent, std::string_view name, const sec_attr& security) {
  Node node;
  if (Status status = find(parent, name, &node); !status.ok()) return status;
  node.security = security;
  return put(Key::node(parent, name), encode_node(parent, name, node), 0);
}

Status LmdbUpdate::unlink(NodeId parent, std::string_view name) {
  if (Status status = check_place(parent, name); !status.ok()) return status;
  if (Status status = load_meta(); !status.ok()) return status;
  if (Status status = remove(Key::node(parent, name)); !status.ok()) return status;
  ++meta_->structure;
  meta_changed_ = true;
  return {};
}

Status LmdbUpdate::discard(NodeId id) {
  if (id == kNoNode || id == kRootNode) return {PRTKV_INVALID_ARGUMENT, "the root cannot be moved or removed"};
  std::vector<NodeId> pending{id};
  while (!pending.empty()) {
    const NodeId node = pending.back();
    pending.pop_back();
    if (Status status = remove_value(node); !status.ok()) return status;
    if (Status status = remove_children(node, &pending); !status.ok()) return status;
  }
  return {};
}

Status LmdbUpdate::remove_children(NodeId parent, std::vector<NodeId>* ids) {
  return children(parent, [&](std::string_view name, const Node& child) -> Status {
    ids->push_back(child.id);
    return remove(Key::node(parent, name));
  });
}

// The record is put together apart from the map: the bytes may be those of a value of this very transaction, whose
// page the insertion moves.
Status LmdbUpdate::set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) {
  if (id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a value needs a node"};
  if (Status status = check_value_size(bytes.size()); !status.ok()) return status;
  if (type == 0 && bytes.empty()) return remove_value(id);
  record_.resize(value_record_size(bytes.size()));
  encode_value(id, type, bytes, record_);
  return put(Key::value(id), record_, 0);
}

Status LmdbUpdate::remove_all(const TreeCheck::Removable& removable) {
  for (const TreeCheck::CheckedNode& entry : removable.nodes)
    if (Status status = remove(Key::node(entry.parent, entry.name)); !status.ok()) return status;
  for (const NodeId id : removable.values)
    if (Status status = remove(Key::value(id)); !status.ok()) return status;
  return {};
}

Status LmdbUpdate::finish() {
  before_.reset();
  return meta_changed_ ? put(Key::meta(), encode_meta(*meta_), 0) : Status();
}

// Looks through the pages, so that records can be read without danger.
Status read_pages(MDB_txn* txn, FunctionRef<void(const CheckProgress&)> progress, bool* outdated) {
  return check_pages(
      txn,
      [&](std::uint64_t done, std::uint64_t total) {
        progress({"pages", done, total});
      },
      outdated);
}

std::uint64_t count_records(MDB_txn* txn) {
  MDB_stat records{};
  return mdb_stat(txn, kDatabase, &records) == 0 ? records.ms_entries : 0;
}

// Reads every record of a state, in the order of the keys.
Status read_records(MDB_txn* txn, TreeCheck* check, FunctionRef<void(const CheckProgress&)> progress) {
  CheckProgress records{"records", 0, count_records(txn)};
  Cursor cursor(nullptr, &mdb_cursor_close);
  if (Status status = open_cursor(txn, &cursor); !status.ok()) return status;
  MDB_val key{};
  MDB_val data{};
  int code = mdb_cursor_get(cursor.get(), &key, &data, MDB_FIRST);
  for (; code == 0; code = mdb_cursor_get(cursor.get(), &key, &data, MDB_NEXT)) {
    KeyParts parts;
    Node node;
    Value value;
    ++records.done;
    progress(records);
    if (!read_key(key, &parts)) {
      check->add_damaged_node(kNoNode, {static_cast<const char*>(key.mv_data), key.mv_size}, "an unknown key");
    } else if (parts.kind == kNodeKey) {
      const Status status = decode_node(parts.id, parts.name, bytes_of(data), &node);
      status.ok() ? check->add_node(parts.id, parts.name, node.id)
                  : check->add_damaged_node(parts.id, parts.name, status.text());
    } else if (parts.kind == kValueKey) {
      const Status status = decode_value(parts.id, bytes_of(data), &value);
      status.ok() ? check->add_value(parts.id, value.bytes.size()) : check->add_damaged_value(parts.id, status.text());
    }
  }
  return code == MDB_NOTFOUND ? Status() : failure(txn, code, "cannot read the registry");
}

class LmdbStore final : public Store {
 public:
  LmdbStore(Environment::Held environment, bool read_only)
      : held_(std::move(environment)), environment_(*held_), read_only_(read_only) {}

  Status read(FunctionRef<Status(View&)> function) override {
    return read_for(ReadTransaction::Length::kShort, function);
  }
  Status read_all(FunctionRef<Status(View&)> function) override {
    return read_for(ReadTransaction::Length::kLong, function);
  }
  Status write(FunctionRef<Status(Update&)> function) override;
  std::size_t handy_changes() const override { return std::numeric_limits<std::size_t>::max(); }
  Status check(bool repair, FunctionRef<void(const Finding&)> report, FunctionRef<void(const CheckProgress&)> progress,
               Totals* totals) override;
  const char* kind() const override { return "lmdb"; }

 private:
  Status check_only(FunctionRef<void(const Finding&)> report, FunctionRef<void(const CheckProgress&)> progress,
                    Totals* totals);
  Status check_and_repair(FunctionRef<void(const Finding&)> report, FunctionRef<void(const CheckProgress&)> progress,
                          Totals* totals);
  Status read_for(ReadTransaction::Length length, FunctionRef<Status(View&)> function);
  Status may_write() const;
  Status write_once(WriteTransaction& transaction, FunctionRef<Status(LmdbUpdate&)> function, LmdbOutcome* outcome);
  Status write_with(FunctionRef<Status(LmdbUpdate&)> function);
  Status damaged(const LmdbAssertion& broken) const;

  const Environment::Held held_;
  Environment& environment_;
  const bool read_only_;
};

Status LmdbStore::damaged(const LmdbAssertion& broken) const {
  return {PRTKV_STORAGE_FAILED, "the registry in '" + environment_.directory() + "' is damaged: " + broken.what()};
}

Status LmdbStore::read_for(ReadTransaction::Length length, FunctionRef<Status(View&)> function) try {
  ReadTransaction transaction(environment_, length);
  if (Status status = transaction.begin(); !status.ok()) return status;
  LmdbView view(transaction);
  return function(view);
} catch (const LmdbAssertion& broken) {
  return damaged(broken);
}

Status LmdbStore::may_write() const {
  if (Status status = environment_.check_process(); !status.ok()) return status;
  if (read_only_)
    return {PRTKV_ACCESS_DENIED, "the registry in '" + environment_.directory() + "' was opened for reading only"};
  if (Running::reads(&environment_) || Running::writes(&environment_))
    return {PRTKV_INVALID_ARGUMENT, "a write within a function that the registry's store is running"};
  return {};
}

// One attempt. `outcome` receives how LMDB failed, code 0 when it did not.
Status LmdbStore::write_once(WriteTransaction& transaction, FunctionRef<Status(LmdbUpdate&)> function,
                             LmdbOutcome* outcome) {
  LmdbUpdate update(environment_, transaction.txn());
  Status status = function(update);
  if (status.ok() && update.broken_by().code == 0) status = update.finish();
  *outcome = update.broken_by();
  if (!status.ok()) return status;
  if (outcome->code == 0) *outcome = transaction.commit();
  return environment_.failure(*outcome, "cannot write to the registry");
}

Status LmdbStore::write_with(FunctionRef<Status(LmdbUpdate&)> function) try {
  if (Status status = may_write(); !status.ok()) return status;
  WriteTransaction transaction(environment_);
  for (;;) {
    if (Status status = transaction.begin(); !status.ok()) return status;
    LmdbOutcome outcome{0, 0};
    Status status = write_once(transaction, function, &outcome);
    transaction.abort();  // unless it was committed
    if (outcome.code != MDB_MAP_FULL) return status;
    if (Status room = transaction.make_room(); !room.ok()) return room;
  }
} catch (const LmdbAssertion& broken) {
  return damaged(broken);
}

Status LmdbStore::write(FunctionRef<Status(Update&)> function) {
  return write_with([&](LmdbUpdate& update) { return function(update); });
}

Status LmdbStore::check(bool repair, FunctionRef<void(const Finding&)> report,
                        FunctionRef<void(const CheckProgress&)> progress, Totals* totals) {
  return repair ? check_and_repair(report, progress, totals) : check_only(report, progress, totals);
}

Status LmdbStore::check_only(FunctionRef<void(const Finding&)> report, FunctionRef<void(const CheckProgress&)> progress,
                             Totals* totals) try {
  for (;;) {
    ReadTransaction transaction(environment_, ReadTransaction::Length::kLong);
    if (Status status = transaction.begin(); !status.ok()) return status;
    bool outdated = false;
    if (Status status = read_pages(transaction.txn(), progress, &outdated); !status.ok()) return status;
    if (outdated) continue;
    TreeCheck check(report);
    if (Status status = read_records(transaction.txn(), &check, progress); !status.ok()) return status;
    check.finish(totals, nullptr);
    return {};
  }
} catch (const LmdbAssertion& broken) {
  return damaged(broken);
}

Status LmdbStore::check_and_repair(FunctionRef<void(const Finding&)> report,
                                   FunctionRef<void(const CheckProgress&)> progress, Totals* totals) {
  // Findings are reported of the attempt that is committed, not of those in vain.
  std::vector<Finding> findings;
  Status status = write_with([&](LmdbUpdate& update) -> Status {
    findings.clear();
    const auto collect = [&](const Finding& finding) { findings.push_back(finding); };
    TreeCheck check(collect);
    bool outdated = false;  // never, while nobody else can write
    if (Status pages = read_pages(update.txn(), progress, &outdated); !pages.ok()) return pages;
    if (Status read = read_records(update.txn(), &check, progress); !read.ok()) return read;
    TreeCheck::Removable removable;
    check.finish(totals, &removable);
    return update.remove_all(removable);
  });
  for (const Finding& finding : findings) report(finding);
  return status;
}

}  // namespace

Status open_lmdb_store(const LmdbOptions& options, std::shared_ptr<Store>* store) {
  occupy_standard_files();
  if (Status status = prepare_directory(options); !status.ok()) return status;
  Environment::Held environment;
  if (Status status = Environment::acquire(options, &environment); !status.ok()) return status;
  *store = std::make_shared<LmdbStore>(std::move(environment), options.read_only);
  return {};
}

}  // namespace tkv::store
