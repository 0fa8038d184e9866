#include "store/lmdb/lmdb_store.h"

#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "base/standard_files.h"
#include "store/lmdb/assertion.h"
#include "store/lmdb/environment.h"
#include "store/lmdb/file_watch.h"
#include "store/lmdb/lmdb_update.h"
#include "store/lmdb/lmdb_view.h"
#include "store/lmdb/log.h"
#include "store/lmdb/pages.h"
#include "store/lmdb/past.h"
#include "store/lmdb/tree.h"
#include "store/lmdb/tree_cursor.h"
#include "store/tree_check.h"

namespace tkv::store {
namespace {

constexpr std::size_t kMostKeptPast = std::size_t{8} << 20;  // bytes between two reads

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
  bool meta_is_damaged() const { return !meta_damage_.ok(); }
  NodeId largest_id() const { return largest_id_; }
  Revision largest_revision() const { return largest_revision_; }
  Revision damaged_change() const { return damaged_change_; }  // the latest one, or zero if there is none

  // All records of the log, if the registry's record of itself is damaged.
  const std::vector<LmdbUpdate::LogPart>& lost_log() const { return lost_log_; }

 private:
  Status read_records(const FileState& state, FunctionRef<void(const CheckProgress&)> progress);
  void add(std::span<const std::byte> key, std::span<const std::byte> record);
  void add_node(NodeId parent, std::string_view name, std::span<const std::byte> record);
  void add_value(NodeId id, std::span<const std::byte> record);
  void add_change(Revision revision, std::uint32_t number, std::span<const std::byte> record);
  void check_counter();
  void check_log();
  void report_change(Revision revision, const std::string& detail);
  void see(NodeId id) { largest_id_ = std::max(largest_id_, id); }
  void see_revision(Revision revision) { largest_revision_ = std::max(largest_revision_, revision); }

  FunctionRef<void(const Finding&)> report_;
  TreeCheck tree_;
  Meta meta_;
  Status meta_damage_{PRTKV_STORAGE_FAILED, "it is missing"};
  NodeId largest_id_ = kRootNode;  // of all ids in keys and sound records
  Revision largest_revision_ = 0;  // likewise
  Revision damaged_change_ = 0;
  std::vector<LmdbUpdate::LogPart> lost_log_;
  std::vector<Revision> changes_;  // that are complete
  std::uint32_t next_part_ = 0;    // of the change that is being read
  bool root_is_damaged_ = false;
  bool counter_is_unusable_ = false;
};

Status RecordCheck::read(int file, const FileState& state, FunctionRef<void(const CheckProgress&)> progress) {
  const auto count = [&](std::uint64_t done, std::uint64_t total) { progress({"pages", done, total}); };
  if (Status status = check_pages(file, state, count); !status.ok()) return status;
  if (Status status = read_records(state, progress); !status.ok()) return status;
  check_counter();
  check_log();
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
    return;
  }
  switch (parts.kind) {
    case KeyParts::Kind::kNode:
      return add_node(parts.id, parts.name, record);
    case KeyParts::Kind::kValue:
      return add_value(parts.id, record);
    case KeyParts::Kind::kChange:
      return add_change(parts.id, parts.part, record);
    case KeyParts::Kind::kMeta:
      meta_damage_ = decode_meta(record, &meta_);
  }
}

void RecordCheck::add_node(NodeId parent, std::string_view name, std::span<const std::byte> record) {
  Node node;
  const Status status = decode_node(parent, name, record, &node);
  see(parent);
  see(node.id);
  see_revision(node.revision);
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
  see_revision(value.revision);
  if (!status.ok()) {
    tree_.add_damaged_value(id, status.text());
  } else if (value.type == 0 && value.bytes.empty()) {
    tree_.add_removed_value(id);
  } else {
    tree_.add_value(id, value.bytes.size());
  }
}

void RecordCheck::report_change(Revision revision, const std::string& detail) {
  damaged_change_ = std::max(damaged_change_, revision);
  report_({Finding::Kind::kDamagedChange, kNoNode, revision, "", change_text(revision) + ": " + detail});
}

// Parts come in the order of their keys: the newest change first, after the registry's record of itself. What the log
// has dropped and a write has yet to remove may be damaged.
void RecordCheck::add_change(Revision revision, std::uint32_t number, std::span<const std::byte> record) {
  ChangePart part;
  see_revision(revision);
  if (!meta_damage_.ok()) lost_log_.push_back({revision, number});
  if (meta_damage_.ok() && revision <= meta_.log_after) return;
  if (number == 0) next_part_ = 0;
  if (Status status = decode_change(revision, number, record, &part); !status.ok()) {
    report_change(revision, status.text());
    return;
  }
  if (number != next_part_++ || next_part_ != part.parts) return;
  changes_.push_back(revision);
}

// The log has each of its changes, in all parts.
void RecordCheck::check_log() {
  if (!meta_damage_.ok()) return;
  std::reverse(changes_.begin(), changes_.end());
  auto next = std::upper_bound(changes_.begin(), changes_.end(), meta_.log_after);
  for (Revision revision = meta_.log_after + 1; revision <= meta_.revision; ++revision) {
    const bool found = next != changes_.end() && *next == revision;
    if (found) {
      ++next;
    } else if (revision > damaged_change_) {
      report_change(revision, "a part of it is missing");
    }
  }
}

void RecordCheck::check_counter() {
  const bool is_low = meta_damage_.ok() && meta_.next_id <= largest_id_;
  counter_is_unusable_ = is_low || !meta_damage_.ok();
  if (!counter_is_unusable_) return;
  const std::string what = is_low ? "the id counter is too low: new keys would get ids that are in use"
                                  : "the id counter cannot be read: " + meta_damage_.text();
  report_({Finding::Kind::kDuplicateId, kNoNode, kNoNode, "", what + "; a repair sets it"});
}

// In a file that may not grow beyond a size, the past gets a quarter of it at most.
Retention retention_of(const LmdbOptions& options) {
  Retention retention = options.retention;
  if (options.map_size != 0) retention.bytes = std::min(retention.bytes, options.map_size / 4);
  return retention;
}

// Larger records are left to transactions, which protect them, so that they need not be copied twice.
constexpr std::size_t kLargestCopied = 4096;

bool is_large(const ValuePlace& place, std::span<const std::byte> buffer) {
  return place.value_size <= buffer.size() && place.record_size > kLargestCopied;
}

class LmdbStore final : public Store {
 public:
  LmdbStore(Environment::Held environment, const LmdbOptions& options)
      : held_(std::move(environment)),
        environment_(*held_),
        read_only_(options.read_only),
        root_security_(options.root_security),
        wait_{std::chrono::milliseconds(options.timeout_ms), options.on_wait},
        retention_(retention_of(options)) {}

  Status read(FunctionRef<Status(View&)> function) override {
    return read_for(ReadTransaction::Length::kShort, function);
  }
  Status read_all(FunctionRef<Status(View&)> function) override {
    return read_for(ReadTransaction::Length::kLong, function);
  }
  std::uint64_t latest_state(const ValuePlace* copied_next) override { return environment_.latest_state(copied_next); }
  std::shared_ptr<const StateMemory> state_memory() override { return environment_.state_memory(); }
  bool copy_value(std::uint64_t state, NodeId id, const ValuePlace& place, std::span<std::byte> buffer,
                  std::int32_t* type, std::size_t* size) override;
  bool copy_unchanged_value(std::uint64_t* state, NodeId id, ValuePlace* place, std::span<std::byte> buffer,
                            std::int32_t* type, std::size_t* size) override;
  std::uint64_t unchanged_until(std::uint64_t state, NodeId id, ValuePlace* place) override {
    return environment_.unchanged_until(state, id, place);
  }
  Status write(FunctionRef<Status(Update&)> function, Revision* revision) override;
  Status read_at(Revision revision, FunctionRef<Status(View&)> function) override;
  Status changes(const LogRange& range, FunctionRef<Status(const ChangeRecord& record)> visit,
                 LogPosition* position) override;
  Status wait(Revision after, std::chrono::milliseconds timeout, const std::stop_token& stop,
              Revision* revision) override;
  Status purge(ChooseNodes choose, const ChangeDescription& description, std::uint64_t* removed) override;
  Status check(const ChangeDescription* repair, FunctionRef<void(const Finding&)> report,
               FunctionRef<void(const CheckProgress&)> progress, Totals* totals) override;
  bool is_own() const override { return environment_.is_own(); }
  const char* kind() const override { return "lmdb"; }
  Status status(StoreStatus* status) override;

 private:
  using Writer = WriteQueue::Writer;

  template <typename CopyBytes>
  bool copy_record(NodeId id, const ValuePlace& place, std::span<std::byte> buffer, std::int32_t* type,
                   std::size_t* size, CopyBytes&& copy_bytes);
  Status check_only(FunctionRef<void(const Finding&)> report, FunctionRef<void(const CheckProgress&)> progress,
                    Totals* totals);
  Status check_and_repair(const ChangeDescription& repair, FunctionRef<void(const Finding&)> report,
                          FunctionRef<void(const CheckProgress&)> progress, Totals* totals);
  sec_attr security_of_repaired_root() const;
  Status read_for(ReadTransaction::Length length, FunctionRef<Status(View&)> function);
  Status may_write() const;
  Status update_once(LmdbUpdate& update, FunctionRef<Status(LmdbUpdate&)> function, LmdbOutcome* outcome);
  Status lead(Writer& writer, WriterDeadline* deadline, FunctionRef<Status(LmdbUpdate&)> function, Revision* revision);
  bool join(Writer& writer, FunctionRef<Status(LmdbUpdate&)> function, Revision* revision, Status* status);
  Status write_with(FunctionRef<Status(LmdbUpdate&)> function, Writer::Preference preference, Revision* revision);
  Status meta(Meta* meta);
  Status past_since(Revision begin, const FileState& state, const Meta& meta, std::shared_ptr<const Past>* past);
  Status check_retained(Revision revision, const Meta& meta) const;
  Status damaged(const LmdbAssertion& broken) const;

  const Environment::Held held_;
  Environment& environment_;
  const bool read_only_;
  const sec_attr root_security_;
  const WriterWait wait_;
  const Retention retention_;
  std::mutex past_mutex_;
  std::shared_ptr<Past> past_;  // guarded by past_mutex_; what was read last
};

Status LmdbStore::damaged(const LmdbAssertion& broken) const {
  return {PRTKV_STORAGE_FAILED, "the registry in '" + environment_.directory() + "' is damaged: " + broken.what()};
}

Status LmdbStore::read_for(ReadTransaction::Length length, FunctionRef<Status(View&)> function) {
  ReadTransaction transaction(environment_, length);
  if (Status status = transaction.begin(); !status.ok()) return status;
  LmdbView view(transaction, length);
  return function(view);
}

bool LmdbStore::copy_value(std::uint64_t state, NodeId id, const ValuePlace& place, std::span<std::byte> buffer,
                           std::int32_t* type, std::size_t* size) {
  if (!place.is_known() || is_large(place, buffer)) return false;
  return copy_record(id, place, buffer, type, size, [&](std::span<std::byte> record) {
    return record.empty() ? environment_.latest_state(nullptr) == state
                          : environment_.copy_from_latest(state, place.offset, record);
  });
}

bool LmdbStore::copy_unchanged_value(std::uint64_t* state, NodeId id, ValuePlace* place, std::span<std::byte> buffer,
                                     std::int32_t* type, std::size_t* size) {
  if (!place->is_known()) return false;
  if (is_large(*place, buffer)) {
    const std::uint64_t until = environment_.unchanged_until(*state, id, place);
    if (until != 0) *state = until;
    return false;
  }
  return copy_record(id, *place, buffer, type, size,
                     [&](std::span<std::byte> record) { return environment_.copy_unchanged(state, place, record); });
}

// The record is copied before it is verified: what is in the map may change until `copy_bytes` has returned true. It is
// given no bytes if only the size is asked for.
template <typename CopyBytes>
bool LmdbStore::copy_record(NodeId id, const ValuePlace& place, std::span<std::byte> buffer, std::int32_t* type,
                            std::size_t* size, CopyBytes&& copy_bytes) {
  std::array<std::byte, kLargestCopied> bytes;
  const bool fits = place.value_size <= buffer.size();
  const auto record = std::span(bytes).first(fits ? place.record_size : 0);
  Value value;
  bool done = copy_bytes(record);
  if (done && !record.empty()) {
    done = decode_value(id, record, &value).ok() && value.bytes.size() == place.value_size;
  }
  if (done) {
    if (fits) *type = value.type;
    *size = place.value_size;
    std::copy(value.bytes.begin(), value.bytes.end(), buffer.begin());
  }
  if (!record.empty()) ::explicit_bzero(record.data(), record.size());  // values may be secrets
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

// One attempt, up to the commit. `*outcome` receives the outcome of the LMDB call that failed, or code 0.
Status LmdbStore::update_once(LmdbUpdate& update, FunctionRef<Status(LmdbUpdate&)> function, LmdbOutcome* outcome) {
  Status status = update.begin();
  if (status.ok()) status = function(update);
  if (Status usable = environment_.check_usable(); !usable.ok()) return usable;  // the function may have forked
  if (status.ok() && update.broken_by().code == 0) status = update.finish();
  *outcome = update.broken_by();
  if (!status.ok()) return status;
  return environment_.failure(*outcome, "cannot write to the registry");
}

// The guests' results depend on the commit as the leader's does, those of failures included: they may be due to what
// others have changed before. If there is no room for all of them, there may be for each.
//
// A registry that cannot grow gives up history to make a change, or nothing could be deleted any more: the change being
// made is logged without its past, and the oldest ones are dropped.
Status LmdbStore::lead(Writer& writer, WriterDeadline* deadline, FunctionRef<Status(LmdbUpdate&)> function,
                       Revision* revision) {
  WriteTransaction transaction(environment_, deadline);
  Retention retention = retention_;
  for (bool alone = false;;) {
    if (Status status = transaction.begin(); !status.ok()) return status;
    LmdbOutcome outcome{0, 0};
    Status status;
    Revision made = 0;
    {
      LmdbUpdate update(environment_, transaction, retention);
      status = update_once(update, function, &outcome);
      made = update.last_revision();
    }
    const bool spoiled = status.ok() && !alone && !writer.let_others_join(transaction);
    if (status.ok() && !spoiled) status = transaction.commit(&outcome);
    transaction.abort();  // no effect after a commit
    if (status.ok() && !spoiled) *revision = made;
    if (spoiled || status.is(PRTKV_STORAGE_FULL)) {
      writer.tell_to_begin_again();
    } else {
      writer.tell_end(status);
    }
    alone = alone || spoiled;
    if (spoiled) continue;
    if (outcome.code == MDB_MAP_FULL) status = transaction.make_room();
    if (outcome.code == MDB_MAP_FULL && status.ok()) continue;
    const bool may_give_up = outcome.code != 0 && !retention.off && retention.bytes != 0;
    if (!status.is(PRTKV_STORAGE_FULL) || !may_give_up) return status;
    retention.bytes = 0;
  }
}

// Returns false if the function has to run again, for a leader.
bool LmdbStore::join(Writer& writer, FunctionRef<Status(LmdbUpdate&)> function, Revision* revision, Status* status) {
  Revision made = 0;
  {
    WriteTransaction transaction(writer.transaction());
    LmdbOutcome outcome{0, 0};
    try {
      if (!transaction.begin().ok()) return false;
      LmdbUpdate update(environment_, transaction, retention_);
      *status = update_once(update, function, &outcome);
      const bool has_seen_former_state = transaction.has_seen_former_state() || update.needs_outer();
      if (outcome.code != 0 || has_seen_former_state) return false;
      if (status->ok() && !transaction.commit(&outcome).ok()) return false;
      made = update.last_revision();
    } catch (const LmdbAssertion&) {
      writer.spoil();
      throw;
    }
  }
  Status committed;
  if (!writer.finish(&committed)) return false;
  if (!committed.ok()) *status = std::move(committed);
  if (status->ok()) *revision = made;
  return true;
}

Status LmdbStore::write_with(FunctionRef<Status(LmdbUpdate&)> function, Writer::Preference preference,
                             Revision* revision) try {
  if (Status status = may_write(); !status.ok()) return status;
  WriterDeadline deadline(wait_, environment_.directory());
  for (;; preference = Writer::Preference::kLead) {
    Writer writer(environment_.writers(), preference);
    Writer::Role role{};
    Status status;
    if (Status turn = writer.wait(&deadline, &role); !turn.ok()) return turn;
    if (role == Writer::Role::kLeader) return lead(writer, &deadline, function, revision);
    if (join(writer, function, revision, &status)) return status;
  }
} catch (const LmdbAssertion& broken) {
  return damaged(broken);
}

Status LmdbStore::write(FunctionRef<Status(Update&)> function, Revision* revision) {
  return write_with([&](LmdbUpdate& update) { return function(update); }, Writer::Preference::kNone, revision);
}

Status LmdbStore::purge(ChooseNodes choose, const ChangeDescription& description, std::uint64_t* removed) {
  Revision revision = 0;
  return write_with(
      [&](LmdbUpdate& update) -> Status {
        std::vector<NodeId> nodes;
        if (Status status = choose(update, &nodes); !status.ok()) return status;
        update.describe(description);
        return update.purge(nodes, removed);
      },
      Writer::Preference::kLead, &revision);
}

Status LmdbStore::check_retained(Revision revision, const Meta& meta) const {
  const std::string subject =
      "revision " + std::to_string(revision) + " of the registry in '" + environment_.directory() + "' ";
  if (revision > meta.revision) {
    return {PRTKV_INVALID_ARGUMENT, subject + "does not exist yet; the latest is " + std::to_string(meta.revision)};
  }
  if (revision >= meta.oldest_state) return {};
  return {PRTKV_INVALID_ARGUMENT,
          subject + "is not retained; the oldest that can be read is " + std::to_string(meta.oldest_state)};
}

// The past of a store that is read again and again grows with the log; it is made anew if others are reading it.
Status LmdbStore::past_since(Revision begin, const FileState& state, const Meta& meta,
                             std::shared_ptr<const Past>* past) {
  const std::lock_guard lock(past_mutex_);
  const bool serves = past_ != nullptr && past_->begin() <= begin && past_->end() >= meta.log_after;
  const bool may_grow = serves && (past_.use_count() == 1 || past_->end() >= meta.revision);
  if (!may_grow) past_ = std::make_shared<Past>(begin);
  Status status = past_->extend(state, meta);
  if (status.ok() && past_->is_outdated()) {
    past_ = std::make_shared<Past>(begin);
    status = past_->extend(state, meta);
  }
  if (status.ok()) *past = past_;
  if (!status.ok() || past_->bytes() > kMostKeptPast) past_.reset();
  return status;
}

Status LmdbStore::read_at(Revision revision, FunctionRef<Status(View&)> function) {
  ReadTransaction transaction(environment_, ReadTransaction::Length::kLong);
  Meta meta;
  std::shared_ptr<const Past> past;
  if (Status status = transaction.begin(); !status.ok()) return status;
  if (Status status = find_meta(transaction.state(), &meta); !status.ok()) return status;
  if (Status status = check_retained(revision, meta); !status.ok()) return status;
  if (Status status = past_since(revision, transaction.state(), meta, &past); !status.ok()) return status;
  LmdbView present(transaction, ReadTransaction::Length::kLong);
  PastView view(present, *past, revision);
  return function(view);
}

Status LmdbStore::changes(const LogRange& range, FunctionRef<Status(const ChangeRecord& record)> visit,
                          LogPosition* position) {
  ReadTransaction transaction(environment_, ReadTransaction::Length::kLong);
  Meta meta;
  if (Status status = transaction.begin(); !status.ok()) return status;
  if (Status status = find_meta(transaction.state(), &meta); !status.ok()) return status;
  const Revision first = std::max(range.after, meta.log_after) + 1;
  const Revision last = std::min(range.up_to, meta.revision);
  *position = {last, range.after >= meta.log_after};
  if (range.after > meta.revision) position->revision = meta.revision;
  if (range.only_complete && !position->complete) {
    position->revision = meta.revision;
    return {};
  }
  for (Revision done = 0; first + done <= last; ++done) {
    ChangeRecord record;
    const Revision revision = range.newest_first ? last - done : first + done;
    if (Status status = read_change(transaction.state(), meta, revision, &record); !status.ok()) return status;
    if (Status status = visit(record); !status.ok()) return status;
  }
  return {};
}

Status LmdbStore::meta(Meta* meta) {
  ReadTransaction transaction(environment_, ReadTransaction::Length::kShort);
  Status status = transaction.begin();
  return status.ok() ? find_meta(transaction.state(), meta) : status;
}

// The watch begins before the first look, so no change escapes it.
Status LmdbStore::wait(Revision after, std::chrono::milliseconds timeout, const std::stop_token& stop,
                       Revision* revision) {
  FileWatch watch(environment_.data_file(), stop);
  const auto deadline = FileWatch::deadline_after(timeout);
  for (;;) {
    Meta now;
    if (Status status = environment_.check_files(); !status.ok()) return status;
    if (Status status = meta(&now); !status.ok()) return status;
    *revision = now.revision;
    if (now.revision > after || !watch.wait(deadline)) return {};
  }
}

Status LmdbStore::check(const ChangeDescription* repair, FunctionRef<void(const Finding&)> report,
                        FunctionRef<void(const CheckProgress&)> progress, Totals* totals) {
  return repair != nullptr ? check_and_repair(*repair, report, progress, totals) : check_only(report, progress, totals);
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

// Nobody can tell the former rights. The root goes to the owner of the file alone, who created it, or to nobody but the
// superuser if somebody else repairs.
sec_attr LmdbStore::security_of_repaired_root() const {
  sec_attr security{};
  if (!is_own()) return security;
  security = root_security_;
  security.group_perm = security.other_perm = 0;
  return security;
}

Status LmdbStore::check_and_repair(const ChangeDescription& repair, FunctionRef<void(const Finding&)> report,
                                   FunctionRef<void(const CheckProgress&)> progress, Totals* totals) {
  // Only the attempt that is committed is reported.
  std::vector<Finding> findings;
  Revision revision = 0;
  Status status = write_with(
      [&](LmdbUpdate& update) -> Status {
        findings.clear();
        const auto collect = [&](const Finding& finding) { findings.push_back(finding); };
        RecordCheck check(collect);
        if (Status read = check.read(environment_.file(), update.former(), progress); !read.ok()) return read;
        TreeCheck::Removable removable;
        check.finish(totals, &removable);
        update.describe(repair);
        if (check.counter_is_unusable()) {
          Status restarted =
              update.restart_counter(check.largest_id(), check.largest_revision(), check.meta_is_damaged());
          if (!restarted.ok()) return restarted;
          if (Status removed = update.remove_from_log(check.lost_log()); !removed.ok()) return removed;
        }
        if (check.damaged_change() != 0) {
          if (Status log = update.forget_log(check.damaged_change()); !log.ok()) return log;
        }
        if (check.root_is_damaged()) {
          if (Status root = update.reset_root(security_of_repaired_root()); !root.ok()) return root;
        }
        return update.remove_all(removable);
      },
      Writer::Preference::kLead, &revision);
  for (const Finding& finding : findings) report(finding);
  return status;
}

Status LmdbStore::status(StoreStatus* status) {
  ReadTransaction transaction(environment_, ReadTransaction::Length::kShort);
  if (Status begun = transaction.begin(); !begun.ok()) return begun;
  Meta meta;
  if (Status found = environment_.status(transaction.state(), status); !found.ok()) return found;
  if (Status found = find_meta(transaction.state(), &meta); !found.ok()) return found;
  status->revision = meta.revision;
  status->oldest_state = meta.oldest_state;
  status->log_after = meta.log_after;
  status->history_bytes = meta.history_bytes;
  return {};
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
