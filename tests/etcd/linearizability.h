// Tells whether a history of one key is linearizable: whether there is an order in which each operation takes effect
// once, at one moment between its begin and its end.
#ifndef TKV_TESTS_ETCD_LINEARIZABILITY_H
#define TKV_TESTS_ETCD_LINEARIZABILITY_H

#include <cstdint>
#include <string>
#include <vector>

namespace tkv::store::etcd {

struct Operation {
  enum class Kind { kCreate, kWrite, kRead, kDelete };
  enum class Result {
    kDone,     // created, written, deleted; read: `value` was there
    kRefused,  // created: the key was there; the others: it was not
    kUnknown   // nobody answered: took effect at some moment after its begin, or never
  };
  Kind kind = Kind::kRead;
  Result result = Result::kDone;
  int value = 0;  // written or read; no two writes write the same
  std::int64_t begin = 0;
  std::int64_t end = 0;  // without meaning when unknown
};

// At most 128 operations on a key that does not exist at first.
bool is_linearizable(std::vector<Operation> history);

// For people, one operation per line.
std::string to_string(const std::vector<Operation>& history);

}  // namespace tkv::store::etcd

#endif
