#include "store/lmdb/lmdb_store.h"

#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "base/standard_files.h"
#include "store/lmdb/assertion.h"
#include "store/lmdb/environment.h"
#include "store/lmdb/lmdb_update.h"
#include "store/lmdb/lmdb_view.h"
#include "store/lmdb/pages.h"
#include "store/lmdb/tree.h"
#include "store/lmdb/tree_cursor.h"
#include "store/tree_check.h"

namespace tkv::store {
namespace {

// All records of a state, and what is wrong with them.
class RecordCheck {
 public:
  explicit RecordCheck(FunctionRef<void(const Finding&)> report) : report_(report), tree_(report) {}

  // Reads the pages and then the records, in the order of their keys.
  Status read(int file, const FileState& state, FunctionRef<void(const CheckProgress&)> progress);

  // Call once, after read().
  void finish(Totals* totals, TreeCheck::Removable* removable) { tree_.finish(totals, removable); }

  bool root_is_damaged() const { return root_is_damaged_; }
  bool counter_is_unusable() const { return counter_is_unusable_; }
  NodeId largest_id() const { return largest_id_; }

 private:
  Status read_records(const FileState& state, FunctionRef<void(const CheckProgress&)> progress);
  void add(std::span<const std::byte> key, std::span<const std::byte> record);
  void add_node(NodeId parent, std::string_view name, std::span<const std::byte> record);
  void add_value(NodeId id, std::span<const std::byte> record);
  void check_counter();
  void see(NodeId id) { largest_id_ = std::max(largest_id_, id); }

  FunctionRef<void(const Finding&)> report_;
  TreeCheck tree_;
  Meta meta_;
  Status meta_damage_{PRTKV_STORAGE_FAILED, "it is missing"};
  NodeId largest_id_ = kRootNode;  // of all ids in keys and sound records
  bool root_is_damaged_ = false;
  bool counter_is_unusable_ = false;
};

Status RecordCheck::read(int file, const FileState& state, FunctionRef<void(const CheckProgress&)> progress) {
  const auto count = [&](std::uint64_t done, std::uint64_t total) { progress({"pages", done, total}); };
  if (Status status = check_pages(file, state, count); !status.ok()) return status;
  if (Status status = read_records(state, progress); !status.ok()) return status;
  check_counter();
  return {};
}

Status RecordCheck::read_records(const FileState& state, FunctionRef<void(const CheckProgress&)> progress) {
  CheckProgress records{"records", 0, state.records.entries};
  TreeCursor cursor(state);
  PageDamage damage = cursor.first();
  for (; !damage && !cursor.at_end(); damage = cursor.next()) {
    std::span<const std::byte> key;
    std::span<const std::byte> record;
    damage = cursor.read(&key, &record);
    if (damage) break;
    ++records.done;
    progress(records);
    add(key, record);
  }
  return damage ? damaged_page(state.map, damage) : Status();
}

void RecordCheck::add(std::span<const std::byte> key, std::span<const std::byte> record) {
  KeyParts parts;
  if (!read_key(key, &parts)) {
    tree_.add_damaged_node(kNoNode, {reinterpret_cast<const char*>(key.data()), key.size()}, "an unknown key");
  } else if (parts.kind == kNodeKey) {
    add_node(parts.id, parts.name, record);
  } else if (parts.kind == kValueKey) {
    add_value(parts.id, record);
  } else {
    meta_damage_ = decode_meta(record, &meta_);
  }
}

void RecordCheck::add_node(NodeId parent, std::string_view name, std::span<const std::byte> record) {
  Node node;
  const Status status = decode_node(parent, name, record, &node);
  see(parent);
  see(node.id);
  if (status.ok()) {
    tree_.add_node(parent, name, node.id);
  } else {
    tree_.add_damaged_node(parent, name, status.text());
    root_is_damaged_ = root_is_damaged_ || (parent == kNoNode && name.empty());
  }
}

void RecordCheck::add_value(NodeId id, std::span<const std::byte> record) {
  Value value;
  const Status status = decode_value(id, record, &value);
  see(id);
  status.ok() ? tree_.add_value(id, value.bytes.size()) : tree_.add_damaged_value(id, status.text());
}

void RecordCheck::check_counter() {
  const bool is_low = meta_damage_.ok() && meta_.next_id <= largest_id_;
  counter_is_unusable_ = is_low || !meta_damage_.ok();
  if (!counter_is_unusable_) return;
  const std::string why = is_low ? "would give ids in use again" : "cannot be used: " + meta_damage_.text();
  report_({Finding::Kind::kDuplicateId, kNoNode, kNoNode, "", "the counter of ids " + why});
}

class LmdbStore final : public Store {
 public:
  LmdbStore(Environment::Held environment, const LmdbOptions& options)
      : held_(std::move(environment)),
        environment_(*held_),
        read_only_(options.read_only),
        wait_{std::chrono::milliseconds(options.timeout_ms), options.on_wait} {}

  Status read(FunctionRef<Status(View&)> function) override {
    return read_for(ReadTransaction::Length::kShort, function);
  }
  Status read_all(FunctionRef<Status(View&)> function) override {
    return read_for(ReadTransaction::Length::kLong, function);
  }
  std::uint64_t latest_state() override { return environment_.latest_state(); }
  bool copy_value(std::uint64_t state, NodeId id, const ValuePlace& place, std::span<std::byte> buffer,
                  std::int32_t* type, std::size_t* size) override;
  Status write(FunctionRef<Status(Update&)> function) override;
  std::size_t preferred_batch_size() const override { return std::numeric_limits<std::size_t>::max(); }
  Status check(bool repair, FunctionRef<void(const Finding&)> report, FunctionRef<void(const CheckProgress&)> progress,
               Totals* totals) override;
  const char* kind() const override { return "lmdb"; }
  Status status(StoreStatus* status) override;

 private:
  bool copy_record(std::uint64_t state, NodeId id, const ValuePlace& place, std::span<std::byte> buffer,
                   std::int32_t* type, std::size_t* size);
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
  const WriterWait wait_;
};

Status LmdbStore::damaged(const LmdbAssertion& broken) const {
  return {PRTKV_STORAGE_FAILED, "the registry in '" + environment_.directory() + "' is damaged: " + broken.what()};
}

Status LmdbStore::read_for(ReadTransaction::Length length, FunctionRef<Status(View&)> function) {
  ReadTransaction transaction(environment_, length);
  if (Status status = transaction.begin(); !status.ok()) return status;
  LmdbView view(transaction);
  return function(view);
}

bool LmdbStore::copy_value(std::uint64_t state, NodeId id, const ValuePlace& place, std::span<std::byte> buffer,
                           std::int32_t* type, std::size_t* size) {
  const bool fits = place.value_size <= buffer.size();
  if (!place.is_known()) return false;
  if (fits && place.record_size != 0) return copy_record(state, id, place, buffer, type, size);
  if (environment_.latest_state() != state) return false;
  if (fits) *type = 0;
  *size = place.value_size;
  return true;
}

// The record is copied before it is verified: what is in the map may change until the copy is known to be good. Large
// records are left to transactions, which protect them, so that they need not be copied twice.
bool LmdbStore::copy_record(std::uint64_t state, NodeId id, const ValuePlace& place, std::span<std::byte> buffer,
                            std::int32_t* type, std::size_t* size) {
  std::array<std::byte, 4096> bytes;
  Value value;
  if (place.record_size > bytes.size()) return false;
  const auto record = std::span(bytes).first(place.record_size);
  const bool done = environment_.copy_from_latest(state, place.offset, record) &&
                    decode_value(id, record, &value).ok() && value.bytes.size() == place.value_size;
  if (done) {
    *type = value.type;
    *size = value.bytes.size();
    std::memcpy(buffer.data(), value.bytes.data(), value.bytes.size());
  }
  ::explicit_bzero(record.data(), record.size());  // values may be secrets
  return done;
}

Status LmdbStore::may_write() const {
  if (Status status = environment_.check_usable(); !status.ok()) return status;
  if (read_only_) {
    return {PRTKV_ACCESS_DENIED, "the registry in '" + environment_.directory() + "' was opened for reading only"};
  }
  if (Running::reads(&environment_) || Running::writes(&environment_)) {
    return {PRTKV_INVALID_ARGUMENT, "a write within a function that the registry's store is running"};
  }
  return {};
}

// One attempt. `*outcome` receives the outcome of the LMDB call that failed, or code 0.
Status LmdbStore::write_once(WriteTransaction& transaction, FunctionRef<Status(LmdbUpdate&)> function,
                             LmdbOutcome* outcome) {
  LmdbUpdate update(environment_, transaction);
  Status status = update.begin();
  if (status.ok()) status = function(update);
  if (status.ok() && update.broken_by().code == 0) status = update.finish();
  *outcome = update.broken_by();
  if (!status.ok()) return status;
  if (outcome->code != 0) return environment_.failure(*outcome, "cannot write to the registry");
  return transaction.commit(outcome);
}

Status LmdbStore::write_with(FunctionRef<Status(LmdbUpdate&)> function) try {
  if (Status status = may_write(); !status.ok()) return status;
  WriteTransaction transaction(environment_, wait_);
  for (;;) {
    if (Status status = transaction.begin(); !status.ok()) return status;
    LmdbOutcome outcome{0, 0};
    Status status = write_once(transaction, function, &outcome);
    transaction.abort();  // no effect after a commit
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
                             Totals* totals) {
  ReadTransaction transaction(environment_, ReadTransaction::Length::kLong);
  if (Status status = transaction.begin(); !status.ok()) return status;
  RecordCheck check(report);
  if (Status status = check.read(environment_.file(), transaction.state(), progress); !status.ok()) return status;
  check.finish(totals, nullptr);
  return {};
}

Status LmdbStore::check_and_repair(FunctionRef<void(const Finding&)> report,
                                   FunctionRef<void(const CheckProgress&)> progress, Totals* totals) {
  // Only the attempt that is committed is reported.
  std::vector<Finding> findings;
  Status status = write_with([&](LmdbUpdate& update) -> Status {
    findings.clear();
    const auto collect = [&](const Finding& finding) { findings.push_back(finding); };
    RecordCheck check(collect);
    if (Status read = check.read(environment_.file(), update.former(), progress); !read.ok()) return read;
    TreeCheck::Removable removable;
    check.finish(totals, &removable);
    if (check.counter_is_unusable()) update.restart_counter(check.largest_id());
    if (check.root_is_damaged()) {
      if (Status root = update.reset_root(); !root.ok()) return root;
    }
    return update.remove_all(removable);
  });
  for (const Finding& finding : findings) report(finding);
  return status;
}

Status LmdbStore::status(StoreStatus* status) {
  ReadTransaction transaction(environment_, ReadTransaction::Length::kShort);
  if (Status begun = transaction.begin(); !begun.ok()) return begun;
  return environment_.status(transaction.state(), status);
}

}  // namespace

Status open_lmdb_store(const LmdbOptions& options, std::shared_ptr<Store>* store) {
  occupy_standard_files();
  Environment::Held environment;
  if (Status status = Environment::acquire(options, &environment); !status.ok()) return status;
  *store = std::make_shared<LmdbStore>(std::move(environment), options);
  return {};
}

}  // namespace tkv::store
