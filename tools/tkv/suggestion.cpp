#include "suggestion.h"

#include <algorithm>
#include <numeric>
#include <vector>

#include "verbs.h"

namespace tkv::command {
namespace {

// The number of letters to insert, delete, replace or swap with their neighbour to get from one word to the other.
std::size_t distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> before(to.size() + 1);
  std::vector<std::size_t> last(to.size() + 1);
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(last.begin(), last.end(), std::size_t{0});
  for (std::size_t i = 1; i <= from.size(); ++i) {
    row[0] = i;
    for (std::size_t j = 1; j <= to.size(); ++j) {
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1)});
      const bool swapped = i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
      if (swapped) row[j] = std::min(row[j], before[j - 2] + 1);
    }
    before.swap(last);
    last.swap(row);
  }
  return last[to.size()];
}

}  // namespace

std::string suggestion(std::string_view word, std::span<const std::string> candidates) {
  const std::string* nearest = nullptr;
  std::size_t least = word.size() < 4 ? 2 : 3;  // words that differ by this much are unrelated
  for (const std::string& candidate : candidates) {
    const std::size_t differences = distance(word, candidate);
    if (differences >= std::min(least, candidate.size())) continue;
    least = differences;
    nearest = &candidate;
  }
  return nearest == nullptr ? "" : "; did you mean '" + *nearest + "'?";
}

std::string verb_suggestion(std::string_view word) {
  std::vector<std::string> names;
  for (const Verb* verb : all_verbs()) {
    if (!verb->hidden) names.emplace_back(verb->name);
  }
  return suggestion(word, names);
}

}  // namespace tkv::command
