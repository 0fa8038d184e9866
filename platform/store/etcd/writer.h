// Writing exactly once, although answers get lost.
//
// A write overwrites a key of its writer with a mark that is never used again, and compares that key's revision. So a
// write that is sent a second time cannot be made a second time, and whether it was made is read from the mark. Before
// a write that was sent more than once is said not to have been made, the mark is overwritten: after that none of those
// that may still be on their way can be made any more.
#ifndef TKV_PLATFORM_STORE_ETCD_WRITER_H
#define TKV_PLATFORM_STORE_ETCD_WRITER_H

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "store/etcd/kv.h"
#include "store/etcd/requests.h"

namespace tkv::store::etcd {

// The key of a writer and the revision at which it is thought to stand.
struct Mark {
  std::string key;
  std::int64_t mod_revision = 0;
};

struct Written {
  Status status;      // failure: nothing was made, except that 15 with `unknown` cannot tell
  bool made = false;  // success only: false when the comparisons did not hold
  bool unknown = false;
  std::int64_t revision = 0;  // success only: at which it was made, or at which the comparisons failed
  TxnResponse response;       // comparisons that failed: what the failure branch read
};

// Carries out `request`, whose success branch writes and whose failure branch only reads, with at least one operation
// to spare in each. `text` becomes the mark's value and must never have been used with this mark.
Written write_once(Kv& kv, TxnRequest request, Mark* mark, const std::string& text, Deadline deadline);

// The writers of this process: each thread that writes takes one and gives it back.
//
// Threads. Any number may call.
class Writers {
 public:
  explicit Writers(const Keys& keys);

  Mark take();
  void give_back(Mark mark);

  // A text for the next write, never used before: who wrote, and when.
  std::string next_text();

  // Marks that were used, to be removed when no write is going on any more.
  std::vector<std::string> used() const;

 private:
  const Keys& keys_;
  const std::string token_;
  const std::string owner_;
  mutable std::mutex mutex_;
  std::vector<Mark> free_;
  std::uint64_t made_ = 0;
  std::uint64_t texts_ = 0;
};

// What a mark's text tells: when it was written, by whom.
struct MarkText {
  std::int64_t seconds = 0;
  std::string owner;
};
MarkText parse_mark(const std::string& text);

}  // namespace tkv::store::etcd

#endif
