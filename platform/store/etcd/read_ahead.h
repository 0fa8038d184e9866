// ReadAhead: predicts what a walk over one state of the tree will ask for, has many records fetched at a time, and
// holds them until they are asked for or passed.
//
// The walk reports each page of children that it was given, and each node whose value or children it asks for. It is
// assumed to go depth first, in the order of the pages: the node that it asks for is followed by what is below it, and
// then by the rest of the page. What it has passed is dropped. Any other order costs requests, but never gives a wrong
// answer.
//
// Nothing is fetched ahead until a walk has asked for a few records of the same kind (values or children), or once it
// leaves what was fetched unused. The more of it is used, the more is fetched.
//
// Bounds. One answer holds at most kMostNodesAhead lists of children, truncated where they are long, and
// kMostValuesAhead values, and no more of each than fit a message by the sizes seen so far. At most kMostHeld bytes are
// held, and the ids of at most kMostPlanned nodes to come.
//
// Sends no requests. Used by one thread.
#ifndef TKV_PLATFORM_STORE_ETCD_READ_AHEAD_H
#define TKV_PLATFORM_STORE_ETCD_READ_AHEAD_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/function_ref.h"
#include "store/etcd/keys.h"
#include "store/etcd/node_cache.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {

constexpr std::size_t kMostValuesAhead = 256;  // a value may be 1 MiB, and the server cannot be told a size to stop at
constexpr std::size_t kMostNodesAhead = 1024;
constexpr std::size_t kMostHeld = std::size_t{8} << 20;
constexpr std::size_t kMostPlanned = std::size_t{512} << 10;

// One child of a list; `seen` has a node, or says why the record cannot be trusted.
struct Child {
  std::string name;
  SeenNode seen;
};

// A node's children, from the first or from the end of the previous page. Not `complete` if there are more.
struct ChildPage {
  std::vector<Child> children;
  bool complete = true;
};

ChildPage listing_of(const RangeResponse& response, const Keys& keys);

enum class Sought { kValue, kChildren };

class ReadAhead {
 public:
  explicit ReadAhead(const Keys& keys) : keys_(keys) {}
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  // The walk asks for this now. True if it is not held and it pays to fetch more than this one.
  bool ask(NodeId id, Sought sought);

  // The walk was given a page of a node's children, the first or a later one.
  void listed(NodeId parent, const ChildPage& page, bool first);

  // Makes a transaction that reads, at this revision, what was asked for last and what comes after it. Nothing if that
  // is a single value.
  std::optional<TxnRequest> request(std::int64_t revision);

  // Takes in its answer. What was asked for may be missing if other records filled the answer.
  void keep(TxnResponse* answer);

  // Its answer was too large to be received: the next request asks for less.
  void ask_for_less();

  // The server does not answer such requests.
  void give_up() { given_up_ = true; }

  // Each returns false if it is not held. No record: the node has no value.
  bool take_value(NodeId id, std::optional<KeyValue>* record);
  bool take_children(NodeId id, ChildPage* listing);
  bool has_children(NodeId id, bool* answer);

  // A value was fetched alone.
  void note_value(std::size_t bytes) { value_size_.add(bytes, 1); }

  std::size_t held() const { return held_; }

 private:
  // Whether what is fetched of a kind gets used, and how much of it to fetch.
  class Habit {
   public:
    explicit Habit(std::size_t most) : most_(most) {}
    void used();
    void wasted();
    bool is_strong() const { return uses_ >= kFew; }
    std::size_t window() const { return window_; }
    void widen();
    void narrow() { window_ = window_ / 4 + 1; }

   private:
    static constexpr int kFew = 3;
    static constexpr int kSure = 12;
    static constexpr std::size_t kFirstWindow = 8;
    std::size_t most_;
    std::size_t window_ = kFirstWindow;
    int uses_ = 0;
  };

  // The size to expect of a record. Follows the latest ones, and grows faster than it shrinks.
  class Size {
   public:
    explicit Size(std::size_t bytes) : bytes_(bytes) {}
    void add(std::size_t total, std::size_t count);
    void enlarge() { bytes_ *= 2; }
    std::size_t in(std::size_t room) const { return room / bytes_; }

   private:
    std::size_t bytes_;
  };

  // The children of one node that are still to come. The runs form a stack, as the nodes do in the walk.
  struct Run {
    NodeId parent = kNoNode;
    std::vector<NodeId> ids;
    std::size_t next = 0;  // the one that the walk is at when it has `begun`, else the one it comes to
    bool begun = false;
  };

  struct HeldPage {
    ChildPage listing;
    std::size_t bytes = 0;
    bool used = false;
  };

  // One operation of the request: consecutive ids.
  struct Operation {
    Sought sought;
    NodeId first;
    NodeId last;
  };

  // Ids to fetch, in the order of the walk.
  struct Wanted {
    std::vector<NodeId> values;
    std::vector<NodeId> lists;
  };

  Habit& habit(Sought sought) { return sought == Sought::kValue ? values_habit_ : lists_habit_; }
  bool holds(NodeId id, Sought sought) const;
  bool advance(NodeId id);
  void drop_runs(std::size_t from);
  void drop(NodeId id);
  std::size_t planned() const;
  void make_room();
  Wanted want(std::size_t most_values, std::size_t most_lists) const;
  bool visit_below(NodeId id, int depth, FunctionRef<bool(NodeId)> visit) const;
  void visit_coming(FunctionRef<bool(NodeId)> visit) const;
  void choose(std::size_t room);
  bool is_for_keeping(NodeId id, Sought sought) const;
  void keep_values(const Operation& operation, RangeResponse* answer);
  void keep_lists(const Operation& operation, const RangeResponse& answer);
  void hold_value(NodeId id, std::optional<KeyValue> record);
  void hold_list(NodeId id, ChildPage listing);

  const Keys& keys_;
  std::vector<Run> runs_;
  std::unordered_map<NodeId, std::optional<KeyValue>> values_;
  std::unordered_map<NodeId, HeldPage> lists_;
  std::size_t held_ = 0;
  Habit values_habit_{kMostValuesAhead};
  Habit lists_habit_{kMostNodesAhead};
  Size value_size_{256};
  Size node_size_{256};
  NodeId asked_ = kNoNode;
  Sought sought_ = Sought::kValue;
  NodeId asked_value_ = kNoNode;  // the last whose value was asked for
  std::vector<Operation> operations_;
  bool given_up_ = false;
};

}  // namespace tkv::store::etcd

#endif
