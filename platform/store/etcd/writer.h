// Writes that are made exactly once although answers get lost.
//
// A write puts a text that is never used again into a key of its writer, the mark, and compares that key's revision. So
// a write that is sent twice cannot be made twice, and the mark tells whether it was made. Before a write that was sent
// more than once is reported as not made, the mark is overwritten: no copy of the write that may still be in transit
// can be made after that.
//
// Each write compares that its owner's session goes on. The marks of writers end with the session, so a mark that has
// been written proves it.
#ifndef TKV_PLATFORM_STORE_ETCD_WRITER_H
#define TKV_PLATFORM_STORE_ETCD_WRITER_H

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "store/etcd/kv.h"
#include "store/etcd/requests.h"
#include "store/etcd/session.h"

namespace tkv::store::etcd {

// A writer's key, and the revision at which it was last seen.
struct Mark {
  std::string key;
  std::int64_t mod_revision = 0;
  Owner owner;
  bool ends_with_session = true;
};

struct Written {
  Status status;              // failure: nothing was made, unless the message says that this is unknown
  bool made = false;          // success only: false if the comparisons failed
  bool lost = false;          // the owner's session has ended: not made, or with PRTKV_UNDECIDED perhaps made before
  std::int64_t revision = 0;  // success only: at which it was made, or at which the comparisons failed
  TxnResponse response;       // if the comparisons failed: what the failure branch read
  bool went_back = false;     // the mark is older than when it was last seen: this is another history of the cluster
};

// Sends `request`, whose success branch writes and whose failure branch only reads; each must have room for two more
// operations. `text` becomes the mark's value and must never have been used with this mark.
Written write_once(Kv& kv, const Keys& keys, TxnRequest request, Mark* mark, const std::string& text,
                   Deadline deadline);

// The marks of this session's writers: a thread that writes takes one and returns it afterwards.
//
// Threads. Any number may call at once.
class Writers {
 public:
  explicit Writers(const Keys& keys) : keys_(keys) {}

  Mark take(const Owner& owner);
  void give_back(Mark mark);

  // Makes a text for the next write, never used before.
  std::string next_text();

 private:
  const Keys& keys_;
  std::mutex mutex_;
  Owner owner_;  // of the marks
  std::vector<Mark> free_;
  std::uint64_t made_ = 0;
  std::uint64_t texts_ = 0;
};

}  // namespace tkv::store::etcd

#endif
