// A store keeps the registry's entries: a tree of nodes, each found by its parent's id and its own level name, each
// with a security record and at most one value.
//
// The store knows nothing of users, rights, handles or full names; the registry client does. It gives transactions:
// a function reads, or reads and writes, and sees one state of the whole tree while it runs.
//
// Identity. A node has an id of its own, never 0 and never used again after the node is gone. A move rewrites one
// entry; the subtree below keeps hanging on the id.
//
// Failures. Codes of the registry's table: 4 no such node, 7 damaged or failing storage, 11 full, 12 out of memory,
// 15 unreachable. A damaged record is 7 with a text, never a wrong answer. Not found carries no text.
//
// What cannot be is refused: 5 a level name that is empty or longer than 264 bytes, 8 a node without an id and whatever
// would move or remove the root, 10 a value over 1 MiB (store_limits.h). An exception of a function that a store runs
// passes through; nothing is changed then.
//
// Threads. A Store may be used by many threads at once; a View or Update by the function that it was given to, only.
#ifndef TKV_PLATFORM_STORE_STORE_H
#define TKV_PLATFORM_STORE_STORE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "base/function_ref.h"
#include "base/status.h"
#include "sec_attr.h"

namespace tkv::store {

using NodeId = std::uint64_t;

constexpr NodeId kNoNode = 0;  // the parent of the root
constexpr NodeId kRootNode = 1;

struct Node {
  NodeId id = kNoNode;
  sec_attr security{};
};

// Type 0 without bytes: no value was ever written.
struct Value {
  std::int32_t type = 0;
  std::span<const std::byte> bytes;  // valid until the transaction's next call of value() or of what changes something
};

// One state of the tree, for reading.
class View {
 public:
  // Finds a child. The root is the child "" of kNoNode. 4 when there is none.
  virtual Status find(NodeId parent, std::string_view name, Node* node) = 0;

  virtual Status value(NodeId id, Value* value) = 0;

  // Calls `visit` for each child in byte order of the names, until it returns a failure, which is passed on. In an
  // Update the visit may change the tree, the visited child included. The name is valid during the visit.
  virtual Status children(NodeId parent, FunctionRef<Status(std::string_view name, const Node& node)> visit) = 0;

  virtual Status has_children(NodeId parent, bool* answer) = 0;

  // A number that has changed whenever a node was removed or hung elsewhere since; what was found under the same
  // number stands. 0 when the store cannot tell without asking.
  virtual std::uint64_t structure() = 0;

 protected:
  View() = default;
  View(const View&) = default;
  View& operator=(const View&) = default;
  ~View() = default;
};

// One state of the tree, to be replaced by the next. Reads see what this update has written so far.
class Update : public View {
 public:
  virtual Status new_id(NodeId* id) = 0;

  // Hangs a node under a parent; 55 when the name is taken. A node made with new_id and its descendants become
  // visible when the topmost of them is hung under a visible parent, so a subtree can be built bottom side first: a
  // distributed store sends such nodes ahead, and only the last link decides.
  virtual Status insert(NodeId parent, std::string_view name, const Node& node) = 0;

  // Rewrites the security record of a node where it hangs; 4 when there is none.
  virtual Status set_security(NodeId parent, std::string_view name, const sec_attr& security) = 0;

  // Takes a node off its parent, with all that hangs below it. To be inserted elsewhere, or discarded.
  virtual Status unlink(NodeId parent, std::string_view name) = 0;

  // Gives up an unlinked node with everything below it.
  virtual Status discard(NodeId id) = 0;

  // Type 0 without bytes takes the value away.
  virtual Status set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) = 0;

  // The tree as it was when the update began, without what the update has written since. What is read here is read by
  // the update: the update is committed only if it still holds.
  virtual View& before() = 0;

 protected:
  ~Update() = default;
};

// What a check of the whole store found.
struct Finding {
  enum class Kind {
    kDamagedNode,  // the record cannot be trusted: checksum, format, length
    kDamagedValue,
    kOrphan,       // hangs under an id that no node has, or on a loop that the root does not reach
    kOrphanValue,  // a value that belongs to no node
    kDuplicateId   // two nodes with one id
  };
  Kind kind;
  NodeId parent = kNoNode;  // where the record hangs, for nodes
  NodeId id = kNoNode;      // the node's or the value's id, kNoNode when it cannot be read
  std::string name;         // the node's level name
  std::string detail;       // what is wrong, for people
};

struct Totals {
  std::uint64_t nodes = 0;   // reachable from the root, the root included
  std::uint64_t values = 0;  // of those, with a value
  std::uint64_t value_bytes = 0;
};

// How far a check is, for people who wait. A check may pass over the store in several ways, one after the other, and
// begin again when the store changes under it.
struct CheckProgress {
  const char* reading;  // "pages", "records", ...
  std::uint64_t done;
  std::uint64_t total;  // about
};

// What a store can tell about itself without reading the records. 0: not known or, for limits, none.
struct StoreStatus {
  std::uint64_t bytes = 0;      // that the store takes on disk
  std::uint64_t max_bytes = 0;  // that it may take
  std::uint32_t readers = 0;    // sessions that are open for reading, of all processes
  std::uint32_t max_readers = 0;
};

class Store {
 public:
  virtual ~Store() = default;
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Runs `function` on one state of the tree and gives back what it returned. It may run more than once: it must set
  // its results anew each time.
  virtual Status read(FunctionRef<Status(View&)> function) = 0;

  // As read, for functions that visit many nodes. They run once, on one state, however long they take.
  virtual Status read_all(FunctionRef<Status(View&)> function) = 0;

  // Runs `function` and, when it returns success, makes what it wrote durable, all or nothing. It may run more than
  // once. A failure that it returns is given back and nothing is changed.
  virtual Status write(FunctionRef<Status(Update&)> function) = 0;

  // How many changes of visible nodes, entries inserted, rewritten or unlinked and values set, a program that has many
  // to make should put into one write. More can be made, at the cost of being prepared first.
  virtual std::size_t preferred_batch_size() const = 0;

  // Reads every record and reports each that is damaged or out of place; counts the sound ones. With `repair`, what
  // can be put right without guessing is: values of no node and subtrees that hang on nothing are removed. `progress`
  // is called often.
  virtual Status check(bool repair, FunctionRef<void(const Finding&)> report,
                       FunctionRef<void(const CheckProgress&)> progress, Totals* totals) = 0;
  Status check(bool repair, FunctionRef<void(const Finding&)> report, Totals* totals) {
    return check(
        repair, report, [](const CheckProgress&) {}, totals);
  }

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
