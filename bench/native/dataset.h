// Dataset: the keys that every store in a comparison holds.
#ifndef TKV_BENCH_DATASET_H
#define TKV_BENCH_DATASET_H

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace tkv::bench {

// Groups of equal size; all keys have the same depth, and values of the same size. One additional group receives the
// writes, so that the keys that are read never change. The Java class Dataset creates the same names and values.
class Dataset {
 public:
  // `depth` counts the levels of a key's full name; `value_size` is in bytes, without the NUL.
  Dataset(int groups, int keys, int depth, std::size_t value_size)
      : groups_(groups), keys_(keys), top_(levels_above(depth)), value_size_(value_size) {
    if (groups < 1 || keys < 1 || depth < 2 || value_size < 1) throw std::invalid_argument("an impossible dataset");
  }

  int groups() const { return groups_; }
  std::size_t keys_per_group() const { return static_cast<std::size_t>(keys_); }

  // The full name of a group; the index groups() is that of the written one.
  std::string group(int index) const { return top_ + "group" + padded(index, 4); }

  std::vector<std::string> names_of(const std::string& group_name) const {
    std::vector<std::string> names;
    names.reserve(keys_per_group());
    for (int key = 0; key < keys_; ++key) names.push_back(group_name + ".key" + padded(key, 6));
    return names;
  }

  // The full names of all keys that are read.
  std::vector<std::string> all_names() const {
    std::vector<std::string> names;
    for (int index = 0; index < groups_; ++index) {
      for (auto& name : names_of(group(index))) names.push_back(std::move(name));
    }
    return names;
  }

  // The value of a key: the end of its name, repeated. It differs from key to key, so that reading the wrong one is
  // noticed.
  std::string value(const std::string& name) const {
    std::string text = name;
    while (text.size() < value_size_) text += name;
    return text.substr(text.size() - value_size_);
  }

 private:
  static std::string padded(int number, std::size_t width) {
    const std::string digits = std::to_string(number);
    return std::string(width - std::min(width, digits.size()), '0') + digits;
  }

  // "app.service." above keys of depth 4.
  static std::string levels_above(int depth) {
    std::string levels;
    for (int level = 0; level < depth - 2; ++level) {
      levels += level == 0 ? "app." : level == 1 ? "service." : "level" + padded(level, 2) + ".";
    }
    return levels;
  }

  int groups_;
  int keys_;
  std::string top_;
  std::size_t value_size_;
};

}  // namespace tkv::bench

#endif
