// CommitTimes: when transactions were committed, as far as it takes to tell how long a reader has held its state.
//
// LMDB notes the transaction whose state a reader holds, but not since when. A reader that holds the state of
// transaction N began before the first commit after N. Writers therefore note their transaction's number in
// writer.lock, once in each half minute in which there is a commit, in a ring of slots:
//
//   slot = seconds transaction     ; 8 bytes each, low byte first; seconds since 1970
//
// The ring begins at kRingOffset and has kSlots slots; a time belongs into the slot (seconds / kInterval) % kSlots.
// What is noted is for messages only: nothing depends on it, and failures are ignored.
#ifndef TKV_PLATFORM_STORE_LMDB_COMMIT_TIMES_H
#define TKV_PLATFORM_STORE_LMDB_COMMIT_TIMES_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace tkv::store {

class CommitTimes {
 public:
  // These are shared with other processes. Do not change.
  static constexpr off_t kRingOffset = 128;
  static constexpr std::size_t kSlots = 256;
  static constexpr std::int64_t kInterval = 30;  // seconds

  // `file`: a descriptor of writer.lock, which remains the caller's.
  explicit CommitTimes(int file) : file_(file) {}

  // Notes that `transaction` has been committed at `now`. The caller holds the writer lock.
  void note(std::uint64_t transaction, std::int64_t now) const;

  // For how many seconds, at least, a reader at `now` has held the state of `transaction`, or zero if that is not
  // known. Not more than two hours are known.
  std::int64_t held_for(std::uint64_t transaction, std::int64_t now) const;

 private:
  const int file_;
};

}  // namespace tkv::store

#endif
