// MemoryStore: a store in memory, for tests of the code above a store. It fulfils the contract of store.h, except that
// nothing outlasts the process. A write copies the state, so it is for small trees.
#ifndef TKV_TESTS_PLATFORM_MEMORY_STORE_H
#define TKV_TESTS_PLATFORM_MEMORY_STORE_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/function_ref.h"
#include "store/store.h"
#include "store/store_limits.h"
#include "store/tree_check.h"

namespace tkv::store {

class MemoryStore final : public Store {
 public:
  explicit MemoryStore(const sec_attr& root_security = {}) {
    auto fresh = std::make_shared<State>();
    fresh->nodes[{kNoNode, ""}] = Node{kRootNode, root_security};
    current_ = std::move(fresh);
  }

  Status read(FunctionRef<Status(View&)> function) override {
    const std::shared_ptr<const State> state = current();
    StateView view(*state);
    return function(view);
  }

  Status read_all(FunctionRef<Status(View&)> function) override { return read(function); }

  Status write(FunctionRef<Status(Update&)> function) override {
    const std::lock_guard one_writer(write_mutex_);
    const std::shared_ptr<const State> former = current();
    auto next = std::make_shared<State>(*former);
    StateUpdate update(*next, *former);
    if (Status status = function(update); !status.ok()) return status;
    const std::lock_guard lock(mutex_);
    current_ = std::move(next);
    return {};
  }

  std::size_t preferred_batch_size() const override { return std::numeric_limits<std::size_t>::max(); }

  Status check(bool repair, FunctionRef<void(const Finding&)> report, FunctionRef<void(const CheckProgress&)> progress,
               Totals* totals) override {
    const std::lock_guard one_writer(write_mutex_);
    auto next = std::make_shared<State>(*current());
    const std::uint64_t records = next->nodes.size() + next->values.size();
    check_state(*next, report, totals);
    progress({"records", records, records});
    const std::lock_guard lock(mutex_);
    if (repair) current_ = std::move(next);
    return {};
  }

  const char* kind() const override { return "memory"; }

  // From now on the record of this node, or the value of this id, is damaged, until it is written anew or removed.
  void damage_node(NodeId parent, std::string_view name) {
    change([&](State& state) { state.damaged_nodes.emplace(parent, name); });
  }
  void damage_value(NodeId id) {
    change([&](State& state) { state.damaged_values.insert(id); });
  }

 private:
  using NodeKey = std::pair<NodeId, std::string>;
  struct Less {
    using is_transparent = void;
    template <typename A, typename B>
    bool operator()(const A& left, const B& right) const {
      return left.first != right.first ? left.first < right.first
                                       : std::string_view(left.second) < std::string_view(right.second);
    }
  };
  struct MemoryValue {
    std::int32_t type = 0;
    std::vector<std::byte> bytes;
  };
  struct State {
    std::map<NodeKey, Node, Less> nodes;
    std::map<NodeId, MemoryValue> values;
    std::set<NodeKey, Less> damaged_nodes;  // each is in `nodes`, where nobody may look at it
    std::set<NodeId> damaged_values;        // each is in `values`, likewise
    NodeId next_id = kRootNode + 1;
    std::uint64_t structure = 1;
  };

  static auto place(NodeId parent, std::string_view name) { return std::pair<NodeId, std::string_view>(parent, name); }

  static Status damage_of(std::string_view name) {
    return {PRTKV_STORAGE_FAILED, "the record of '" + std::string(name) + "' is damaged"};
  }

  void change(FunctionRef<void(State&)> function) {
    const std::lock_guard one_writer(write_mutex_);
    auto next = std::make_shared<State>(*current());
    function(*next);
    const std::lock_guard lock(mutex_);
    current_ = std::move(next);
  }

  // The reading half, for View and Update alike.
  template <typename Interface>
  class Reading : public Interface {
   public:
    explicit Reading(const State& state) : state_(state) {}

    Status find(NodeId parent, std::string_view name, Node* node) override {
      const auto found = state_.nodes.find(place(parent, name));
      if (found == state_.nodes.end()) return PRTKV_NO_SUCH_KEY;
      if (state_.damaged_nodes.contains(found->first)) return damage_of(name);
      *node = found->second;
      return {};
    }

    Status value(NodeId id, Value* value) override {
      const auto found = state_.values.find(id);
      if (state_.damaged_values.contains(id)) return {PRTKV_STORAGE_FAILED, "the value is damaged"};
      *value = found == state_.values.end() ? Value{} : Value{found->second.type, found->second.bytes};
      return {};
    }

    Status children(NodeId parent, FunctionRef<Status(std::string_view, const Node&)> visit) override {
      return children_with_damage(parent, visit, [](std::string_view, const Status& damage) { return damage; });
    }

    Status children_with_damage(NodeId parent, FunctionRef<Status(std::string_view, const Node&)> visit,
                                FunctionRef<Status(std::string_view, const Status&)> damaged) override {
      auto at = state_.nodes.lower_bound(place(parent, ""));
      while (at != state_.nodes.end() && at->first.first == parent) {
        const auto [visited, node] = *at;
        const bool is_damaged = state_.damaged_nodes.contains(visited);
        Status status = is_damaged ? damaged(visited.second, damage_of(visited.second)) : visit(visited.second, node);
        if (!status.ok()) return status;
        at = state_.nodes.upper_bound(visited);  // anew: the visit may have changed the state
      }
      return {};
    }

    Status has_children(NodeId parent, bool* answer) override {
      const auto at = state_.nodes.lower_bound(place(parent, ""));
      *answer = at != state_.nodes.end() && at->first.first == parent;
      return {};
    }

    std::uint64_t structure() override { return state_.structure; }

   protected:
    ~Reading() = default;
    const State& state_;
  };

  class StateView final : public Reading<View> {
   public:
    using Reading::Reading;
  };

  class StateUpdate final : public Reading<Update> {
   public:
    StateUpdate(State& next, const State& former) : Reading(next), next_(next), before_(former) {}

    Status new_id(NodeId* id) override {
      *id = next_.next_id++;
      return {};
    }

    Status insert(NodeId parent, std::string_view name, const Node& node) override {
      if (Status status = check_place(parent, name); !status.ok()) return status;
      if (node.id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a node needs an id"};
      if (!next_.nodes.emplace(NodeKey(parent, name), node).second) return PRTKV_KEY_EXISTS;
      return {};
    }

    Status set_security(NodeId parent, std::string_view name, const sec_attr& security) override {
      const auto found = next_.nodes.find(place(parent, name));
      if (found == next_.nodes.end()) return PRTKV_NO_SUCH_KEY;
      if (next_.damaged_nodes.contains(found->first)) return damage_of(name);
      found->second.security = security;
      return {};
    }

    Status unlink(NodeId parent, std::string_view name) override {
      if (Status status = check_place(parent, name); !status.ok()) return status;
      const auto found = next_.nodes.find(place(parent, name));
      if (found == next_.nodes.end()) return PRTKV_NO_SUCH_KEY;
      next_.damaged_nodes.erase(found->first);
      next_.nodes.erase(found);
      ++next_.structure;
      return {};
    }

    Status discard(NodeId id) override {
      if (id == kNoNode || id == kRootNode) return {PRTKV_INVALID_ARGUMENT, "the root cannot be moved or removed"};
      remove_below(next_, id);
      return {};
    }

    Status remove_damaged(NodeId parent, std::string_view name) override {
      Node node;
      const Status found = find(parent, name, &node);
      if (found.ok()) return PRTKV_KEY_EXISTS;
      return found.is(PRTKV_STORAGE_FAILED) ? unlink(parent, name) : found;
    }

    Status set_value(NodeId id, std::int32_t type, std::span<const std::byte> bytes) override {
      if (id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a value needs a node"};
      if (Status status = check_value_size(bytes.size()); !status.ok()) return status;
      next_.damaged_values.erase(id);
      if (type == 0 && bytes.empty()) {
        next_.values.erase(id);
      } else {
        next_.values[id] = MemoryValue{type, {bytes.begin(), bytes.end()}};
      }
      return {};
    }

    View& before() override { return before_; }

   private:
    State& next_;
    StateView before_;
  };

  // Removes what hangs below `id`, and its value.
  static void remove_below(State& state, NodeId id) {
    std::vector<NodeId> pending{id};
    while (!pending.empty()) {
      const NodeId parent = pending.back();
      pending.pop_back();
      state.values.erase(parent);
      state.damaged_values.erase(parent);
      auto at = state.nodes.lower_bound(place(parent, ""));
      while (at != state.nodes.end() && at->first.first == parent) {
        if (state.damaged_nodes.erase(at->first) == 0) pending.push_back(at->second.id);
        at = state.nodes.erase(at);
      }
    }
  }

  // Reports what does not fit together and takes what can be removed out of the state.
  static void check_state(State& state, FunctionRef<void(const Finding&)> report, Totals* totals) {
    TreeCheck check(report);
    for (const auto& [at, node] : state.nodes) {
      state.damaged_nodes.contains(at) ? check.add_damaged_node(at.first, at.second, damage_of(at.second).text())
                                       : check.add_node(at.first, at.second, node.id);
    }
    for (const auto& [id, value] : state.values) {
      state.damaged_values.contains(id) ? check.add_damaged_value(id, "the value is damaged")
                                        : check.add_value(id, value.bytes.size());
    }
    TreeCheck::Removable removable;
    check.finish(totals, &removable);
    for (const TreeCheck::CheckedNode& entry : removable.nodes) {
      state.damaged_nodes.erase({entry.parent, entry.name});
      state.nodes.erase({entry.parent, entry.name});
    }
    for (const NodeId id : removable.values) {
      state.damaged_values.erase(id);
      state.values.erase(id);
    }
    if (state.damaged_nodes.erase({kNoNode, ""}) > 0) state.nodes[{kNoNode, ""}] = Node{kRootNode, {}};
  }

  std::shared_ptr<const State> current() {
    const std::lock_guard lock(mutex_);
    return current_;
  }

  std::mutex write_mutex_;  // held by the one writer
  std::mutex mutex_;        // guards current_
  std::shared_ptr<const State> current_;
};

}  // namespace tkv::store

#endif
