// WriterLock: the right to write to a registry, for one thread of one process on this node at a time.
//
// LMDB has a lock of its own, which waits without limit and does not say for whom. Writers take this lock first, so
// that they can wait with a deadline and name the process that holds it. The lock is a lock on two bytes of the file
// writer.lock that belongs to this process's open file description, so the kernel releases it when the process dies,
// however it dies. The file's content names the holder, for messages only.
//
// A waiting process holds the first byte while it waits for the second one. A process that writes without a pause must
// take the first byte again, too, and so cannot keep a waiting one out.
//
// Any thread may call, except that release() belongs to the thread that acquired the lock.
#ifndef TKV_PLATFORM_STORE_LMDB_WRITER_LOCK_H
#define TKV_PLATFORM_STORE_LMDB_WRITER_LOCK_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "base/descriptor.h"
#include "base/function_ref.h"
#include "base/status.h"
#include "store/lmdb/registry_files.h"

namespace tkv::store {

struct WriterWait {
  std::chrono::milliseconds timeout{0};
  // Called once, after a second of waiting, with a message for people: "waiting for process 4711 (tkv), ...".
  std::function<void(const std::string& message)> on_wait;
};

class WriterLock {
 public:
  explicit WriterLock(const RegistryFiles& files) : files_(files) {}
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

  // Returns PRTKV_BUSY, with a message that names the holder, if the lock is not free before the timeout.
  Status acquire(const WriterWait& wait);
  void release();

  // Notes when a transaction was committed (see commit_times.h). For the holder of the lock.
  void note_commit(std::uint64_t transaction);

  // For a child after a fork, which must not keep the parent's lock alive. Async-signal-safe.
  void close_in_child() { file_ = Descriptor(-1); }

 private:
  class Deadline;

  Status take_turn(Deadline* deadline);
  void give_turn();
  Status open_file();
  Status take_file(Deadline* deadline);
  Status take_byte(off_t byte, Deadline* deadline);
  void free_byte(off_t byte) const;
  void name_holder() const;
  std::string holder() const;
  Status busy(const std::string& holder, const Deadline& deadline) const;

  const RegistryFiles& files_;
  Descriptor file_{-1};      // guarded by the turn
  std::int64_t noted_ = -1;  // likewise: the interval in which this process has noted a commit
  std::mutex mutex_;
  std::condition_variable turn_free_;
  bool turn_taken_ = false;  // guarded by mutex_: by a thread of this process
};

}  // namespace tkv::store

#endif
