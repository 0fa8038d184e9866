#include "tree_history.h"

#include <algorithm>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <unordered_set>
#include <utility>

namespace tkv::store::etcd {
namespace {

const Words kDone{"done"};
const Words kExists{"exists"};
const Words kNoSuchKey{"no-such-key"};

bool is_within(const std::string& name, const std::string& top) {
  return name == top || (name.starts_with(top) && name[top.size()] == '.');
}

std::pair<std::string, std::string> split_assignment(const std::string& word) {
  const auto at = word.find('=');
  if (at == std::string::npos) throw std::invalid_argument("'" + word + "' is not KEY=VALUE");
  return {word.substr(0, at), word.substr(at + 1)};
}

}  // namespace

// ---- the model

bool TreeModel::has_parent_of(const std::string& name) const {
  const auto dot = name.rfind('.');
  return dot == std::string::npos || has(name.substr(0, dot));
}

// Takes a key and all below it out of the tree; the names of what is returned begin behind the top's.
TreeModel::Keys TreeModel::take_tree(const std::string& top) {
  Keys taken;
  std::erase_if(keys_, [&](const auto& each) {
    if (!is_within(each.first, top)) return false;
    taken[each.first.substr(top.size())] = each.second;
    return true;
  });
  return taken;
}

Words TreeModel::read_tree(const std::string& top) const {
  if (!has(top)) return kNoSuchKey;
  Words answer{"tree"};
  for (const auto& [name, key] : keys_) {
    if (is_within(name, top)) answer.push_back(name + "=" + key.value + "/" + key.mask);
  }
  return answer;
}

Words TreeModel::create(const std::string& name, const std::string& value) {
  if (!has_parent_of(name)) return kNoSuchKey;
  return keys_.emplace(name, Key{value}).second ? kDone : kExists;
}

Words TreeModel::move(const std::string& from, const std::string& to, bool replace) {
  if (!has(from) || !has_parent_of(to)) return kNoSuchKey;
  if (has(to) && !replace) return kExists;
  take_tree(to);
  for (auto& [name, key] : take_tree(from)) keys_[to + name] = std::move(key);
  return kDone;
}

Words TreeModel::change(const std::string& top, const std::string& mask) {
  if (!has(top)) return kNoSuchKey;
  for (auto& [name, key] : keys_) {
    if (is_within(name, top)) key.mask = mask;
  }
  return kDone;
}

Words TreeModel::import(const Words& asked) {
  if (!has_parent_of(split_assignment(asked.at(1)).first)) return kNoSuchKey;
  for (std::size_t i = 1; i < asked.size(); ++i) {
    auto [name, value] = split_assignment(asked[i]);
    keys_[name].value = std::move(value);
  }
  return kDone;
}

Words TreeModel::apply(const Words& asked) {
  const std::string& name = asked.at(0);
  const std::string& key = asked.at(1);
  if (name == "create") return create(key, asked.at(2));
  if (name == "read-tree") return read_tree(key);
  if (name == "move" || name == "replace") return move(key, asked.at(2), name == "replace");
  if (name == "change") return change(key, asked.at(2));
  if (name == "import") return import(asked);
  if (name != "write" && name != "read" && name != "remove") throw std::invalid_argument("no operation '" + name + "'");
  const auto found = keys_.find(key);
  if (found == keys_.end()) return kNoSuchKey;
  if (name == "read") return {"value", found->second.value};
  if (name == "write") {
    found->second.value = asked.at(2);
  } else {
    take_tree(key);
  }
  return kDone;
}

std::string TreeModel::print() const {
  std::string text;
  for (const auto& [name, key] : keys_) text += name + "=" + key.value + "/" + key.mask + " ";
  return text;
}

// ---- the search

namespace {

// Looks for an order of the operations in which the model gives every answer, depth first, and never goes on twice from
// the same state with the same operations made.
class Search {
 public:
  explicit Search(std::vector<TreeOperation> history) : history_(std::move(history)), made_(history_.size(), '0') {
    std::sort(history_.begin(), history_.end(),
              [](const TreeOperation& left, const TreeOperation& right) { return left.begin < right.begin; });
  }

  Ruling run() {
    const bool found = from(TreeModel());
    if (found) return Ruling::kLegal;
    return seen_.size() < kMostStates ? Ruling::kIllegal : Ruling::kTooHard;
  }

 private:
  static constexpr std::size_t kMostStates = 200'000;

  bool from(TreeModel tree) {
    const std::size_t mark = undo_.size();
    make_what_changes_nothing(tree);
    const std::int64_t limit = end_of_first_open();
    bool found = limit == kNever;
    if (!found && seen_.size() < kMostStates && seen_.insert(made_ + tree.print()).second) {
      for (std::size_t i = 0; !found && is_open_at(i, limit); ++i) found = made_[i] == '0' && try_next(i, tree);
    }
    for (; !found && undo_.size() > mark; undo_.pop_back()) made_[undo_.back()] = '0';
    return found;
  }

  bool try_next(std::size_t i, TreeModel tree) {
    if (!is_answered(i, tree.apply(history_[i].asked))) return false;
    made_[i] = '1';
    const bool found = from(std::move(tree));
    if (!found) made_[i] = '0';
    return found;
  }

  // Whatever can come next and changes nothing in any state comes next: it would not be in the way of anything else.
  // (What changes nothing in this state alone may have to come later, where it does.)
  void make_what_changes_nothing(const TreeModel& tree) {
    for (bool any = true; any;) {
      any = false;
      const std::int64_t limit = end_of_first_open();
      for (std::size_t i = 0; is_open_at(i, limit); ++i) {
        const bool only_tells = history_[i].end && history_[i].answered != kDone;
        if (made_[i] != '0' || !only_tells || !is_answered(i, TreeModel(tree).apply(history_[i].asked))) continue;
        made_[i] = '1';
        undo_.push_back(i);
        any = true;
      }
    }
  }

  // Only what began before every other operation ended can come next.
  std::int64_t end_of_first_open() const {
    std::int64_t end = kNever;
    for (std::size_t i = 0; i < history_.size() && history_[i].begin <= end; ++i) {
      if (made_[i] == '0' && history_[i].end) end = std::min(end, *history_[i].end);
    }
    return end;
  }

  bool is_open_at(std::size_t i, std::int64_t limit) const {
    return i < history_.size() && limit != kNever && history_[i].begin <= limit;
  }

  bool is_answered(std::size_t i, const Words& answer) const {
    return !history_[i].end || history_[i].answered == answer;
  }

  static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

  std::vector<TreeOperation> history_;  // by their begins
  std::string made_;                    // '1' for each operation that has been made
  std::vector<std::size_t> undo_;
  std::unordered_set<std::string> seen_;
};

}  // namespace

Ruling judge_history(std::vector<TreeOperation> history) { return Search(std::move(history)).run(); }

// ---- text

std::string print_history(const std::vector<TreeOperation>& history) {
  std::ostringstream text;
  for (const TreeOperation& each : history) {
    text << each.client << ' ' << each.begin << ' ' << (each.end ? std::to_string(*each.end) : "-");
    for (const std::string& word : each.asked) text << ' ' << word;
    text << " :";
    for (const std::string& word : each.answered) text << ' ' << word;
    text << '\n';
  }
  return text.str();
}

std::vector<TreeOperation> parse_history(const std::string& text) {
  std::vector<TreeOperation> history;
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    if (line.empty() || line.front() == '#') continue;
    std::istringstream words(line);
    TreeOperation operation;
    std::string end;
    std::string word;
    words >> operation.client >> operation.begin >> end;
    while (words >> word && word != ":") operation.asked.push_back(word);
    const bool complete = words && operation.asked.size() > 1;
    while (words >> word) operation.answered.push_back(word);
    if (!complete || (end == "-") != operation.answered.empty()) {
      throw std::runtime_error("line " + std::to_string(number) + " is no operation: " + line);
    }
    if (end != "-") operation.end = std::stoll(end);
    history.push_back(std::move(operation));
  }
  return history;
}

}  // namespace tkv::store::etcd
