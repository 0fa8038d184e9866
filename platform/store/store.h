// A store keeps the registry's entries: a tree of nodes, each identified by its parent's id and its own level name,
// each with a security record and at most one value.
//
// A store knows nothing of users, rights, handles or full names; the registry client does. It provides transactions: a
// function reads, or reads and writes, and sees one state of the whole tree while it runs.
//
// Identity. A node has an id of its own, which is never 0 and never reused. A move rewrites one entry; the subtree
// below still refers to the id.
//
// Failures. PRTKV_NO_SUCH_KEY without a message: no such node. PRTKV_STORAGE_FAILED: damage or a failing disk; a
// damaged record is never returned as data. PRTKV_STORAGE_FULL, PRTKV_OUT_OF_MEMORY, PRTKV_UNREACHABLE, PRTKV_UNUSABLE,
// PRTKV_BUSY and PRTKV_UNDECIDED as in prtkv_results.h.
//
// Refusals. PRTKV_INVALID_NAME: an empty level name or one beyond kMaxLevelSize. PRTKV_INVALID_ARGUMENT: a node without
// an id, and anything that would move or remove the root. PRTKV_VALUE_TOO_LARGE: a value beyond kMaxValueSize.
//
// History. Each write that changes something has a revision, and adds a record of itself to the log in the same
// transaction (see base/change.h). As long as the log reaches back to it, any state can be read again. How much is
// retained is configured (see Retention); each write drops a bounded part of what exceeds it. A revision that is not
// retained, or that does not exist yet, yields PRTKV_INVALID_ARGUMENT with a message that says which can be read.
//
// Exceptions of a function that a store runs pass through; nothing is changed then.
//
// Threads. Many threads may use a Store at once. Only the function that received a View or Update may use it.
#ifndef TKV_PLATFORM_STORE_STORE_H
#define TKV_PLATFORM_STORE_STORE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "base/change.h"
#include "base/function_ref.h"
#include "base/state_memory.h"
#include "base/status.h"
#include "base/store_status.h"
#include "sec_attr.h"

namespace tkv::store {

using NodeId = std::uint64_t;

constexpr NodeId kNoNode = 0;  // the parent of the root
constexpr NodeId kRootNode = 1;

// The store sets the revision; that of a node which is to be written is ignored. What an update itself has written has
// none before the commit.
struct Node {
  NodeId id = kNoNode;
  sec_attr security{};
  Revision revision = 0;  // in which the node was last created, moved or given a security record

  std::uint16_t moves = 0;  // how often it was moved, modulo 65,536, as counted by whoever moves it
  std::uint32_t page = 0;   // that a view found it on, for ValuePlace; ignored otherwise
};

// Type 0 without bytes: there is no value.
struct Value {
  std::int32_t type = 0;
  std::span<const std::byte> bytes;  // valid until the transaction's next value() or change
  Revision revision = 0;  // in which it was last written or removed, or zero if never, or before there were revisions
};

// Where a view found a value, for Store::copy_value and Store::unchanged_until. Means something only to the store that
// filled it in.
struct ValuePlace {
  std::uint64_t offset = 0;       // 0: not known
  std::uint32_t record_size = 0;  // 0: no value was ever written
  std::uint32_t value_size = 0;
  std::uint32_t value_page = 0;   // that the value, or its absence, was found on; 0: not known
  std::uint32_t node_page = 0;    // that its node was found on
  std::uint64_t fingerprint = 0;  // of these two pages; 0: not known

  bool is_known() const { return offset != 0; }
};
constexpr ValuePlace kNoValue{1, 0, 0, 0, 0, 0};  // the place of a value that was never written

// One state of the tree, for reading.
class View {
 public:
  // The number of this state: a later state has a larger one. A store that numbers its states runs a function given to
  // read() once; all states of another store have the number zero.
  virtual std::uint64_t state() { return 0; }

  // Looks up a child by name. The root is the child "" of kNoNode. Returns PRTKV_NO_SUCH_KEY if there is none.
  virtual Status find(NodeId parent, std::string_view name, Node* node) = 0;

  virtual Status value(NodeId id, Value* value) = 0;

  // As value(), but leaves a value of more than `capacity` bytes unread: its checksum is not verified, and `*value` has
  // no bytes. `*size` receives the size in either case, and `*place` where the value is, if the store numbers its
  // states.
  virtual Status value_up_to(NodeId id, std::size_t capacity, Value* value, std::size_t* size, ValuePlace* place) {
    Status status = this->value(id, value);
    if (!status.ok()) return status;
    *size = value->bytes.size();
    *place = {};
    if (*size > capacity) value->bytes = {};
    return status;
  }

  // Where a value is. Not known if there is none, if finding it fails, or if the store does not number its states.
  virtual ValuePlace place_of_value(NodeId /*id*/) { return {}; }

  // Adds to a place that this view found, with both of its pages, what helps to recognize it in later states, if
  // changes are to be expected. For the first place on a page, this takes about as long as finding it. Pays only for
  // places that are used again.
  virtual void prepare_for_changes(ValuePlace* /*place*/) {}

  // Calls `visit` for each child in byte order of the names, until it returns a failure, which is returned. In an
  // Update the visit may change the tree, including the visited child. The name is valid during the visit.
  virtual Status children(NodeId parent, FunctionRef<Status(std::string_view name, const Node& node)> visit) = 0;

  // As children, but does not end at a child whose record is damaged: `damaged` is called with its name and the failure
  // instead, and the walk goes on unless it returns a failure.
  virtual Status children_with_damage(NodeId parent, FunctionRef<Status(std::string_view name, const Node& node)> visit,
                                      FunctionRef<Status(std::string_view name, const Status& damage)> damaged) = 0;

  virtual Status has_children(NodeId parent, bool* answer) = 0;

  // A number that changes whenever a node is removed or moved: ids found under the same number are still valid. 0 if
  // the store cannot tell without a request.
  virtual std::uint64_t structure() = 0;

  // The revision of this state: that of the last change in it. In an Update: of the state that it began with.
  virtual Status revision(Revision* revision) = 0;

  // Reads the record of a change. Returns PRTKV_NO_SUCH_KEY if it is not retained.
  virtual Status change(Revision revision, ChangeRecord* record) = 0;

 protected:
  View() = default;
  View(const View&) = default;
  View& operator=(const View&) = default;
  ~View() = default;
};

// A write transaction. Reads see what this update has written so far.
class Update : public View {
 public:
  virtual Status new_id(NodeId* id) = 0;

  // Inserts a node below a parent. Returns PRTKV_KEY_EXISTS if the name is taken. A node with a new id and its
  // descendants become visible when the topmost of them is inserted below a visible parent, so a subtree can be built
  // bottom-up: a distributed store stages such nodes ahead, and only the last link takes effect.
  virtual Status insert(NodeId parent, std::string_view name, const Node& node) = 0;

  // Replaces the security record of a node. Returns PRTKV_NO_SUCH_KEY if there is none.
  virtual Status set_security(NodeId parent, std::string_view name, const sec_attr& security) = 0;

  // Detaches a node from its parent, with everything below it. It has to be inserted elsewhere or discarded.
  virtual Status unlink(NodeId parent, std::string_view name) = 0;

  // Deletes an unlinked node with everything below it. Of damaged nodes below it, the records are removed, but not what
  // is below them: nobody can tell their ids.
  virtual Status discard(NodeId id) = 0;

  // Removes a node whose record is damaged, which frees its place. What is below it stays, and hangs on nothing.
  // Returns PRTKV_KEY_EXISTS if the record is sound, PRTKV_NO_SUCH_KEY if there is none.
  virtual Status remove_damaged(NodeId parent, std::string_view name) = 0;

  // Type 0 without bytes removes the value.
  virtual Status set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) = 0;

  // The tree as it was when the update began, without what the update has written since. What is read here is read by
  // the update: the update is committed only if it still holds.
  virtual View& before() = 0;

  // Says what the log is to tell of this update: names are known to the caller alone. Without it, the record has no
  // author and lists no changes. The last call counts.
  virtual void describe(ChangeDescription description) = 0;

 protected:
  ~Update() = default;
};

// What a check of the whole store found.
struct Finding {
  enum class Kind {
    kDamagedNode,  // the record cannot be trusted: checksum, format, length
    kDamagedValue,
    kOrphan,         // its parent does not exist, or it is on a loop that the root does not reach
    kOrphanValue,    // a value that belongs to no node
    kDuplicateId,    // two nodes with one id
    kDamagedChange,  // a record of the log; `id` is its revision
    // A change that is carried out in several steps, of which a part is damaged; `id` is the top of the subtree that it
    // is about. A repair reports it if the part is lost, so that the change was made in part.
    kUnfinishedChange
  };
  Kind kind;
  NodeId parent = kNoNode;  // of a node
  NodeId id = kNoNode;      // of the node or of the value's node, kNoNode if it cannot be read
  std::string name;         // the node's level name
  std::string detail;       // what is wrong, for people
};

struct Totals {
  std::uint64_t nodes = 0;   // reachable from the root, the root included
  std::uint64_t values = 0;  // of those, with a value
  std::uint64_t value_bytes = 0;
};

// How far a check has come. It may make several passes over the store and begin again if the store changes meanwhile.
struct CheckProgress {
  const char* reading;  // "pages", "records", ...
  std::uint64_t done;
  std::uint64_t total;  // approximate
};

// How much of the past a store keeps. A change is dropped, oldest first, once one of the limits is exceeded.
struct Retention {
  bool off = false;                               // keep nothing; revisions are counted all the same
  std::uint64_t changes = 10'000;                 // in the log
  std::uint64_t bytes = std::uint64_t{64} << 20;  // a change that exceeds this by itself is logged without its past
  std::chrono::seconds age = std::chrono::hours(24 * 90);
};

class Store {
 public:
  virtual ~Store() = default;
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Runs `function` on one state of the tree and returns its result. It may run more than once, so it must set its
  // results anew each time. It may read the store itself: such a read sees the same state or a later one.
  virtual Status read(FunctionRef<Status(View&)> function) = 0;

  // As read, for functions that visit many nodes. They run once, on one state, however long they take.
  virtual Status read_all(FunctionRef<Status(View&)> function) = 0;

  // The number of the latest committed state, without a request, or zero if that is not known. Every write that has
  // been acknowledged, to whichever process, is part of the state of this number or of one before it. While a commit is
  // being made durable, the number may already be that of the new state, which no view shows yet: what was read from a
  // view is therefore labelled with the view's number. As long as the label equals the latest number, what was read is
  // up to date.
  //
  // If `copied_next` is given, the record at that place may meanwhile be fetched into the processor's caches, for a
  // copy that follows soon. The place may be out of date.
  virtual std::uint64_t latest_state(const ValuePlace* /*copied_next*/) { return 0; }
  std::uint64_t latest_state() { return latest_state(nullptr); }

  // The same number as memory, or null if the store has none. What is read from it may be later than what
  // latest_state() has returned, never earlier; it is zero instead of being wrong.
  virtual std::shared_ptr<const StateMemory> state_memory() { return nullptr; }

  // Copies the bytes of a value that a view of `state` found at `place`, if that state is the latest one and remains so
  // meanwhile. A value that does not fit into `buffer` is not copied. Returns true if `*type` (unless it does not fit)
  // and `*size` are set. Otherwise the buffer is unchanged, and the value has to be read through a view, which also
  // tells what is wrong with a damaged one.
  virtual bool copy_value(std::uint64_t /*state*/, NodeId /*id*/, const ValuePlace& /*place*/,
                          std::span<std::byte> /*buffer*/, std::int32_t* /*type*/, std::size_t* /*size*/) {
    return false;
  }

  // As copy_value, if the node and the place of its value are known to be the same in the latest state, which `*state`
  // then receives. May add to `*place` what tells more of later states. If it returns false, both may have been
  // changed, to what is also true.
  virtual bool copy_unchanged_value(std::uint64_t* /*state*/, NodeId /*id*/, ValuePlace* /*place*/,
                                    std::span<std::byte> /*buffer*/, std::int32_t* /*type*/, std::size_t* /*size*/) {
    return false;
  }

  // For the node `id`, which a view of `state` found, with the place of its value: returns the number of a state that a
  // view may show which begins now, if it is known that the node has the same name and the same security record in that
  // state. Nor has any of the nodes above it been moved. `*place` then is the place of its value in that state, if that
  // is known, and tells as much of later ones as before, unless the value has moved. Returns zero if that is not known,
  // or not the case.
  virtual std::uint64_t unchanged_until(std::uint64_t /*state*/, NodeId /*id*/, ValuePlace* /*place*/) { return 0; }

  // Runs `function` and, if it succeeds, makes what it wrote durable, all or nothing. It may run more than once. A
  // failure that it returns is returned, and nothing is changed.
  //
  // `*revision` then is that of the change or, if nothing was changed, of the state that the function saw.
  virtual Status write(FunctionRef<Status(Update&)> function, Revision* revision) = 0;
  Status write(FunctionRef<Status(Update&)> function) {
    Revision revision = 0;
    return write(function, &revision);
  }

  // As read_all, on the state right after the change `revision`.
  virtual Status read_at(Revision revision, FunctionRef<Status(View&)> function) = 0;

  // Visits the changes of a range, in the order of their revisions or in the opposite one, until `visit` returns a
  // failure, which is returned. The record is valid during the visit. `*position` is filled in before the first visit.
  // Unless `newest_first` is set, one call with the former call's `position->revision` as `after` continues where that
  // one ended: no change is visited twice, and none is passed over unless `position->complete` is false.
  virtual Status changes(const LogRange& range, FunctionRef<Status(const ChangeRecord& record)> visit,
                         LogPosition* position) = 0;

  // Waits until there is a change after `after`, until `timeout` has passed, or until `stop` is requested, whichever
  // comes first. `*revision` is that of the latest state: greater than `after` only if there is such a change. Holds
  // no lock and no transaction while it waits. A store that cannot be asked for a while yields PRTKV_UNREACHABLE.
  virtual Status wait(Revision after, std::chrono::milliseconds timeout, const std::stop_token& stop,
                      Revision* revision) = 0;

  // Removes what the history holds of the former values of the nodes that `choose` sets, in one transaction with the
  // state that it sees: in every earlier state that is retained, they have no value where they had another than now.
  // The present, and the log, stay. Is itself a change, whose description must list a Change::Kind::kPurged. `*removed`
  // is the number of values. `choose` may run more than once, and may read former states and the log. If can_purge()
  // fails, its failure is returned and `choose` does not run.
  using ChooseNodes = FunctionRef<Status(View& view, std::vector<NodeId>* nodes)>;
  virtual Status purge(ChooseNodes choose, const ChangeDescription& description, std::uint64_t* removed) = 0;

  // Returns PRTKV_INVALID_ARGUMENT if this kind of store cannot remove single values from its history. The message says
  // what can be done instead.
  virtual Status can_purge() { return {}; }

  // Reads every record, reports those that are damaged or out of place, and counts the sound ones. With `repair`,
  // removes what can be removed without guessing: values of no node, and subtrees without a parent. A damaged root is
  // replaced by one with all rights for the owner of the storage, if that is who repairs, and without any for others.
  // A repair is a change: `repair` is what the log is to tell of it. Null: nothing is repaired. `progress` is called
  // often.
  virtual Status check(const ChangeDescription* repair, FunctionRef<void(const Finding&)> report,
                       FunctionRef<void(const CheckProgress&)> progress, Totals* totals) = 0;
  Status check(bool repair, FunctionRef<void(const Finding&)> report, Totals* totals) {
    const ChangeDescription description{.note = "repair"};
    return check(
        repair ? &description : nullptr, report, [](const CheckProgress&) {}, totals);
  }

  // Tells whether the storage belongs to the process's effective user, whom the rights in it do not bind.
  virtual bool is_own() const { return false; }

  // "lmdb" or "etcd".
  virtual const char* kind() const = 0;

  // Fills in what the store can tell; the rest of `*status` keeps its defaults.
  virtual Status status(StoreStatus* status) {
    *status = {};
    return {};
  }

 protected:
  Store() = default;
};

}  // namespace tkv::store

#endif
