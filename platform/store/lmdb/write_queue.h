// WriteQueue: the threads of this process that write to one registry, in the order in which they came.
//
// The first thread leads: it takes the lock that is shared with other processes, begins a transaction and makes its
// change. Then the threads that have come meanwhile make theirs, one after the other, each in a transaction within that
// one, and the leader commits them together: they share the synchronous writes of one commit. Each thread runs its own
// function and has a result of its own, and each gives up at its own deadline as long as it has not begun.
//
// The transactions themselves are no concern of this class. In a forked child, the queue of its parent does nothing.
#ifndef TKV_PLATFORM_STORE_LMDB_WRITE_QUEUE_H
#define TKV_PLATFORM_STORE_LMDB_WRITE_QUEUE_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>

#include "base/status.h"
#include "store/lmdb/writer_wait.h"

namespace tkv::store {

class WriteTransaction;

class WriteQueue {
 public:
  class Writer;

  WriteQueue() = default;
  WriteQueue(const WriteQueue&) = delete;
  WriteQueue& operator=(const WriteQueue&) = delete;

  // For a child after a fork: its other threads, which may have held the lock, do not exist. Async-signal-safe.
  void abandon_in_child() { abandoned_ = true; }

 private:
  void add(Writer& writer);
  void remove(Writer& writer);
  void choose_leader();

  std::atomic<bool> abandoned_{false};
  std::mutex mutex_;  // guards what follows, and the members of all writers
  Writer* leader_ = nullptr;
  Writer* first_ = nullptr;  // of those that wait
  Writer* last_ = nullptr;
  std::size_t count_ = 0;  // likewise
};

// A thread's place in the queue, on its stack.
class WriteQueue::Writer {
 public:
  enum class Role {
    kLeader,  // no other thread of the process writes, until this object is destroyed
    kGuest    // the leader's transaction is open to this thread, until it calls finish() or this object is destroyed
  };

  enum class Preference {
    kNone,
    kLead  // to be the leader, and before all that wait
  };

  Writer(WriteQueue& queue, Preference preference) : queue_(queue), wants_to_lead_(preference == Preference::kLead) {}
  // A leader whose guests were not told the end tells them to begin again.
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  // Waits for this thread's turn. Returns PRTKV_BUSY if it does not come before the deadline. Call once.
  Status wait(WriterDeadline* deadline, Role* role);

  // For the leader. Lets the threads that are waiting now join its transaction, in turn, up to the first one that wants
  // to lead. Returns false if one of them has spoiled the transaction, which must not be committed then.
  bool let_others_join(WriteTransaction& transaction);

  // For the leader. Ends the part of those that have joined: with the result of the commit, or to begin again.
  void tell_end(const Status& committed) noexcept;
  void tell_to_begin_again() noexcept;

  // For a guest: the leader's transaction.
  WriteTransaction& transaction() const { return *transaction_; }

  // For a guest: its part is done. Waits for the end, and returns true if the transaction was committed or has failed,
  // with the result in `*committed`. Returns false if the guest is to begin again, in a queue place of its own.
  bool finish(Status* committed);

  // For a guest: the leader's transaction can no longer be used.
  void spoil() noexcept;

 private:
  friend class WriteQueue;
  enum class State { kNone, kWaits, kLeads, kWorks, kHasJoined, kIsTold };

  void end_guest_turn(State state) noexcept;
  void tell(const Status& committed, bool again) noexcept;

  WriteQueue& queue_;
  const bool wants_to_lead_;
  std::condition_variable changed_;
  State state_ = State::kNone;
  Writer* next_ = nullptr;  // of those that wait, or that have joined

  // Of a leader.
  Writer* guest_ = nullptr;         // that works in the transaction
  Writer* first_joined_ = nullptr;  // of those that have finished
  bool spoiled_ = false;

  // Of a guest.
  Writer* host_ = nullptr;
  WriteTransaction* transaction_ = nullptr;
  Status committed_;
  bool again_ = false;
};

}  // namespace tkv::store

#endif
