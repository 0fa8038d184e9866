#include "linearizability.h"

#include <algorithm>
#include <bitset>
#include <limits>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

namespace tkv::store::etcd {
namespace {

constexpr std::size_t kMost = 128;
constexpr int kAbsent = -1;

// The state after an operation, none when it cannot have taken effect in this one.
std::optional<int> apply(const Operation& operation, int state) {
  const bool there = state != kAbsent;
  const bool creates = operation.kind == Operation::Kind::kCreate;
  if (operation.result == Operation::Result::kRefused) return there == creates ? std::optional(state) : std::nullopt;
  if (there == creates) return {};
  switch (operation.kind) {
    case Operation::Kind::kCreate:
    case Operation::Kind::kWrite:
      return operation.value;
    case Operation::Kind::kDelete:
      return kAbsent;
    case Operation::Kind::kRead:
      return operation.result == Operation::Result::kUnknown || state == operation.value ? std::optional(state)
                                                                                         : std::nullopt;
  }
  return {};
}

class Search {
 public:
  explicit Search(std::vector<Operation> history) : history_(std::move(history)) {}

  bool from(const std::bitset<kMost>& taken, int state) {
    const std::int64_t earliest_end = end_of_first_open(taken);
    if (earliest_end == std::numeric_limits<std::int64_t>::max()) return true;
    if (!seen_.emplace(taken.to_string(), state).second) return false;
    for (std::size_t i = 0; i < history_.size() && history_[i].begin <= earliest_end; ++i) {
      if (taken[i]) continue;
      const auto next = apply(history_[i], state);
      if (next && from(std::bitset<kMost>(taken).set(i), *next)) return true;
    }
    return false;
  }

 private:
  // Only an operation that began before any other one ended can come next.
  std::int64_t end_of_first_open(const std::bitset<kMost>& taken) const {
    std::int64_t end = std::numeric_limits<std::int64_t>::max();
    for (std::size_t i = 0; i < history_.size(); ++i) {
      if (!taken[i] && history_[i].result != Operation::Result::kUnknown) end = std::min(end, history_[i].end);
    }
    return end;
  }

  std::vector<Operation> history_;
  std::set<std::pair<std::string, int>> seen_;
};

}  // namespace

bool is_linearizable(std::vector<Operation> history) {
  if (history.size() > kMost) throw std::length_error("a history of too many operations");
  std::sort(history.begin(), history.end(),
            [](const Operation& left, const Operation& right) { return left.begin < right.begin; });
  return Search(std::move(history)).from({}, kAbsent);
}

std::string to_string(const std::vector<Operation>& history) {
  constexpr const char* kKinds[] = {"create", "write", "read", "delete"};
  constexpr const char* kResults[] = {"done", "refused", "unknown"};
  std::string text;
  for (const Operation& operation : history) {
    text += std::to_string(operation.begin) + ".." + std::to_string(operation.end) + " " +
            kKinds[static_cast<int>(operation.kind)] + " " + std::to_string(operation.value) + " " +
            kResults[static_cast<int>(operation.result)] + "\n";
  }
  return text;
}

}  // namespace tkv::store::etcd
