// FaultyStore: passes every call on to another store and fails those that a test names, so that every error branch
// above a store can be reached.
//
//   FaultyStore store(std::make_shared<MemoryStore>());
//   store.fail(Call::kSetValue, 1, PRTKV_STORAGE_FULL);   // the next set_value fails, once
//   store.fail_any(n, PRTKV_STORAGE_FAILED);              // the n-th call from now, whichever it is
//   store.before(Call::kWrite, [&] { wait(); });          // every write waits before it begins
//
// A failing kCommit lets the function run to its end and changes nothing; a failing kRead, kReadAll, kWrite or kCheck
// does not run it. Calls are counted from the last reset(). A failure may be set for longer than one call with `times`.
// Thread-safe.
#ifndef TKV_TESTS_PLATFORM_FAULTY_STORE_H
#define TKV_TESTS_PLATFORM_FAULTY_STORE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "store/store.h"

namespace tkv::store {

enum class Call {
  kRead,
  kReadAll,
  kWrite,
  kCommit,
  kCheck,
  kFind,
  kValue,
  kChildren,
  kHasChildren,
  kNewId,
  kInsert,
  kSetSecurity,
  kUnlink,
  kDiscard,
  kSetValue,
  kRevision,
  kChange,
  kReadAt,
  kChanges,
  kWait,
  kPurge
};

class FaultyStore final : public Store {
 public:
  static constexpr std::size_t kAlways = std::numeric_limits<std::size_t>::max();

  explicit FaultyStore(std::shared_ptr<Store> target) : target_(std::move(target)) {}

  // Fails the `nth` call (1: the next) of this kind from now, and the `times` - 1 after it.
  void fail(Call call, std::size_t nth, Status status, std::size_t times = 1) {
    const std::lock_guard lock(mutex_);
    faults_.push_back({call, nth, times, std::move(status)});
  }

  // Fails the `nth` call from now, of whatever kind, and the `times` - 1 after it.
  void fail_any(std::size_t nth, Status status, std::size_t times = 1) {
    const std::lock_guard lock(mutex_);
    faults_.push_back({std::nullopt, nth, times, std::move(status)});
  }

  // From now on calls `action` before each call of this kind, on the thread that makes it.
  void before(Call call, std::function<void()> action) {
    const std::lock_guard lock(mutex_);
    actions_[call] = std::move(action);
  }

  // From now on each function given to read or write runs twice, the first time in vain: a store may do that, and the
  // function must set its results anew.
  void run_functions_twice() { twice_ = true; }

  // Forgets the failures and actions set and the calls counted.
  void reset() {
    const std::lock_guard lock(mutex_);
    faults_.clear();
    actions_.clear();
    calls_ = 0;
    twice_ = false;
  }

  std::size_t calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
  }

  Status read(FunctionRef<Status(View&)> function) override { return read_with(Call::kRead, &Store::read, function); }

  Status read_all(FunctionRef<Status(View&)> function) override {
    return read_with(Call::kReadAll, &Store::read_all, function);
  }

  using Store::write;
  Status write(FunctionRef<Status(Update&)> function, Revision* revision) override {
    if (Status status = next(Call::kWrite); !status.ok()) return status;
    if (twice_) {
      (void)target_->write([&](Update& update) -> Status {
        FaultyUpdate faulty(*this, update);
        (void)function(faulty);
        return PRTKV_UNKNOWN;  // nothing of the first run stays
      });
    }
    return target_->write(
        [&](Update& update) -> Status {
          FaultyUpdate faulty(*this, update);
          if (Status status = function(faulty); !status.ok()) return status;
          return next(Call::kCommit);
        },
        revision);
  }

  Status read_at(Revision revision, FunctionRef<Status(View&)> function) override {
    if (Status status = next(Call::kReadAt); !status.ok()) return status;
    return target_->read_at(revision, [&](View& view) {
      FaultyView faulty(*this, view);
      return function(faulty);
    });
  }

  Status changes(const LogRange& range, FunctionRef<Status(const ChangeRecord& record)> visit,
                 LogPosition* position) override {
    if (Status status = next(Call::kChanges); !status.ok()) return status;
    return target_->changes(range, visit, position);
  }

  Status wait(Revision after, std::chrono::milliseconds timeout, const std::stop_token& stop,
              Revision* revision) override {
    if (Status status = next(Call::kWait); !status.ok()) return status;
    return target_->wait(after, timeout, stop, revision);
  }

  Status can_purge() override { return target_->can_purge(); }
  Status purge(ChooseNodes choose, const ChangeDescription& description, std::uint64_t* removed) override {
    if (Status status = next(Call::kPurge); !status.ok()) return status;
    return target_->purge(choose, description, removed);
  }

  Status check(const ChangeDescription* repair, FunctionRef<void(const Finding&)> report,
               FunctionRef<void(const CheckProgress&)> progress, Totals* totals) override {
    if (Status status = next(Call::kCheck); !status.ok()) return status;
    return target_->check(repair, report, progress, totals);
  }

  const char* kind() const override { return target_->kind(); }

 private:
  struct Fault {
    std::optional<Call> call;  // none: any
    std::size_t wait;          // calls until it fails, itself counted
    std::size_t times;
    Status status;
  };

  template <typename Interface>
  class Reading : public Interface {
   public:
    Reading(FaultyStore& store, Interface& target) : store_(store), target_(target) {}

    Status find(NodeId parent, std::string_view name, Node* node) override {
      Status status = store_.next(Call::kFind);
      return status.ok() ? target_.find(parent, name, node) : status;
    }
    Status value(NodeId id, Value* value) override {
      Status status = store_.next(Call::kValue);
      return status.ok() ? target_.value(id, value) : status;
    }
    Status children(NodeId parent, FunctionRef<Status(std::string_view, const Node&)> visit) override {
      Status status = store_.next(Call::kChildren);
      return status.ok() ? target_.children(parent, visit) : status;
    }
    Status children_with_damage(NodeId parent, FunctionRef<Status(std::string_view, const Node&)> visit,
                                FunctionRef<Status(std::string_view, const Status&)> damaged) override {
      Status status = store_.next(Call::kChildren);
      return status.ok() ? target_.children_with_damage(parent, visit, damaged) : status;
    }
    Status has_children(NodeId parent, bool* answer) override {
      Status status = store_.next(Call::kHasChildren);
      return status.ok() ? target_.has_children(parent, answer) : status;
    }
    std::uint64_t structure() override { return target_.structure(); }
    Status revision(Revision* revision) override {
      Status status = store_.next(Call::kRevision);
      return status.ok() ? target_.revision(revision) : status;
    }
    Status change(Revision revision, ChangeRecord* record) override {
      Status status = store_.next(Call::kChange);
      return status.ok() ? target_.change(revision, record) : status;
    }

   protected:
    ~Reading() = default;
    FaultyStore& store_;
    Interface& target_;
  };

  class FaultyView final : public Reading<View> {
   public:
    using Reading::Reading;
  };

  class FaultyUpdate final : public Reading<Update> {
   public:
    using Reading::Reading;

    Status new_id(NodeId* id) override {
      Status status = store_.next(Call::kNewId);
      return status.ok() ? target_.new_id(id) : status;
    }
    Status insert(NodeId parent, std::string_view name, const Node& node) override {
      Status status = store_.next(Call::kInsert);
      return status.ok() ? target_.insert(parent, name, node) : status;
    }
    Status set_security(NodeId parent, std::string_view name, const sec_attr& security) override {
      Status status = store_.next(Call::kSetSecurity);
      return status.ok() ? target_.set_security(parent, name, security) : status;
    }
    Status unlink(NodeId parent, std::string_view name) override {
      Status status = store_.next(Call::kUnlink);
      return status.ok() ? target_.unlink(parent, name) : status;
    }
    Status discard(NodeId id) override {
      Status status = store_.next(Call::kDiscard);
      return status.ok() ? target_.discard(id) : status;
    }
    Status remove_damaged(NodeId parent, std::string_view name) override {
      Status status = store_.next(Call::kUnlink);
      return status.ok() ? target_.remove_damaged(parent, name) : status;
    }
    Status set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) override {
      Status status = store_.next(Call::kSetValue);
      return status.ok() ? target_.set_value(id, type, bytes) : status;
    }
    void describe(ChangeDescription description) override { target_.describe(std::move(description)); }
    View& before() override {
      if (!before_) before_.emplace(store_, target_.before());
      return *before_;
    }

   private:
    std::optional<FaultyView> before_;
  };

  Status read_with(Call call, Status (Store::*method)(FunctionRef<Status(View&)>),
                   FunctionRef<Status(View&)> function) {
    if (Status status = next(call); !status.ok()) return status;
    return (target_.get()->*method)([&](View& view) -> Status {
      FaultyView faulty(*this, view);
      if (twice_ && call == Call::kRead) (void)function(faulty);
      return function(faulty);
    });
  }

  Status next(Call call) {
    std::function<void()> action;
    Status outcome = count(call, &action);
    if (action) action();
    return outcome;
  }

  Status count(Call call, std::function<void()>* action) {
    const std::lock_guard lock(mutex_);
    ++calls_;
    Status outcome;
    if (const auto found = actions_.find(call); found != actions_.end()) *action = found->second;
    for (Fault& fault : faults_) {
      if (fault.times == 0 || (fault.call && *fault.call != call)) continue;
      if (fault.wait > 1) {
        --fault.wait;
        continue;
      }
      if (fault.times != kAlways) --fault.times;
      if (outcome.ok()) outcome = fault.status;
    }
    return outcome;
  }

  const std::shared_ptr<Store> target_;
  mutable std::mutex mutex_;
  std::vector<Fault> faults_;
  std::map<Call, std::function<void()>> actions_;
  std::size_t calls_ = 0;
  bool twice_ = false;
};

}  // namespace tkv::store

#endif
