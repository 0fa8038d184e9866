// MemoryStore: a store in memory, for tests of the code above a store. It fulfils the contract of store.h, except that
// nothing outlasts the process. A write copies the state, and the past consists of the former states, so it is for
// small trees. Of the limits of a Retention, it knows the number of changes.
#ifndef TKV_TESTS_PLATFORM_MEMORY_STORE_H
#define TKV_TESTS_PLATFORM_MEMORY_STORE_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stop_token>
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
  explicit MemoryStore(const sec_attr& root_security = {}, const Retention& retention = {})
      : most_changes_(retention.off ? 0 : retention.changes) {
    auto fresh = std::make_shared<State>();
    fresh->nodes[{kNoNode, ""}] = Node{kRootNode, root_security};
    states_ = std::make_shared<States>(States{std::move(fresh)});
  }

  Status read(FunctionRef<Status(View&)> function) override {
    const std::shared_ptr<const States> states = current();
    StateView view(*states, states->size() - 1);
    return function(view);
  }

  Status read_all(FunctionRef<Status(View&)> function) override { return read(function); }

  using Store::write;
  Status write(FunctionRef<Status(Update&)> function, Revision* revision) override {
    const std::lock_guard one_writer(write_mutex_);
    const std::shared_ptr<const States> former = current();
    auto next = std::make_shared<State>(*former->back());
    StateUpdate update(*next, *former);
    if (Status status = function(update); !status.ok()) return status;
    if (update.changed()) {
      publish(*former, std::move(next));
    } else {  // what it has given out is not given out again
      replace_present([&](State& present) { present.next_id = next->next_id; });
    }
    *revision = current()->back()->change.revision;
    return {};
  }

  Status read_at(Revision revision, FunctionRef<Status(View&)> function) override {
    const std::shared_ptr<const States> states = current();
    if (Status status = check_retained(*states, revision); !status.ok()) return status;
    StateView view(*states, revision - states->front()->change.revision);
    return function(view);
  }

  Status changes(const LogRange& range, FunctionRef<Status(const ChangeRecord& record)> visit,
                 LogPosition* position) override {
    const std::shared_ptr<const States> states = current();
    const Revision latest = states->back()->change.revision;
    const Revision log_after = states->front()->change.revision;
    *position = {range.after > latest ? latest : std::min(range.up_to, latest), range.after >= log_after};
    if (range.only_complete && !position->complete) {
      position->revision = latest;
      return {};
    }
    std::vector<const ChangeRecord*> found;
    for (std::size_t i = 1; i < states->size(); ++i) {
      const ChangeRecord& change = (*states)[i]->change;
      if (change.revision > range.after && change.revision <= range.up_to) found.push_back(&change);
    }
    if (range.newest_first) std::reverse(found.begin(), found.end());
    for (const ChangeRecord* change : found) {
      if (Status status = visit(*change); !status.ok()) return status;
    }
    return {};
  }

  Status wait(Revision after, std::chrono::milliseconds timeout, const std::stop_token& stop,
              Revision* revision) override {
    std::unique_lock lock(mutex_);
    const auto latest = [&] { return states_->back()->change.revision; };
    const auto longest = std::min<std::chrono::milliseconds>(timeout, std::chrono::hours(1));
    changed_.wait_for(lock, stop, longest, [&] { return latest() > after; });
    *revision = latest();
    return {};
  }

  Status purge(ChooseNodes choose, const ChangeDescription& description, std::uint64_t* removed) override {
    const std::lock_guard one_writer(write_mutex_);
    States states = *current();
    std::vector<NodeId> nodes;
    StateView present(states, states.size() - 1);
    if (Status status = choose(present, &nodes); !status.ok()) return status;
    auto next = std::make_shared<State>(*states.back());
    next->change = ChangeRecord{description, states.back()->change.revision + 1, false};
    std::set<std::pair<NodeId, Revision>> purged;
    for (std::shared_ptr<const State>& each : states) {
      auto state = std::make_shared<State>(*each);
      for (const NodeId id : nodes) {
        const auto value = state->values.find(id);
        if (value == state->values.end() || next->revision_of_value(id) == value->second.revision) continue;
        purged.emplace(id, value->second.revision);
        state->values.erase(value);
      }
      each = std::move(state);
    }
    *removed = purged.size();
    publish(states, std::move(next));
    return {};
  }

  Status check(const ChangeDescription* repair, FunctionRef<void(const Finding&)> report,
               FunctionRef<void(const CheckProgress&)> progress, Totals* totals) override {
    const std::lock_guard one_writer(write_mutex_);
    const std::shared_ptr<const States> former = current();
    auto next = std::make_shared<State>(*former->back());
    const std::uint64_t records = next->nodes.size() + next->values.size();
    check_state(*next, report, totals);
    progress({"records", records, records});
    if (repair == nullptr) return {};
    next->change = ChangeRecord{*repair, former->back()->change.revision + 1, false};
    publish(*former, std::move(next));
    return {};
  }

  Status status(StoreStatus* status) override {
    const std::shared_ptr<const States> states = current();
    *status = {};
    status->revision = states->back()->change.revision;
    status->oldest_state = status->log_after = states->front()->change.revision;
    return {};
  }

  const char* kind() const override { return "memory"; }

  // From now on the record of this node, or the value of this id, is damaged, until it is written anew or removed.
  void damage_node(NodeId parent, std::string_view name) {
    decay([&](State& state) { state.damaged_nodes.emplace(parent, name); });
  }
  void damage_value(NodeId id) {
    decay([&](State& state) { state.damaged_values.insert(id); });
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
    Revision revision = 0;

    bool is_removed() const { return type == 0 && bytes.empty(); }
  };
  struct State {
    std::map<NodeKey, Node, Less> nodes;
    std::map<NodeId, MemoryValue> values;
    std::set<NodeKey, Less> damaged_nodes;  // each is in `nodes`, where nobody may look at it
    std::set<NodeId> damaged_values;        // each is in `values`, likewise
    NodeId next_id = kRootNode + 1;
    std::uint64_t structure = 1;
    ChangeRecord change;  // that made this state

    Revision revision_of_value(NodeId id) const {
      const auto found = values.find(id);
      return found == values.end() ? 0 : found->second.revision;
    }
  };
  using States = std::vector<std::shared_ptr<const State>>;  // the past and, at the end, the present

  static auto place(NodeId parent, std::string_view name) { return std::pair<NodeId, std::string_view>(parent, name); }

  static Status damage_of(std::string_view name) {
    return {PRTKV_STORAGE_FAILED, "the record of '" + std::string(name) + "' is damaged"};
  }

  // Changes the present state without a change: what decays is not logged.
  void decay(FunctionRef<void(State&)> function) {
    const std::lock_guard one_writer(write_mutex_);
    replace_present(function);
  }

  void replace_present(FunctionRef<void(State&)> function) {
    auto states = std::make_shared<States>(*current());
    auto next = std::make_shared<State>(*states->back());
    function(*next);
    states->back() = std::move(next);
    const std::lock_guard lock(mutex_);
    states_ = std::move(states);
  }

  // The reading half, for View and Update alike.
  template <typename Interface>
  class Reading : public Interface {
   public:
    // On a state, which need not be that of the past yet to which it belongs.
    Reading(const State& state, const States& states, std::size_t index)
        : state_(state), states_(states), index_(index) {}

    Status find(NodeId parent, std::string_view name, Node* node) override {
      const auto found = state_.nodes.find(place(parent, name));
      if (found == state_.nodes.end()) return PRTKV_NO_SUCH_KEY;
      if (state_.damaged_nodes.contains(found->first)) return damage_of(name);
      *node = found->second;
      return {};
    }

    Status value(NodeId id, Value* value) override {
      const auto found = state_.values.find(id);
      *value = Value{};
      if (state_.damaged_values.contains(id)) return {PRTKV_STORAGE_FAILED, "the value is damaged"};
      if (found != state_.values.end()) *value = {found->second.type, found->second.bytes, found->second.revision};
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

    Status revision(Revision* revision) override {
      *revision = states_[index_]->change.revision;
      return {};
    }

    Status change(Revision revision, ChangeRecord* record) override {
      const Revision oldest = states_.front()->change.revision;
      if (revision <= oldest || revision > states_[index_]->change.revision) return PRTKV_NO_SUCH_KEY;
      *record = states_[revision - oldest]->change;
      return {};
    }

   protected:
    ~Reading() = default;
    const State& state_;
    const States& states_;
    const std::size_t index_;
  };

  class StateView final : public Reading<View> {
   public:
    StateView(const States& states, std::size_t index) : Reading(*states[index], states, index) {}
  };

  class StateUpdate final : public Reading<Update> {
   public:
    StateUpdate(State& next, const States& former)
        : Reading(next, former, former.size() - 1), next_(next), before_(former, former.size() - 1) {
      next_.change = {};
      next_.change.revision = former.back()->change.revision + 1;
    }

    bool changed() const { return changed_; }

    void describe(ChangeDescription description) override {
      static_cast<ChangeDescription&>(next_.change) = std::move(description);
    }

    Status new_id(NodeId* id) override {
      *id = next_.next_id++;
      return {};
    }

    Status insert(NodeId parent, std::string_view name, const Node& node) override {
      if (Status status = check_place(parent, name); !status.ok()) return status;
      if (node.id == kNoNode) return {PRTKV_INVALID_ARGUMENT, "a node needs an id"};
      const auto [at, inserted] = next_.nodes.emplace(NodeKey(parent, name), node);
      if (!inserted) return PRTKV_KEY_EXISTS;
      at->second.revision = next_.change.revision;
      changed_ = true;
      return {};
    }

    Status set_security(NodeId parent, std::string_view name, const sec_attr& security) override {
      const auto found = next_.nodes.find(place(parent, name));
      if (found == next_.nodes.end()) return PRTKV_NO_SUCH_KEY;
      if (next_.damaged_nodes.contains(found->first)) return damage_of(name);
      found->second.security = security;
      found->second.revision = next_.change.revision;
      changed_ = true;
      return {};
    }

    Status unlink(NodeId parent, std::string_view name) override {
      if (Status status = check_place(parent, name); !status.ok()) return status;
      const auto found = next_.nodes.find(place(parent, name));
      if (found == next_.nodes.end()) return PRTKV_NO_SUCH_KEY;
      next_.damaged_nodes.erase(found->first);
      next_.nodes.erase(found);
      ++next_.structure;
      changed_ = true;
      return {};
    }

    Status discard(NodeId id) override {
      if (id == kNoNode || id == kRootNode) return {PRTKV_INVALID_ARGUMENT, "the root cannot be moved or removed"};
      changed_ = remove_below(next_, id) || changed_;
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
      if (type == 0 && bytes.empty() && !next_.values.contains(id)) return {};
      next_.damaged_values.erase(id);
      next_.values[id] = MemoryValue{type, {bytes.begin(), bytes.end()}, next_.change.revision};
      changed_ = true;
      return {};
    }

    View& before() override { return before_; }

   private:
    State& next_;
    StateView before_;
    bool changed_ = false;
  };

  // Removes what hangs below `id`, and its value. Tells whether there was anything.
  static bool remove_below(State& state, NodeId id) {
    const std::size_t records = state.nodes.size() + state.values.size();
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
    return state.nodes.size() + state.values.size() != records;
  }

  static void check_value(const State& state, NodeId id, const MemoryValue& value, TreeCheck& check) {
    if (state.damaged_values.contains(id)) return check.add_damaged_value(id, "the value is damaged");
    value.is_removed() ? check.add_removed_value(id) : check.add_value(id, value.bytes.size());
  }

  // Reports what does not fit together and takes what can be removed out of the state.
  static void check_state(State& state, FunctionRef<void(const Finding&)> report, Totals* totals) {
    TreeCheck check(report);
    for (const auto& [at, node] : state.nodes) {
      state.damaged_nodes.contains(at) ? check.add_damaged_node(at.first, at.second, damage_of(at.second).text())
                                       : check.add_node(at.first, at.second, node.id);
    }
    for (const auto& [id, value] : state.values) check_value(state, id, value, check);
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

  static Status check_retained(const States& states, Revision revision) {
    const std::string subject = "revision " + std::to_string(revision);
    if (revision > states.back()->change.revision) return {PRTKV_INVALID_ARGUMENT, subject + " does not exist yet"};
    if (revision < states.front()->change.revision) return {PRTKV_INVALID_ARGUMENT, subject + " is not retained"};
    return {};
  }

  std::shared_ptr<const States> current() {
    const std::lock_guard lock(mutex_);
    return states_;
  }

  // Appends a state, and drops what is not to be retained.
  void publish(const States& former, std::shared_ptr<const State> next) {
    auto states = std::make_shared<States>(former);
    states->push_back(std::move(next));
    if (states->size() > most_changes_ + 1) {
      states->erase(states->begin(), states->end() - 1 - static_cast<std::ptrdiff_t>(most_changes_));
    }
    {
      const std::lock_guard lock(mutex_);
      states_ = std::move(states);
    }
    changed_.notify_all();
  }

  const std::uint64_t most_changes_;
  std::mutex write_mutex_;  // held by the one writer
  std::mutex mutex_;        // guards states_
  std::condition_variable_any changed_;
  std::shared_ptr<const States> states_;
};

}  // namespace tkv::store

#endif
