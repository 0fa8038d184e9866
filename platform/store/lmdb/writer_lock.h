// WriterLock: the right to write to a registry, for one process on this node at a time.
//
// LMDB has a lock of its own, which waits without limit and does not say for whom. Writers take this lock first, so
// that they can wait with a deadline and name the process that holds it. The lock is a lock on two bytes of the file
// writer.lock that belongs to this process's open file description, so the kernel releases it when the process dies,
// however it dies. The file's content names the holder, for messages only.
//
// A process is next while it holds the first byte and waits for the second one. A process that writes without a pause
// must take the first byte again, too, and so cannot keep a waiting one out. Handing the lock over takes as long as it
// takes to wake up a process, a good part of the time of a write. The process that is next therefore lets others write
// ahead of it, without the first byte, for a moment: processes that write at once each make several writes in a row.
//
// The threads of a process come here one at a time: see WriteQueue.
#ifndef TKV_PLATFORM_STORE_LMDB_WRITER_LOCK_H
#define TKV_PLATFORM_STORE_LMDB_WRITER_LOCK_H

#include <cstdint>
#include <string>

#include "base/descriptor.h"
#include "base/status.h"
#include "store/lmdb/registry_files.h"
#include "store/lmdb/writer_page.h"
#include "store/lmdb/writer_wait.h"

namespace tkv::store {

class WriterLock {
 public:
  explicit WriterLock(const RegistryFiles& files) : files_(files) {}
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

  // Returns PRTKV_BUSY, with a message that names the holder, if the lock is not free before the deadline.
  Status acquire(WriterDeadline* deadline);
  void release();

  // Notes when a transaction was committed (see commit_times.h). For the holder of the lock.
  void note_commit(std::uint64_t transaction);

  // For a child after a fork, which must not keep the parent's lock alive. Async-signal-safe.
  void close_in_child() {
    file_ = Descriptor(-1);
    page_.forget_in_child();
  }

 private:
  class Place;

  Status open_file();
  Status take_byte(off_t byte, WriterDeadline* deadline);
  void name_holder() const;
  std::string holder() const;

  const RegistryFiles& files_;
  Descriptor file_{-1};
  WriterPage page_;
  std::string name_;         // of this process, as the file holds it
  std::int64_t noted_ = -1;  // the interval in which this process has noted a commit
  WriterDeadline::Clock::time_point released_;
  bool writes_without_pause_ = false;  // this write followed the one before at once
};

}  // namespace tkv::store

#endif
