// Histories of operations on a tree of keys, by several clients at once: as text, and judged by a model of the tree.
//
// A history is legal if every operation can have taken effect at one moment between its begin and its end, so that all
// outcomes are those of the model. Operations that concern many keys, such as moves, are judged as a whole.
#ifndef TKV_TESTS_ETCD_TREE_HISTORY_H
#define TKV_TESTS_ETCD_TREE_HISTORY_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tkv::store::etcd {

using Words = std::vector<std::string>;

// An operation as words (see TreeModel), without blanks.
struct TreeOperation {
  int client = 0;
  std::int64_t begin = 0;           // nanoseconds, of one clock for all clients
  std::optional<std::int64_t> end;  // nothing: nobody answered, it took effect at some moment after its begin or never
  Words asked;
  Words answered;  // empty without an end
};

// What the operations mean. Keys are full names; each has a value and a mask.
//
//   create KEY VALUE        done | exists | no-such-key (above it)
//   write KEY VALUE         done | no-such-key
//   read KEY                value VALUE | no-such-key
//   read-tree KEY           tree KEY=VALUE/MASK... (the key and all below it, in byte order) | no-such-key
//   remove KEY              done | no-such-key. With all below it
//   move KEY TARGET         done | exists | no-such-key (it, or above the target). With all below it
//   replace KEY TARGET      done | no-such-key. The same, but an existing target is removed first with all below it
//   change KEY MASK         done | no-such-key. Sets the mask of the key and of all below it
//   import KEY=VALUE...     done | no-such-key (above the first). Writes these keys, and creates those that do not
//   exist
//
// A key is created with the mask 0.
class TreeModel {
 public:
  // Makes the operation and returns its answer.
  Words apply(const Words& asked);

  std::string print() const;
  bool operator==(const TreeModel&) const = default;

 private:
  struct Key {
    std::string value;
    std::string mask = "0";
    bool operator==(const Key&) const = default;
  };
  using Keys = std::map<std::string, Key>;

  bool has(const std::string& name) const { return keys_.contains(name); }
  bool has_parent_of(const std::string& name) const;
  Keys take_tree(const std::string& top);
  Words read_tree(const std::string& top) const;
  Words create(const std::string& name, const std::string& value);
  Words move(const std::string& from, const std::string& to, bool replace);
  Words change(const std::string& top, const std::string& mask);
  Words import(const Words& asked);

  Keys keys_;
};

enum class Ruling { kLegal, kIllegal, kTooHard };

// Judges a history that begins with an empty tree. kTooHard: the search was given up.
Ruling judge_history(std::vector<TreeOperation> history);

// One line for each operation: client, begin, end or "-", the words that were asked, ":" and those answered. Lines that
// begin with "#" are comments.
std::string print_history(const std::vector<TreeOperation>& history);

// Throws std::runtime_error, with the number of the line, if the text is no history.
std::vector<TreeOperation> parse_history(const std::string& text);

}  // namespace tkv::store::etcd

#endif
